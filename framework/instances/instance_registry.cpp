#include "instances/instance_registry.h"

#include "instances/instance_handler.h"

namespace kestrel
{
namespace
{
int no_registry(std::string& error)
{
  error = "There is no registry of instances";
  return -1;
}
} // namespace

Instance_Registry::Instance_Registry(const std::string& host_uuid) : host_uuid_(host_uuid) {}

int Instance_Registry::merge_probe(const std::map<std::string, std::shared_ptr<Instance>>&,
                                   std::string& error)
{
  return no_registry(error);
}

int Instance_Registry::probe(Instance_Handler&, std::string& error)
{
  return no_registry(error);
}

std::string Instance_Registry::state(Instance_Handler& handler, const std::string& name)
{
  std::lock_guard<std::mutex> guard(handler.call_mutex());
  std::string state;
  return handler.get_state(name.c_str(), state);
}

int Instance_Registry::set_account(const std::string&, const std::string&, const std::string&,
                                   const std::string&, const secure_string&, std::string& error)
{
  return no_registry(error);
}

int Instance_Registry::remove_account(const std::string&, const std::string&, const std::string&,
                                      std::string& error)
{
  return no_registry(error);
}

int Instance_Registry::logon(Instance_Handler&, const std::string&, const std::string&, const std::string&,
                             const secure_string&, std::string&, std::string& error)
{
  return no_registry(error);
}

int Instance_Registry::list(std::vector<Entry>&, std::string& error) const
{
  return no_registry(error);
}

int Instance_Registry::remove(const std::string&, const std::string&, std::string& error)
{
  return no_registry(error);
}
} // namespace kestrel
