#include "instances/instance_manager.h"

#include <ace/Log_Msg.h>

#include <atomic>

namespace
{
std::atomic<Instance_Manager*>& current()
{
  static Instance_Manager own;
  static std::atomic<Instance_Manager*> manager(&own);
  return manager;
}
} // namespace

Instance_Manager* Instance_Manager::instance()
{
  return current().load();
}

Instance_Manager::~Instance_Manager() = default;

std::shared_ptr<Instance> Instance_Manager::find(const std::string&, const std::string&)
{
  return std::shared_ptr<Instance>();
}

int Instance_Manager::get_account(const std::string&, const std::string&, const std::string&, std::string&,
                                  secure_string&, std::map<std::string, json_spirit::Value>*)
{
  return -1;
}

int update_instance(std::shared_ptr<const Instance>, const std::map<std::string, json_spirit::Value>&)
{
  ACE_ERROR((LM_ERROR, "(%P|%t) update_instance: the registry cannot be written\n"));
  return -1;
}

namespace kestrel
{
Instance_Manager* set_instance_manager_for_test(Instance_Manager* manager)
{
  return current().exchange(manager);
}
} // namespace kestrel
