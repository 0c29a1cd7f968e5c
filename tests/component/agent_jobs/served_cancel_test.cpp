// Runs whose tool has fallen silent and does not end when told to, on a host of a backup server: canceled
// over REST they end all the same, and nothing of them stays at the server.

#include "served_agent.h"

#include "component/server_hub/server_fixture.h"
#include "oscar/backup_job_source.h"
#include "oscar/restore_job_source.h"
#include "storage/pool_mark.h"
#include "support/fake_tool.h"

#include <filesystem>

using namespace kestrel_test;

namespace
{
/// Makes a tool stand still for good, and shows that it does.
std::string stubborn(const Physical_Bench& bench)
{
  return "ignore TERM\nignore INT\nignore PIPE\nwrite_file " + (bench.dir / "up") + " x\nhang\n";
}

class Served_Cancel : public Server_Fixture
{
protected:
  ~Served_Cancel() override
  {
    if (!host_)
      return;
    host_->disconnect();
    // The server's threads look at the clock that the bench has put in place.
    network_.stop();
    stop();
    host_.reset();
  }

  void SetUp() override
  {
    Server_Fixture::SetUp();
    const Enrollment enrollment = enroll("alpha");
    pool_dir_ = root_.make_dir("pool");
    pool_id_ = member_text(
        ask("POST", "/k2/r/pools", R"({"name":"main","path":")" + pool_dir_ + R"(","default":true})")
            .get_obj(),
        "id");
    ASSERT_NE("", pool_id_);
    // From here on this process is the agent: the server has found all of its places.
    kestrel::set_component_name(component_);
    host_ = std::make_unique<Served_Agent>(enrollment);
    bench().set_brcmd(bench().good_backup(), bench().good_restore());
    host_->connect();
    ASSERT_TRUE(eventually([&] { return is_online(enrollment.host_uuid); }));
  }

  Physical_Bench& bench() { return host_->bench; }

  /// At the server, for its one host.
  void define(const kestrel::Job_Definition_Fields& fields, unsigned number)
  {
    json_spirit::Object body;
    body.emplace_back("id", Agent_Bench::id(number));
    body.emplace_back("hosts", json_spirit::Array{"alpha"});
    body.emplace_back("document", host_->document(fields, number, pool_id_));
    const json_spirit::Value reply = ask("POST", "/k2/r/jobs", kestrel::write_json(body));
    ASSERT_EQ(0, status_of(reply)) << kestrel::write_json(reply);
    ASSERT_TRUE(eventually([&] { return !host_->agent.entry(number).empty(); }));
  }
  /// Gives the run.
  std::string control(unsigned number, const std::string& action)
  {
    const json_spirit::Value reply =
        ask("POST", "/k2/r/jobs/" + Agent_Bench::id(number) + "/control", R"({"action":")" + action + "\"}");
    const std::string run = member_text(list_of(reply, "results").at(0).get_obj(), "run_id");
    EXPECT_NE("", run) << kestrel::write_json(reply);
    return run;
  }
  /// The record that the server has of the run when it has ended.
  json_spirit::Object ended(const std::string& run)
  {
    json_spirit::Value record;
    EXPECT_TRUE(eventually([&] {
      record = ask("GET", "/k2/r/runs/" + run);
      return status_of(record) == 0 && member_number(record.get_obj(), "ended_at") > 0;
    })) << kestrel::write_json(record);
    return record.get_obj();
  }
  void run_well(unsigned number)
  {
    // The run before has ended for the server a little before it has for its host.
    ASSERT_TRUE(eventually([&] { return text_of(host_->agent.entry(number), "run_id").empty(); }));
    const json_spirit::Object record = ended(control(number, "run"));
    EXPECT_EQ("completed", member_text(record, "state")) << member_text(record, "reason");
  }
  /// Starts the job, whose tool falls silent, and cancels it.
  void run_and_cancel(unsigned number, const std::function<void()>& meanwhile = nullptr)
  {
    bench().log.allow(LM_ERROR, "");
    bench().log.allow(LM_WARNING, "Tool_Watch");
    const std::string run = control(number, "run");
    ASSERT_TRUE(wait_for_file(bench().dir / "up"));
    if (meanwhile)
      meanwhile();
    EXPECT_EQ(run, control(number, "cancel"));
    const json_spirit::Object record = ended(run);
    EXPECT_EQ("canceled", member_text(record, "state")) << member_text(record, "reason");
    const std::string log = member_text(ask("GET", "/k2/r/runs/" + run + "/log").get_obj(), "text");
    EXPECT_NE(std::string::npos, log.find("terminating")) << log;
    EXPECT_NE(std::string::npos, log.find("has been terminated")) << log;
  }
  size_t listed(const std::string& catalog)
  {
    const json_spirit::Value reply = ask("POST", "/k2/r/catalogs/" + catalog + "/catalogs",
                                         R"({"resource_uuid":")" + bench().source_id + "\"}");
    EXPECT_EQ(0, status_of(reply)) << kestrel::write_json(reply);
    return list_of(reply, "rows").size();
  }
  /// The files in the server's pool, but its mark, and of its unfinished uploads.
  std::set<std::string> kept() const
  {
    std::set<std::string> names;
    for (const std::string& folder : {pool_dir_, root_ / "var/opt/tarnvik/kestrel3/server/uploads"})
      for (const auto& entry : std::filesystem::recursive_directory_iterator(folder))
        if (entry.is_regular_file() && entry.path().filename() != kestrel::POOL_MARK)
          names.insert(entry.path());
    return names;
  }

  void set_tool(const std::string& name, const std::string& steps)
  {
    make_fake_tool(bench().dir, "home/bin/" + name, steps);
  }
  kestrel::Job_Definition_Fields export_fields()
  {
    kestrel::Job_Definition_Fields fields = bench().backup_fields(JOB_DEFINITION_SUBTYPE_EXPORT);
    oscar::Backup_Job_Source* const source = new oscar::Backup_Job_Source;
    source->id(bench().source_id);
    source->entries() = {"oscar/PHYS7/PHYS7/A", "oscar/PHYS7/PHYS7/B"};
    fields.source = ACE_Refcounted_Auto_Ptr<Job_Source, ACE_Thread_Mutex>(source);
    return fields;
  }
  kestrel::Job_Definition_Fields import_fields()
  {
    kestrel::Job_Definition_Fields fields = bench().backup_fields(JOB_DEFINITION_SUBTYPE_IMPORT);
    fields.type = JOB_DEFINITION_RESTORE;
    oscar::Restore_Job_Source* const source = new oscar::Restore_Job_Source;
    source->id(bench().source_id);
    source->name("PHYS7");
    source->original().database = "PHYS7";
    source->original().schema = "A";
    fields.source = ACE_Refcounted_Auto_Ptr<Job_Source, ACE_Thread_Mutex>(source);
    fields.options = kestrel::Job_Definition_Fields().options;
    return fields;
  }

  std::string pool_dir_;
  std::string pool_id_;
  std::unique_ptr<Served_Agent> host_;
};

