#pragma once

#include "storage/pool.h"

#include <functional>
#include <string>
#include <vector>

namespace kestrel
{
/// The storage pools of this host, kept in a small JSON file.
///
/// Threads:   any thread, and any number of processes: every change holds a lock on a file beside the list.
/// Errors:    false with `error` telling what failed and what to do; out-parameters untouched.
/// Crash:     the file is replaced in one step, so it holds the list from before or after a change.
class Pool_Registry
{
public:
  /// Uses the host's own list, pools.json in its state directory.
  Pool_Registry();
  /// Uses another file.
  explicit Pool_Registry(const std::string& file);

  /// Adds a pool. `name` is unique and made of letters, digits, '.', '_' and '-' (at most 64, the first a
  /// letter or digit, not the form of an id). `path` names an existing directory other than the root and is
  /// made absolute without following links; no two pools of one list share a directory. The first pool becomes
  /// the default. The directory gets its mark (storage/pool_mark.h) before the pool is stored, so that no pool
  /// of the list lacks a mark that it remembers; a failure after that leaves the mark, which does no harm. One
  /// on a file system that can only be read, and has no mark, is added without: no backup can go into it.
  [[nodiscard]] bool add(const std::string& name, const std::string& path, Pool_Info& added,
                         std::string& error);
  /// Forgets a pool, by id or name; its files are left alone, and its mark: the directory may be a pool of
  /// another list, which would then refuse it. Another pool becomes the default only when it is the last one
  /// left.
  [[nodiscard]] bool remove(const std::string& id_or_name, std::string& error);
  /// All pools, in the order in which they were added. Those of releases before there were marks have none
  /// and are used as they are. A list that does not exist yet is empty.
  [[nodiscard]] bool list(std::vector<Pool_Info>& pools, std::string& error) const;
  /// The pool with this id or, failing that, this name.
  [[nodiscard]] bool find(const std::string& id_or_name, Pool_Info& info, std::string& error) const;
  /// The pool that jobs use when none is named; false when there is none.
  [[nodiscard]] bool default_pool(Pool_Info& info, std::string& error) const;
  [[nodiscard]] bool set_default_pool(const std::string& id_or_name, std::string& error);

private:
  struct Content {
    std::vector<Pool_Info> pools;
    std::string default_id;
  };

  bool load(Content& content, std::string& error) const;
  bool save(const Content& content, std::string& error) const;
  /// Loads, lets `change` work on the content and saves, all under the lock.
  bool update(const std::function<bool(Content&, std::string&)>& change, std::string& error) const;
  /// The same for one pool; false when there is none of this id or name.
  bool update_pool(const std::string& id_or_name,
                   const std::function<void(Content&, std::vector<Pool_Info>::iterator)>& change,
                   std::string& error);
  static bool find_in(Content& content, const std::string& id_or_name, const std::string& missing,
                      Pool_Info& info, std::string& error);
  static std::vector<Pool_Info>::iterator position(Content& content, const std::string& id_or_name);

  std::string file_;
};
} // namespace kestrel
