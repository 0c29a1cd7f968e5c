#include "storage/pool_registry.h"

namespace kestrel
{
Pool_Registry::Pool_Registry() = default;

Pool_Registry::Pool_Registry(const std::string& file) : file_(file) {}

bool Pool_Registry::add(const std::string&, const std::string&, Pool_Info&, std::string& error)
{
  error = "the list of pools cannot be opened";
  return false;
}

bool Pool_Registry::remove(const std::string&, std::string& error)
{
  error = "the list of pools cannot be opened";
  return false;
}

bool Pool_Registry::list(std::vector<Pool_Info>&, std::string& error) const
{
  error = "the list of pools cannot be opened";
  return false;
}

bool Pool_Registry::find(const std::string&, Pool_Info&, std::string& error) const
{
  error = "the list of pools cannot be opened";
  return false;
}

bool Pool_Registry::default_pool(Pool_Info&, std::string& error) const
{
  error = "the list of pools cannot be opened";
  return false;
}

bool Pool_Registry::set_default_pool(const std::string&, std::string& error)
{
  error = "the list of pools cannot be opened";
  return false;
}
} // namespace kestrel
