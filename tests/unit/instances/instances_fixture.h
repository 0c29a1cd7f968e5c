#pragma once

#include "base/path_conf.h"
#include "instances/instance_manager.h"
#include "instances/instance_registry.h"
#include "support/log_capture.h"
#include "support/scoped_env.h"
#include "support/temp_dir.h"

#include <gtest/gtest.h>

#include <map>
#include <string>

typedef std::map<std::string, std::shared_ptr<Instance>> Found;

/// A registry of its own for each test, below a temporary KESTREL_ROOT.
class Instances_Fixture : public ::testing::Test
{
protected:
  kestrel_test::Temp_Dir root_;
  kestrel_test::Scoped_Env environment_{"KESTREL_ROOT", root_.path()};
  kestrel_test::Log_Capture log_;
  kestrel::Instance_Registry registry_{"host-1"};
  std::string error_;

  static std::string state(const char* file) { return kestrel::state_path(file); }
  static std::shared_ptr<Instance> make_instance(const std::string& name,
                                                 const std::string& home = "/opt/oscar")
  {
    auto instance = std::make_shared<Instance>();
    instance->type = "oscar";
    instance->name = name;
    instance->options["oscar_home"] = home;
    instance->options["version"] = "2.5";
    return instance;
  }
  void register_instance(const std::string& name)
  {
    ASSERT_EQ(0, registry_.merge_probe({{name, make_instance(name)}}, error_)) << error_;
  }
  void store_account(const std::string& name, const std::string& uid, const std::string& user,
                     const std::string& password)
  {
    ASSERT_EQ(0, registry_.set_account("oscar", name, uid, user, password.c_str(), error_)) << error_;
  }
  /// "user/password", or "none".
  static std::string account(const std::string& name, const std::string& uid = "")
  {
    std::string user;
    secure_string password;
    if (Instance_Manager::instance()->get_account("oscar", name, uid, user, password, nullptr) != 0)
      return "none";
    return user + "/" + std::string(password.begin(), password.end());
  }
};
