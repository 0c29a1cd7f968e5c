#include "catalog/catalog_admin.h"

namespace kestrel
{
namespace
{
bool no_catalog(int max_seconds_retry, std::string& error)
{
  error = "There is no catalog (" + std::to_string(max_seconds_retry) + " s)";
  return false;
}
} // namespace

Catalog_Admin::Catalog_Admin(int max_seconds_retry) : max_seconds_retry_(max_seconds_retry) {}

bool Catalog_Admin::set_state(const std::string&, Set_State, const std::string&, std::string& error)
{
  return no_catalog(max_seconds_retry_, error);
}

bool Catalog_Admin::remove(const std::string&, std::string& error)
{
  return no_catalog(max_seconds_retry_, error);
}

bool Catalog_Admin::dependents(const std::string&, std::vector<std::string>&, std::string& error)
{
  return no_catalog(max_seconds_retry_, error);
}

bool Catalog_Admin::count_by_pool(const std::string&, uint64_t&, std::string& error)
{
  return no_catalog(max_seconds_retry_, error);
}
} // namespace kestrel
