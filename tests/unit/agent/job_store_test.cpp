#include "agent/job_database.h"
#include "agent/job_store.h"
#include "agent/run_history.h"
#include "support/temp_dir.h"
#include "json/json_util.h"

#include <gtest/gtest.h>
#include <soci/soci.h>

#include <sys/stat.h>

using namespace kestrel;
using kestrel_test::Temp_Dir;

namespace
{
class Job_Store_Test : public testing::Test
{
protected:
  Job_Store_Test() { open(); }

  void open()
  {
    std::string error;
    ASSERT_TRUE(database_.open(dir_ / "agent.db", error)) << error;
  }
  void reopen()
  {
    database_.close();
    open();
  }
  std::vector<Stored_Definition> stored()
  {
    std::vector<Stored_Definition> definitions;
    std::string error;
    EXPECT_TRUE(store_.load(definitions, error)) << error;
    return definitions;
  }
  void put(const std::string& run_id, time_t ended_at, const std::string& definition = "d1")
  {
    Run_Record record;
    record.run_id = run_id;
    record.definition_id = definition;
    record.name = "nightly";
    record.trigger = "schedule";
    record.queued_at = 100;
    record.ended_at = ended_at;
    record.log_path = "/log/" + run_id;
    std::string error;
    ASSERT_TRUE(history_.put(record, error)) << error;
  }
  static std::vector<std::string> ids(const std::vector<Run_Record>& records)
  {
    std::vector<std::string> found;
    for (const Run_Record& record : records)
      found.push_back(record.run_id);
    return found;
  }
  std::vector<std::string> unsent(unsigned limit = 100)
  {
    std::vector<Run_Record> records;
    std::string error;
    EXPECT_TRUE(history_.unsent(limit, records, error)) << error;
    return ids(records);
  }
  std::vector<std::string> list(const std::string& definition = "", unsigned limit = 100)
  {
    std::vector<Run_Record> records;
    std::string error;
    EXPECT_TRUE(history_.list(definition, limit, records, error)) << error;
    return ids(records);
  }

  Temp_Dir dir_;
  Job_Database database_;
  Job_Store store_{database_};
  Run_History history_{database_, true};
};

typedef std::vector<std::string> Ids;
} // namespace

TEST_F(Job_Store_Test, keeps_definitions)
{
  std::string error;
  ASSERT_TRUE(store_.change(
      {{"a", 1, true, "server", "{\"x\":\"\xc3\xa4\"}", 5}, {"b", 2, false, "local", "{}", 6}}, {}, error))
      << error;
  ASSERT_TRUE(store_.change({{"a", uint64_t(1) << 40, true, "server", "{}", 7}}, {"b"}, error)) << error;
  ASSERT_TRUE(store_.set_enabled("a", false, error)) << error;
  reopen();
  const auto definitions = stored();
  ASSERT_EQ(1u, definitions.size());
  EXPECT_EQ("a", definitions[0].id);
  EXPECT_EQ(uint64_t(1) << 40, definitions[0].revision);
  EXPECT_FALSE(definitions[0].enabled);
  EXPECT_EQ("server", definitions[0].origin);
  EXPECT_EQ("{}", definitions[0].document);
  EXPECT_EQ(7, definitions[0].since);
}

TEST_F(Job_Store_Test, keeps_how_far_schedules_were_looked_at)
{
  std::string error;
  time_t until = 7;
  ASSERT_TRUE(store_.scheduled_until(until, error)) << error;
  EXPECT_EQ(0, until);
  ASSERT_TRUE(store_.set_scheduled_until(1700000000, error)) << error;
  ASSERT_TRUE(store_.set_scheduled_until(1700000060, error)) << error;
  reopen();
  ASSERT_TRUE(store_.scheduled_until(until, error)) << error;
  EXPECT_EQ(1700000060, until);
}

TEST_F(Job_Store_Test, its_file_is_for_its_owner_only)
{
  for (const char* name : {"agent.db", "agent.db-wal"}) {
    struct stat status;
    ASSERT_EQ(0, ::stat((dir_ / name).c_str(), &status)) << name;
    EXPECT_EQ(0600u, status.st_mode & 0777) << name;
  }
}

