#pragma once

#include <string>
#include <sys/types.h>

namespace oscar
{
/// The directory that holds the dump files of one definition's run: empty at its begin, gone at its end.
///
/// Only a directory of its own, named by the definition's uuid below the product's dump root, is ever emptied
/// or removed; an id of any other form is refused before anything is touched. Symbolic links are never
/// followed: the link goes.
/// Threads:   one owner; one run of a definition at a time.
/// Crash:     leaves the directory; the definition's next run empties it.
class Dump_Directory
{
public:
  /// Of every directory for dump files; they hold the users' data.
  static constexpr mode_t MODE = 0750;

  explicit Dump_Directory(const std::string& definition_id);
  /// Removes the directory when remove_at_end() was called.
  ~Dump_Directory();
  Dump_Directory(const Dump_Directory&) = delete;
  Dump_Directory& operator=(const Dump_Directory&) = delete;

  /// Absolute, with environment variables expanded; empty when the id is refused.
  const std::string& path() const { return path_; }
  /// Removes what an earlier run left. False, logged: the id is refused, or something stays.
  [[nodiscard]] bool clear();
  /// Makes it, with its missing parents. False, logged, when that fails.
  [[nodiscard]] bool create();
  void remove_at_end() { remove_at_end_ = true; }

private:
  const std::string definition_id_;
  std::string path_;
  bool remove_at_end_ = false;
};
} // namespace oscar
