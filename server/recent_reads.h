#pragma once

#include <cstdint>
#include <map>
#include <mutex>
#include <string>

namespace kestrel
{
/// Which stored files were read a short while ago. A restore reads the files of a chain piece by piece, in
/// requests of their own, so that only this tells that it is under way. Threads: any. Units: seconds of
/// kestrel::clock().
class Recent_Reads
{
public:
  /// How long after a piece the next one of a slow restore may come.
  static const int64_t PATIENCE_SECONDS = 120;

  void note(const std::string& pool_id, const std::string& folder, const std::string& name);
  bool has(const std::string& pool_id, const std::string& folder, const std::string& name) const;

private:
  static std::string key_of(const std::string& pool_id, const std::string& folder, const std::string& name);

  mutable std::mutex lock_;
  std::map<std::string, int64_t> read_msec_;
};
} // namespace kestrel