TEST_F(Job_Store_Test, keeps_every_member_of_a_run)
{
  Run_Record record;
  record.run_id = "r1";
  record.definition_id = "d1";
  record.revision = 3;
  record.name = "n\xc3\xa4ghtly";
  record.trigger = "console";
  record.state = JOB_STATE_COMPLETED_WITH_ERRORS;
  record.queued_at = 1;
  record.started_at = 2;
  record.ended_at = 3;
  record.reason = "a 'quoted' reason";
  record.log_path = "/log/r1";
  json_spirit::Object alert;
  set_value(alert, "category", 7);
  record.alerts.push_back(alert);
  record.done_bytes = uint64_t(5) << 40;
  record.instance = "DB1";
  std::string error;
  ASSERT_TRUE(history_.put(record, error)) << error;
  reopen();
  Run_Record found;
  bool is_found = false;
  ASSERT_TRUE(history_.find("r1", found, is_found, error)) << error;
  ASSERT_TRUE(is_found);
  EXPECT_EQ(write_json(run_record_json(record, "h1")), write_json(run_record_json(found, "h1")));
  EXPECT_EQ("{\"run_id\":\"r1\",\"definition_id\":\"d1\",\"revision\":3,\"name\":\"n\xc3\xa4ghtly\",\"host_"
            "uuid\":\"h1\","
            "\"trigger\":\"console\",\"state\":\"completed with errors\",\"queued_at\":1,\"started_at\":2,"
            "\"ended_at\":3,\"reason\":\"a 'quoted' "
            "reason\",\"log_path\":\"/log/r1\",\"alerts\":[{\"category\":7}],"
            "\"done_bytes\":5497558138880,\"instance\":\"DB1\"}",
            write_json(run_record_json(found, "h1")));
  ASSERT_TRUE(history_.find("r2", found, is_found, error)) << error;
  EXPECT_FALSE(is_found);
  ASSERT_TRUE(history_.find("", found, is_found, error)) << error;
  EXPECT_FALSE(is_found);
}

TEST_F(Job_Store_Test, gives_ended_runs_until_they_are_acknowledged)
{
  put("r1", 10);
  put("r2", 0);
  put("r3", 30);
  EXPECT_EQ((Ids{"r1", "r3"}), unsent());
  EXPECT_EQ(Ids{"r1"}, unsent(1));
  std::string error;
  ASSERT_TRUE(history_.mark_sent({"r1", "r2", "unknown"}, error)) << error;
  EXPECT_EQ(Ids{"r3"}, unsent());
  put("r2", 20);
  EXPECT_EQ((Ids{"r2", "r3"}), unsent()) << "it had not ended when it was acknowledged";
}

TEST_F(Job_Store_Test, keeps_what_the_server_refuses_with_its_reason_and_offers_it_no_more)
{
  put("r1", 10);
  put("r2", 0);
  put("r3", 30);
  put("r4", 40);
  std::string error;
  ASSERT_TRUE(history_.mark_sent({"r4"}, error)) << error;
  ASSERT_TRUE(history_.mark_refused({{"r1", "no such host"}, {"r2", "too early"}, {"r4", "too late"}}, error)) << error;
  EXPECT_EQ(Ids{"r3"}, unsent());
  put("r1", 11); // stored once more, as a record whose writing was late
  EXPECT_EQ(Ids{"r3"}, unsent());

  std::map<std::string, std::string> refusals;
  std::vector<Run_Record> records;
  ASSERT_TRUE(history_.list("", 10, records, error)) << error;
  for (const Run_Record& record : records)
    refusals[record.run_id] = record.refusal;
  EXPECT_EQ((std::map<std::string, std::string>{{"r1", "no such host"}, {"r2", ""}, {"r3", ""}, {"r4", ""}}), refusals);
  Run_Record found;
  bool is_found = false;
  ASSERT_TRUE(history_.find("r1", found, is_found, error)) << error;
  EXPECT_EQ("no such host", json_spirit::find_value(run_record_json(found, "h"), "refusal").get_str());
  ASSERT_TRUE(history_.find("r3", found, is_found, error)) << error;
  EXPECT_TRUE(json_spirit::find_value(run_record_json(found, "h"), "refusal").is_null());

  std::vector<std::string> logs;
  ASSERT_TRUE(history_.prune(20, logs, error)) << error;
  EXPECT_EQ(Ids{"/log/r1"}, logs);
}

