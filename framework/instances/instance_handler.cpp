#include "instances/instance_handler.h"

Instance_Handler::Instance_Handler(const char* type) : type_(type ? type : "") {}

Instance_Handler::~Instance_Handler() = default;

int Instance_Handler::init(int, char**)
{
  return 0;
}

int Instance_Handler::probe_instances(std::map<std::string, std::shared_ptr<Instance>>&)
{
  return 0;
}

std::string& Instance_Handler::get_state(const char*, std::string& state)
{
  return state = "error";
}

int Instance_Handler::logon(const char*, const char*, const char*, std::map<std::string, json_spirit::Value>&)
{
  error_ = "The handler of type " + type_ + " cannot test logins";
  return -1;
}

int Instance_Handler::update_options(const char*, const char*, const char*,
                                     std::map<std::string, json_spirit::Value>&)
{
  return 0;
}

int Instance_Handler::get_port(const char*, unsigned short&)
{
  return -1;
}
