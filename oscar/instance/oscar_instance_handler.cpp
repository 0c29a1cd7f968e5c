#include "oscar/instance/oscar_instance_handler.h"

#include "base/ignore_result.h"
#include "base/string_sprintf.h"
#include "instances/instance_manager.h"
#include "oscar/oscar_argument_check.h"
#include "oscar/utils.h"

#include <ace/Get_Opt.h>
#include <ace/Log_Msg.h>

#include <exception>

namespace
{
const char type_name[] = "oscar";

/// The directory of a registered instance.
bool find_home(const char* name, std::string& oscar_home)
{
  Instance_Manager* manager = Instance_Manager::instance();
  const std::shared_ptr<Instance> instance = manager ? manager->find(type_name, name) : nullptr;
  return instance && get_from_instance_options(instance, "oscar_home", oscar_home);
}

std::shared_ptr<Instance> to_instance(const Oscar_Instance_Info& info)
{
  const std::shared_ptr<Instance> instance = std::make_shared<Instance>();
  instance->type = type_name;
  instance->name = info.instance;
  instance->options["oscar_home"] = info.oscar_home;
  instance->options["version"] = info.version;
  return instance;
}
} // namespace

Oscar_Instance_Handler::Oscar_Instance_Handler() : Instance_Handler(type_name) {}

int Oscar_Instance_Handler::init(int argc, char** argv)
{
  ACE_Get_Opt options(argc, argv, "l:", 0, 0, ACE_Get_Opt::REQUIRE_ORDER, 0);
  for (int option = options(); option != EOF; option = options()) {
    if (option == 'l')
      locale_ = options.opt_arg();
    else
      ACE_DEBUG((LM_DEBUG, "Unknown queue creating option %c\n", option));
  }
  return 0;
}

int Oscar_Instance_Handler::probe_instances(std::map<std::string, std::shared_ptr<Instance>>& instances)
{
  try {
    if (!get_instance_info(inst_infos_, locale_.c_str())) {
      ACE_ERROR((LM_ERROR, "Failed to get instance info.\n"));
      return -1;
    }
    for (const auto& [name, info] : inst_infos_)
      instances[info.instance] = to_instance(info);
    return 0;
  } catch (const std::exception& e) {
    ACE_ERROR((LM_ERROR, "Failed to get instance info, exception: %s.\n", e.what()));
    return -1;
  }
}

std::string& Oscar_Instance_Handler::get_state(const char* name, std::string& state)
{
  state = "error";
  std::string oscar_home;
  if (!oscar::null_or_empty(name) && find_home(name, oscar_home))
    kestrel::ignore_result(get_instance_state(oscar_home.c_str(), name, state), "the state text says it");
  return state;
}

int Oscar_Instance_Handler::logon(const char* name, const char* username, const char* password,
                                  std::map<std::string, json_spirit::Value>&)
{
  if (!OSCAR_TEXT_GIVEN(name) || !OSCAR_TEXT_GIVEN(username) || !OSCAR_TEXT_GIVEN(password))
    return -1;
  const auto found = inst_infos_.find(name);
  if (found == inst_infos_.end()) {
    string_sprintf(error_, "Instance %s not found", name);
    ACE_ERROR((LM_ERROR, "%s.\n", error_.c_str()));
    return -1;
  }
  const std::string& oscar_home = found->second.oscar_home;
  if (oscar_home.empty()) {
    string_sprintf(error_, "SZ_OSCAR_HOME of %s is empty", name);
    ACE_ERROR((LM_ERROR, "%s.\n", error_.c_str()));
    return -1;
  }
  return test_login_instance(oscar_home.c_str(), name, username, password, &error_) ? 0 : -1;
}

int Oscar_Instance_Handler::update_options(const char* name, const char* username, const char* password,
                                           std::map<std::string, json_spirit::Value>& options)
{
  if (!OSCAR_TEXT_GIVEN(name) || !OSCAR_TEXT_GIVEN(username) || !OSCAR_TEXT_GIVEN(password))
    return -1;
  std::string oscar_home;
  std::map<std::string, json_spirit::Value> attrs;
  if (!find_home(name, oscar_home) ||
      !get_update_attrs(oscar_home.c_str(), name, username, password, attrs)) {
    ACE_ERROR((LM_ERROR, "Failed to update options, instance = '%s'\n", name));
    return -1;
  }
  for (const auto& [key, value] : attrs)
    options[key] = value;
  return 0;
}

int Oscar_Instance_Handler::get_port(const char* name, unsigned short& port)
{
  std::string oscar_home;
  unsigned short found = 0;
  if (oscar::null_or_empty(name) || !find_home(name, oscar_home) ||
      !get_instance_port(oscar_home.c_str(), name, found))
    return -1;
  port = found;
  return 0;
}