const unsigned BACKUP = 1, RESTORE = 2, EXPORT = 3, IMPORT = 4;
} // namespace

TEST_F(Served_Cancel, of_a_backup_by_a_silent_tool_discards_what_was_sent)
{
  bench().set_stream(bench().make_good_stream(3000000));
  bench().set_brcmd("begin ${option:-f}\nput_file " + (bench().dir / "stream") + "\n" + stubborn(bench()));
  define(bench().backup_fields(), BACKUP);
  run_and_cancel(BACKUP, [&] { EXPECT_TRUE(eventually([&] { return !kept().empty(); })); });
  EXPECT_EQ(std::set<std::string>(), kept());
  EXPECT_EQ(0u, listed("oscar_brcmd"));
  bench().set_brcmd(bench().good_backup());
  run_well(BACKUP);
  EXPECT_EQ(1u, listed("oscar_brcmd"));
}

TEST_F(Served_Cancel, of_a_restore_by_a_silent_tool_leaves_the_backup_as_it_was)
{
  bench().set_stream(bench().make_good_stream(3000000));
  define(bench().backup_fields(), BACKUP);
  run_well(BACKUP);
  const std::set<std::string> before = kept();
  // More than a pipe holds is still to come.
  bench().set_brcmd(bench().good_backup(), "hold ${option:-f}\n" + stubborn(bench()));
  define(bench().restore_fields("full-1"), RESTORE);
  run_and_cancel(RESTORE);
  EXPECT_EQ(before, kept());
  EXPECT_EQ(1u, listed("oscar_brcmd"));
  bench().set_brcmd(bench().good_backup(), bench().marking_restore());
  run_well(RESTORE);
  EXPECT_TRUE(exists(bench().dir / "restored"));
}

TEST_F(Served_Cancel, of_an_export_by_a_silent_tool_sends_nothing)
{
  set_tool("osrexp", "write_pattern ${prefix:file=} 3000000\nif run 2\n" + stubborn(bench()) + "end\n");
  define(export_fields(), EXPORT);
  run_and_cancel(EXPORT);
  EXPECT_EQ(std::set<std::string>(), kept());
  EXPECT_EQ(0u, listed("oscar"));
  run_well(EXPORT);
  EXPECT_EQ(1u, listed("oscar"));
}

TEST_F(Served_Cancel, of_an_export_on_its_way_discards_what_was_sent)
{
  set_tool("osrexp", "write_pattern ${prefix:file=} 3000000\n");
  kestrel::Job_Definition_Fields fields = export_fields();
  fields.rate_limits.write_limit(5000);
  define(fields, EXPORT);
  bench().log.allow(LM_ERROR, "");
  const std::string run = control(EXPORT, "run");
  ASSERT_TRUE(eventually([&] { return !kept().empty(); }));
  EXPECT_EQ(run, control(EXPORT, "cancel"));
  EXPECT_EQ("canceled", member_text(ended(run), "state"));
  EXPECT_EQ(std::set<std::string>(), kept());
  EXPECT_EQ(0u, listed("oscar"));
}

TEST_F(Served_Cancel, of_an_import_by_a_silent_tool_leaves_the_export_as_it_was)
{
  set_tool("osrexp", "write_pattern ${prefix:file=} 3000000\n");
  define(export_fields(), EXPORT);
  run_well(EXPORT);
  const std::set<std::string> before = kept();
  const std::string version = "if args_match \"^-v$\"\nout \"osrimp 2.6.0\"\nexit 0\nend\n";
  set_tool("osrimp", version + "read_some ${prefix:file=} 100\n" + stubborn(bench()));
  define(import_fields(), IMPORT);
  run_and_cancel(IMPORT);
  EXPECT_EQ(before, kept());
  EXPECT_EQ(1u, listed("oscar"));
  set_tool("osrimp", version + "copy ${prefix:file=} " + (bench().dir / "imported") + "\n");
  run_well(IMPORT);
  EXPECT_EQ(3000000u, read_file(bench().dir / "imported").size());
}
