#include "agent/module_table.h"
#include "instances/instance_handler.h"
#include "jobs/job_definition_loader.h"
#include "support/log_capture.h"
#include "support/paths.h"
#include "support/scoped_env.h"
#include "support/temp_dir.h"

#include <gtest/gtest.h>

using namespace kestrel;

namespace
{
class Module_Table_Test : public testing::Test
{
protected:
  Module_Table_Test() { config_.path = kestrel_test::lib_dir() + "/oscar.so"; }

  std::string refusal(const Module_Config& config)
  {
    std::string error;
    EXPECT_FALSE(table_.open({config}, error));
    EXPECT_TRUE(table_.rpc_handlers().empty());
    EXPECT_TRUE(table_.instance_handlers().empty());
    EXPECT_EQ(nullptr, table_.job_creator(JOB_DEFINITION_BACKUP, JOB_DEFINITION_SUBTYPE_FULL));
    return error;
  }

  const kestrel_test::Temp_Dir root_;
  const kestrel_test::Scoped_Env env_{"KESTREL_ROOT", root_.path()};
  Module_Config config_ = default_agent_config().modules.front();
  Module_Table table_;
};
} // namespace

TEST_F(Module_Table_Test, binds_methods_and_job_types_to_the_objects_of_a_module)
{
  std::string error;
  ASSERT_TRUE(table_.open({config_}, error)) << error;
  EXPECT_EQ(3u, table_.rpc_handlers().size());
  EXPECT_EQ(1u, table_.rpc_handlers().count("oscar.node.notify_selected"));
  ASSERT_EQ(1u, table_.instance_handlers().size());
  EXPECT_EQ(table_.instance_handlers().front(), table_.instance_handler("oscar"));
  EXPECT_EQ(nullptr, table_.instance_handler("other"));
  Job_Creator* const creator = table_.job_creator(JOB_DEFINITION_BACKUP, JOB_DEFINITION_SUBTYPE_FULL);
  EXPECT_NE(nullptr, creator);
  EXPECT_EQ(creator, table_.job_creator(JOB_DEFINITION_RESTORE, JOB_DEFINITION_SUBTYPE_IMPORT))
      << "one line, one object";
  EXPECT_EQ(nullptr, table_.job_creator(JOB_DEFINITION_STANDBY, JOB_DEFINITION_SUBTYPE_NONE));
  EXPECT_FALSE(table_.open({config_}, error)) << "it is open";
  table_.close();
  EXPECT_TRUE(table_.rpc_handlers().empty());
  EXPECT_TRUE(table_.open({config_}, error)) << error;
}

TEST_F(Module_Table_Test, a_subtype_may_have_a_creator_of_its_own)
{
  config_.jobs["backup/export"] = Service_Line{"Oscar_Job_Creator", {"another"}};
  std::string error;
  ASSERT_TRUE(table_.open({config_}, error)) << error;
  Job_Creator* const exports = table_.job_creator(JOB_DEFINITION_BACKUP, JOB_DEFINITION_SUBTYPE_EXPORT);
  EXPECT_NE(nullptr, exports);
  EXPECT_NE(exports, table_.job_creator(JOB_DEFINITION_BACKUP, JOB_DEFINITION_SUBTYPE_FULL));
}

TEST_F(Module_Table_Test, loads_nothing_when_one_object_cannot_be_had)
{
  Module_Config config = config_;
  config.path = root_ / "missing.so";
  EXPECT_NE(std::string::npos, refusal(config).find("missing.so"));
  config = config_;
  config.rpc["more"] = Service_Line{"No_Such_Handler", {}};
  EXPECT_EQ("the module oscar gives no No_Such_Handler: No such file or directory", refusal(config));
  config = config_;
  config.jobs["backups"] = Service_Line{"Oscar_Job_Creator", {}};
  EXPECT_NE(std::string::npos, refusal(config).find("no type of job"));
}

TEST_F(Module_Table_Test, gives_an_object_its_words)
{
  kestrel_test::Log_Capture log;
  config_.instance_handlers.front().words = {"-l", "C", "-x"};
  std::string error;
  ASSERT_TRUE(table_.open({config_}, error)) << error;
  // What the handler says to a word that it does not know.
  EXPECT_TRUE(log.expect(LM_DEBUG, "Unknown queue creating option"));
  EXPECT_EQ(1u, log.count("Unknown queue creating option"));
}