TEST_F(Job_Store_Test, knows_the_last_run_of_every_definition)
{
  put("r1", 10, "d1");
  put("r2", 20, "d2");
  put("r3", 0, "d1");
  std::vector<Run_Record> records;
  std::string error;
  ASSERT_TRUE(history_.last_runs(records, error)) << error;
  EXPECT_EQ((Ids{"r2", "r3"}), ids(records));
  ASSERT_TRUE(history_.open_runs(records, error)) << error;
  EXPECT_EQ(Ids{"r3"}, ids(records));
  EXPECT_EQ((Ids{"r3", "r2", "r1"}), list());
  EXPECT_EQ((Ids{"r3", "r1"}), list("d1"));
  EXPECT_EQ(Ids{"r3"}, list("d1", 1));
  EXPECT_EQ(Ids{}, list("' OR 1=1 --"));
}

TEST_F(Job_Store_Test, a_note_of_a_skipped_time_is_no_last_run)
{
  put("r1", 10, "d1");
  Run_Record note;
  note.run_id = "note";
  note.definition_id = "d1";
  note.state = JOB_STATE_SKIPPED;
  note.ended_at = 20;
  std::string error;
  ASSERT_TRUE(history_.put(note, error)) << error;
  std::vector<Run_Record> records;
  ASSERT_TRUE(history_.last_runs(records, error)) << error;
  EXPECT_EQ(Ids{"r1"}, ids(records));
  ASSERT_TRUE(history_.latest_records(records, error)) << error;
  EXPECT_EQ(Ids{"note"}, ids(records));
  // A run that found nothing to do on this host is one.
  note.run_id = "r2";
  note.started_at = 30;
  ASSERT_TRUE(history_.put(note, error)) << error;
  ASSERT_TRUE(history_.last_runs(records, error)) << error;
  EXPECT_EQ(Ids{"r2"}, ids(records));
}

TEST_F(Job_Store_Test, forgets_old_runs_but_never_what_the_server_does_not_have)
{
  put("old", 10);
  put("old_unsent", 10);
  put("young", 100);
  put("open", 0);
  std::string error;
  ASSERT_TRUE(history_.mark_sent({"old", "young"}, error)) << error;
  std::vector<std::string> logs;
  ASSERT_TRUE(history_.prune(50, logs, error)) << error;
  EXPECT_EQ(Ids{"/log/old"}, logs);
  EXPECT_EQ((Ids{"open", "young", "old_unsent"}), list());
}

TEST_F(Job_Store_Test, forgets_old_runs_of_a_host_without_a_server)
{
  Run_History alone(database_, false);
  Run_Record record;
  record.run_id = "r1";
  record.ended_at = 10;
  std::string error;
  ASSERT_TRUE(alone.put(record, error)) << error;
  EXPECT_EQ(Ids{}, unsent());
  std::vector<std::string> logs;
  ASSERT_TRUE(alone.prune(50, logs, error)) << error;
  EXPECT_EQ(Ids{}, list());
}

TEST_F(Job_Store_Test, a_failing_change_changes_nothing)
{
  std::string error;
  EXPECT_FALSE(database_.write(
      [](soci::session& session) {
        session << "INSERT INTO setting VALUES ('a', 'b')";
        session << "INSERT INTO nothing VALUES (1)";
      },
      error));
  EXPECT_NE(std::string::npos, error.find(dir_ / "agent.db")) << error;
  int count = 7;
  ASSERT_TRUE(database_.read(
      [&](soci::session& session) { session << "SELECT count(*) FROM setting", soci::into(count); }, error));
  EXPECT_EQ(0, count);
}

