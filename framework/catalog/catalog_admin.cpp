#include "catalog/catalog_admin.h"

#include "catalog/catalog_back_end.h"
#include "catalog/catalog_retry.h"

#include <exception>

namespace kestrel
{
namespace
{
template <class Operation> bool run(int max_seconds_retry, std::string& error, Operation operation)
{
  try {
    const std::shared_ptr<Catalog_Back_End> back_end = catalog_back_end();
    return retry_while_busy(max_seconds_retry, error,
                            [&](std::string& problem) { return operation(*back_end, problem); });
  } catch (const std::exception& failure) {
    error = failure.what();
    return false;
  }
}
} // namespace

Catalog_Admin::Catalog_Admin(int max_seconds_retry) : max_seconds_retry_(max_seconds_retry) {}

bool Catalog_Admin::set_state(const std::string& uuid, Set_State state, const std::string& reason,
                              std::string& error)
{
  return run(max_seconds_retry_, error, [&](Catalog_Back_End& back_end, std::string& problem) {
    return back_end.set_state(uuid, state, reason, problem);
  });
}

bool Catalog_Admin::remove(const std::string& uuid, std::string& error)
{
  return run(max_seconds_retry_, error, [&](Catalog_Back_End& back_end, std::string& problem) {
    return back_end.remove(uuid, problem);
  });
}

bool Catalog_Admin::dependents(const std::string& uuid, std::vector<std::string>& uuids, std::string& error)
{
  return run(max_seconds_retry_, error, [&](Catalog_Back_End& back_end, std::string& problem) {
    return back_end.dependents(uuid, uuids, problem);
  });
}

bool Catalog_Admin::count_by_pool(const std::string& pool_uuid, uint64_t& count, std::string& error)
{
  return run(max_seconds_retry_, error, [&](Catalog_Back_End& back_end, std::string& problem) {
    return back_end.count_by_pool(pool_uuid, count, problem);
  });
}
} // namespace kestrel
