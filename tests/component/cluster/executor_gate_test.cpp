#include "cluster_fixture.h"
#include "jobs/job.h"
#include "jobs/job_definition_loader.h"
#include "oscar/module_entry.h"
#include "support/scoped_env.h"

using namespace kestrel_test;

namespace
{
/// The four kinds of jobs, and what each asks the server for.
struct Kind {
  const char* type;
  const char* subtype;
  const char* source;
  const char* work; ///< in the texts of the log
  bool select_master;
};
const char backup_source[] = R"({"id":"i","entries":["oscar/DB1"]})";
const char restore_source[] =
    R"({"id":"i","name":"DB1","catalog_id":"c","original":{"database":"oscar/DB1/DB1"}})";
const Kind kinds[] = {{"backup", "full", backup_source, "backup", true},
                      {"backup", "export", backup_source, "backup", false},
                      {"restore", "full", restore_source, "restore", true},
                      {"restore", "import", restore_source, "restore", true}};

/// A tool that tells that it was called.
const char called[] = "write_file ${dir}/called x\nexit 1\n";
} // namespace

/// Whole jobs of the module on a host that is node 7 of a cluster.
class Executor_Gate : public Cluster_Fixture
{
protected:
  Executor_Gate()
  {
    for (const char* tool : {"bin/brcmd", "bin/osrexp", "bin/osrimp"})
      make_fake_tool(home_, tool, called);
    loader_.add_parsers(JOB_DEFINITION_BACKUP, backup_sources_.get(), backup_options_.get());
    loader_.add_parsers(JOB_DEFINITION_RESTORE, restore_sources_.get(), restore_options_.get());
  }

  /// Runs a job of the kind in the cluster, for which this was announced before, and gives the state in which
  /// it ends.
  Job_State run(const Kind& kind, const std::string& announced_state, int announced_node)
  {
    const std::string document =
        std::string(R"({"id":")") + JOB + R"(","uid":")" + UID + R"(","type":")" + kind.type +
        R"(","subtype":")" + kind.subtype +
        R"(","target":{"id":"9a1b2c3d-4e5f-4a6b-8c7d-0e1f2a3b4c5d"},"rsrc_form":"cluster",)" +
        R"("source":)" + kind.source + R"(,"options":{}})";
    Job_Definition_Ptr definition;
    std::string error;
    EXPECT_TRUE(loader_.load(document, definition, error)) << error;
    EXPECT_TRUE(announce(announced_state, announced_node));
    const ACE_Intrusive_Auto_Ptr<Job> job = jobs_->create(definition);
    EXPECT_EQ(job->start(), 0);
    EXPECT_TRUE(job->wait_end(60000));
    return job->state();
  }

  typedef Object_Creator_T<YAJL_Handler> Parser_Creator;
  template <class T> using Service = std::unique_ptr<T, void (*)(void*)>;
  template <class T> static Service<T> make(T* (*factory)(void (**)(void*)))
  {
    void (*release)(void*) = nullptr;
    T* const object = factory(&release);
    return Service<T>(object, release);
  }

  Fake_Clock clock_;
  const Service<Parser_Creator> backup_sources_ = make(&_make_Oscar_Backup_Job_Source_Parser_Creator);
  const Service<Parser_Creator> backup_options_ = make(&_make_Oscar_Backup_Job_Options_Parser_Creator);
  const Service<Parser_Creator> restore_sources_ = make(&_make_Oscar_Restore_Job_Source_Parser_Creator);
  const Service<Parser_Creator> restore_options_ = make(&_make_Oscar_Restore_Job_Options_Parser_Creator);
  const Service<Job_Creator> jobs_ = make(&_make_Oscar_Job_Creator);
  kestrel::Job_Definition_Loader loader_;
};

TEST_F(Executor_Gate, a_job_that_another_node_does_is_skipped_with_a_line_for_debugging_only)
{
  for (const Kind& kind : kinds) {
    log_.clear();
    EXPECT_EQ(run(kind, "success", 8), JOB_STATE_SKIPPED) << kind.subtype;
    EXPECT_TRUE(
        log_.expect_exactly(LM_DEBUG, std::string("This node is not selected to ") + kind.work + "\n"));
    for (const ACE_Log_Priority priority : {LM_WARNING, LM_ERROR, LM_EMERGENCY})
      EXPECT_EQ(log_.count(priority, ""), 0u) << kind.subtype;
  }
  EXPECT_FALSE(exists(home_ / "bin/called")) << "nothing was touched";
}

TEST_F(Executor_Gate, a_job_that_nobody_does_is_skipped_with_an_error)
{
  for (const Kind& kind : kinds) {
    EXPECT_EQ(run(kind, "failed", -1), JOB_STATE_SKIPPED) << kind.subtype;
    EXPECT_TRUE(log_.expect_exactly(LM_ERROR, std::string("No node is selected to ") + kind.work + "\n"));
    EXPECT_EQ(run(kind, "later", 7), JOB_STATE_SKIPPED) << kind.subtype;
    EXPECT_TRUE(log_.expect_exactly(LM_ERROR, "Wrong node selection state: later\n"));
  }
  EXPECT_FALSE(exists(home_ / "bin/called")) << "nothing was touched";
}

TEST_F(Executor_Gate, each_kind_of_job_asks_for_the_master_or_not)
{
  for (const Kind& kind : kinds) {
    server_->requests.clear();
    EXPECT_EQ(run(kind, "success", 8), JOB_STATE_SKIPPED);
    ASSERT_EQ(server_->requests.size(), 1u) << kind.subtype;
    const std::string wanted = std::string("\"select_master\":") + (kind.select_master ? "true" : "false");
    EXPECT_NE(server_->requests[0].find(wanted), std::string::npos) << kind.type << " " << kind.subtype;
  }
}

TEST_F(Executor_Gate, the_chosen_node_goes_on_to_its_work)
{
  log_.allow(LM_ERROR, ""); // the work itself has no pool and no backup here
  log_.allow(LM_WARNING, "");
  for (const Kind& kind : kinds)
    EXPECT_EQ(run(kind, "success", 7), JOB_STATE_ERROR) << kind.type << " " << kind.subtype;
}