TEST(Job_Database, brings_an_older_schema_up_to_date)
{
  Temp_Dir dir;
  std::string error;
  const Job_Database::Migrations old = {{"CREATE TABLE one (a INTEGER)", "INSERT INTO one VALUES (7)"}};
  Job_Database::Migrations fresh = old;
  fresh.push_back({"ALTER TABLE one ADD COLUMN b INTEGER DEFAULT 8"});
  {
    Job_Database database;
    ASSERT_TRUE(database.open(dir / "a.db", error, old)) << error;
  }
  Job_Database database;
  ASSERT_TRUE(database.open(dir / "a.db", error, fresh)) << error;
  int sum = 0;
  ASSERT_TRUE(database.read(
      [&](soci::session& session) { session << "SELECT a + b FROM one", soci::into(sum); }, error))
      << error;
  EXPECT_EQ(15, sum);
  database.close();

  Job_Database::Migrations broken = fresh;
  broken.push_back({"DROP TABLE one", "no SQL"});
  EXPECT_FALSE(database.open(dir / "a.db", error, broken));
  ASSERT_TRUE(database.open(dir / "a.db", error, fresh))
      << "a step that fails is undone as a whole: " << error;
  ASSERT_TRUE(database.read(
      [&](soci::session& session) { session << "SELECT a + b FROM one", soci::into(sum); }, error))
      << error;
  database.close();

  EXPECT_FALSE(database.open(dir / "a.db", error, old));
  EXPECT_NE(std::string::npos, error.find("newer release")) << error;
}

TEST(Job_Database, keeps_the_runs_of_a_release_that_knew_no_refusals)
{
  Temp_Dir dir;
  std::string error;
  const Job_Database::Migrations former(Job_Database::schema().begin(), Job_Database::schema().begin() + 1);
  {
    Job_Database database;
    ASSERT_TRUE(database.open(dir / "a.db", error, former)) << error;
    ASSERT_TRUE(database.write(
        [](soci::session& session) {
          session << "INSERT INTO run (run_id, definition_id, revision, name, cause, state, queued_at, started_at, ended_at, "
                     "reason, log_path, alerts, done_bytes, instance, sent) VALUES "
                     "('r1', 'd1', 1, 'nightly', 'schedule', 0, 1, 2, 3, '', '', '[]', 4, 'DB1', 0)";
          session << "INSERT INTO definition (id, revision, enabled, origin, document, since) VALUES "
                     "('d1', 1, 0, 'server', '{}', 5)";
        },
        error))
        << error;
  }
  Job_Database database;
  ASSERT_TRUE(database.open(dir / "a.db", error)) << error;
  Run_History history(database, true);
  std::vector<Run_Record> records;
  ASSERT_TRUE(history.unsent(10, records, error)) << error;
  ASSERT_EQ(1u, records.size());
  EXPECT_EQ("r1", records[0].run_id);
  EXPECT_EQ("DB1", records[0].instance);
  EXPECT_EQ("", records[0].refusal);
  EXPECT_EQ(-1, records[0].former_start);
  std::vector<Job_Store::Told> told;
  ASSERT_TRUE(Job_Store(database).load_told(told, error)) << error;
  ASSERT_EQ(1u, told.size()) << "modules have heard of it";
  EXPECT_EQ("d1", told[0].id);
  EXPECT_EQ("{}", told[0].document);
  EXPECT_FALSE(told[0].enabled);
}

TEST(Job_Database, tells_what_to_do_about_a_file_it_cannot_use)
{
  Temp_Dir dir;
  std::string error;
  Job_Database database;
  dir.write("text.db", std::string(5000, 'x'));
  EXPECT_FALSE(database.open(dir / "text.db", error));
  EXPECT_NE(std::string::npos, error.find("damaged")) << error;
  EXPECT_FALSE(database.open(dir / "missing/agent.db", error));
  EXPECT_NE(std::string::npos, error.find("No such file")) << error;
}
