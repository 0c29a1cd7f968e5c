#include "server/recent_reads.h"

#include "base/clock.h"

namespace kestrel
{
namespace
{
/// Old entries are looked for when there are as many as no restores under way have.
const size_t MANY = 1000;
} // namespace

std::string Recent_Reads::key_of(const std::string& pool_id, const std::string& folder,
                                 const std::string& name)
{
  return pool_id + '\n' + folder + '\n' + name;
}

void Recent_Reads::note(const std::string& pool_id, const std::string& folder, const std::string& name)
{
  const int64_t now = clock().monotonic_msec();
  const std::lock_guard<std::mutex> guard(lock_);
  if (read_msec_.size() >= MANY)
    for (auto each = read_msec_.begin(); each != read_msec_.end();)
      each = now - each->second > PATIENCE_SECONDS * 1000 ? read_msec_.erase(each) : std::next(each);
  read_msec_[key_of(pool_id, folder, name)] = now;
}

bool Recent_Reads::has(const std::string& pool_id, const std::string& folder, const std::string& name) const
{
  const std::lock_guard<std::mutex> guard(lock_);
  const auto found = read_msec_.find(key_of(pool_id, folder, name));
  return found != read_msec_.end() && clock().monotonic_msec() - found->second <= PATIENCE_SECONDS * 1000;
}
} // namespace kestrel
