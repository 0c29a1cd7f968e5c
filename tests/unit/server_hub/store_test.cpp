#include "server/cluster_history.h"
#include "server/host_store.h"
#include "server/job_definitions.h"
#include "server/run_records.h"
#include "server_store.h"
#include "support/clocks.h"
#include "json/json_util.h"

#include <soci/sqlite3/soci-sqlite3.h>

using namespace kestrel;
using namespace kestrel_test;

namespace
{
const char* const JOB = "11111111-2222-4333-8444-555555555555";

json_spirit::Value json(const std::string& text)
{
  json_spirit::Value value;
  std::string error;
  EXPECT_TRUE(read_json(text, value, error)) << error;
  return value;
}

std::string number_of(const json_spirit::Value& entry, const char* key)
{
  return write_json(json_spirit::find_value(entry.get_obj(), key));
}
} // namespace

TEST(Cluster_History_Test, times_of_one_definition_rise_whatever_the_clock_does)
{
  Server_Store store;
  Cluster_History history(store.database());
  int64_t first = 0, second = 0, earlier = 0, other = 0, later = 0;
  const int64_t number = history.open("one", 1700000000, first);
  EXPECT_EQ(first, 1700000000);
  EXPECT_EQ(history.open("one", 1700000000, second), number + 1);
  EXPECT_EQ(second, 1700000001) << "the same second";
  history.open("one", 1600000000, earlier);
  EXPECT_EQ(earlier, 1700000002) << "a clock that was set back";
  history.open("two", 1700000000, other);
  EXPECT_EQ(other, 1700000000) << "of another definition";
  store.open();
  Cluster_History again(store.database());
  again.open("one", 1700000000, later);
  EXPECT_EQ(later, 1700000003) << "also over a restart";
}

TEST(Cluster_History_Test, keeps_the_explanation_and_finds_who_was_chosen_last)
{
  Server_Store store;
  Cluster_History history(store.database());
  int64_t time = 0;
  const int64_t one = history.open("one", 1700000000, time);
  const int64_t two = history.open("two", 1700000001, time);
  const int64_t three = history.open("one", 1700000002, time);
  history.save(one, json(R"({"state":"success","host_uuid":"a","reason":"why"})").get_obj(), json_spirit::Object(), 1700000009);
  history.save(two, json(R"({"state":"success","host_uuid":"a"})").get_obj(), json_spirit::Object(), 1700000010);
  history.save(three, json(R"({"state":"failed","host_uuid":""})").get_obj(), json_spirit::Object(), 1700000011);
  EXPECT_EQ(history.last_chosen(), (std::map<std::string, int64_t>{{"a", two}}));
  const json_spirit::Array of_one = history.list(10, "one");
  ASSERT_EQ(of_one.size(), 2u);
  EXPECT_EQ(number_of(of_one[0], "number"), std::to_string(three));
  EXPECT_EQ(write_json(of_one[1]), "{\"number\":" + std::to_string(one) +
                                       ",\"asked_at\":1700000000,\"decided_at\":1700000009,"
                                       "\"state\":\"success\",\"host_uuid\":\"a\",\"reason\":\"why\"}");
  EXPECT_EQ(history.list(2, "").size(), 2u);
}

TEST(Cluster_History_Test, what_a_killed_server_left_open_is_marked)
{
  Server_Store store;
  int64_t time = 0;
  Cluster_History(store.database()).open("one", 1700000000, time);
  store.open();
  Cluster_History history(store.database());
  const std::vector<Cluster_History::Unfinished> unfinished = history.unfinished();
  ASSERT_EQ(unfinished.size(), 1u);
  EXPECT_EQ(unfinished[0].selection_time, time);
  EXPECT_TRUE(unfinished[0].kept.is_null());
  EXPECT_EQ(history.mark_over({unfinished[0].number}), 1);
  EXPECT_EQ(history.mark_over({unfinished[0].number}), 0);
  EXPECT_TRUE(history.unfinished().empty());
  EXPECT_EQ(number_of(history.list(1, "").at(0), "state"), "\"interrupted\"");
  EXPECT_EQ(number_of(history.list(1, "").at(0), "reason"), "\"the server was stopped before it decided\"");
}

TEST(Cluster_History_Test, keeps_what_a_next_server_must_know_of_decided_ones_too)
{
  Server_Store store;
  int64_t time = 0;
  Cluster_History history(store.database());
  const int64_t number = history.open("one", 1700000000, time);
  history.save(number, json(R"({"selection_time":1700000000,"state":"success","host_uuid":"a"})").get_obj(),
               json(R"({"round":{}})").get_obj(), 1700000009);
  ASSERT_EQ(history.unfinished().size(), 1u);
  EXPECT_EQ(write_json(history.unfinished()[0].kept), R"({"round":{}})");
  EXPECT_EQ(history.mark_over({number}), 0) << "it stays what it was";
  EXPECT_TRUE(history.unfinished().empty());
  EXPECT_EQ(number_of(history.list(1, "").at(0), "state"), "\"success\"");
}

TEST(Cluster_History_Test, keeps_only_the_newest)
{
  Server_Store store;
  Cluster_History history(store.database());
  {
    Server_Database::Lease session = store.database().lease();
    *session << "INSERT INTO selection (number, definition_uuid, state, host_uuid, asked_at, decided_at, record)"
                " VALUES (1, 'old', 'success', 'a', 1, 1, '{}'), (5, 'old', 'success', 'a', 1, 1, '{}'),"
                " (1004, 'old', 'success', 'a', 1, 1, '{}')";
  }
  int64_t time = 0;
  EXPECT_EQ(history.open("one", 1700000000, time), 1005);
  const json_spirit::Array kept = history.list(1000, "");
  ASSERT_EQ(kept.size(), 2u);
  EXPECT_EQ(number_of(kept[1], "number"), "1004");
}

namespace
{
class Job_Definitions_Test : public testing::Test
{
protected:
  Server_Definition definition(const std::string& name = "nightly")
  {
    Server_Definition made;
    made.id = JOB;
    made.hosts = {"a", "b"};
    made.document = {{"id", JOB}, {"name", name}};
    made.changed_by = "eve";
    return made;
  }

  Fake_Clock clock_;
  Server_Store store_;
  Job_Definitions definitions_{store_.database()};
  Server_Definition_Ptr former_, stored_;
};
} // namespace

TEST_F(Job_Definitions_Test, a_definition_is_durable_with_revision_and_author)
{
  EXPECT_EQ(definitions_.add(definition(), stored_), Job_Definitions::Result::done);
  EXPECT_EQ(stored_->revision, 1);
  EXPECT_EQ(definitions_.add(definition(), stored_), Job_Definitions::Result::exists);
  store_.open();
  Job_Definitions again(store_.database());
  again.load();
  const Server_Definition_Ptr found = again.find(JOB);
  ASSERT_TRUE(found);
  EXPECT_EQ(write_json(found->document), std::string(R"({"id":")") + JOB + R"(","name":"nightly"})");
  EXPECT_EQ(found->hosts, (std::vector<std::string>{"a", "b"}));
  EXPECT_EQ(found->changed_at, 1700000000);
  EXPECT_EQ(found->changed_by, "eve");
  EXPECT_TRUE(found->enabled);
  EXPECT_EQ(again.of_host("b").size(), 1u);
  EXPECT_TRUE(again.of_host("c").empty());
}

TEST_F(Job_Definitions_Test, a_change_of_a_former_revision_is_refused)
{
  EXPECT_EQ(definitions_.change(definition(), 0, former_, stored_), Job_Definitions::Result::not_found);
  ASSERT_EQ(definitions_.add(definition(), stored_), Job_Definitions::Result::done);
  EXPECT_EQ(definitions_.change(definition("weekly"), 1, former_, stored_), Job_Definitions::Result::done);
  EXPECT_EQ(stored_->revision, 2);
  EXPECT_EQ(former_->revision, 1);
  EXPECT_EQ(definitions_.change(definition("daily"), 1, former_, stored_), Job_Definitions::Result::conflict);
  EXPECT_EQ(write_json(json_spirit::find_value(definitions_.find(JOB)->document, "name")), "\"weekly\"");
}

TEST_F(Job_Definitions_Test, revisions_go_on_after_a_removal)
{
  ASSERT_EQ(definitions_.add(definition(), stored_), Job_Definitions::Result::done);
  ASSERT_EQ(definitions_.change(definition(), 0, former_, stored_), Job_Definitions::Result::done);
  EXPECT_EQ(definitions_.remove(JOB, "eve", former_), Job_Definitions::Result::done);
  EXPECT_EQ(definitions_.remove(JOB, "eve", former_), Job_Definitions::Result::not_found);
  EXPECT_FALSE(definitions_.find(JOB));
  store_.open();
  Job_Definitions again(store_.database());
  again.load();
  EXPECT_FALSE(again.find(JOB));
  ASSERT_EQ(again.add(definition(), stored_), Job_Definitions::Result::done);
  EXPECT_EQ(stored_->revision, 3);
}

namespace
{
std::string document(const std::string& further)
{
  return std::string(R"({"id":")") + JOB + R"(","uid":"99999999-2222-4333-8444-555555555555","type":"backup",)" +
         R"("target":{"id":"pool"},"source":{"id":"r","entries":["oscar/DB%201"]})" + further + "}";
}

std::string refusal(const std::string& text)
{
  json_spirit::Object members = json(text).get_obj();
  std::string error;
  EXPECT_FALSE(check_definition(JOB, members, error)) << text;
  return error;
}
} // namespace

TEST(Job_Document, whole_documents_are_taken_and_a_missing_id_is_given)
{
  json_spirit::Object members = json(document(R"(,"options":{"any":[{}]},"schedules":[{"type":7}],"x":1)")).get_obj();
  const std::string before = write_json(members);
  std::string error;
  EXPECT_TRUE(check_definition(JOB, members, error)) << error;
  EXPECT_EQ(write_json(members), before);
  members.erase(members.begin());
  EXPECT_TRUE(check_definition(JOB, members, error)) << error;
  EXPECT_EQ(write_json(json_spirit::find_value(members, "id")), std::string("\"") + JOB + "\"");
}

TEST(Job_Document, a_password_is_not_kept)
{
  json_spirit::Object members = json(document(R"(,"backup_protection_password":"secret-word")")).get_obj();
  std::string error;
  EXPECT_TRUE(check_definition(JOB, members, error)) << error;
  EXPECT_EQ(write_json(members).find("secret-word"), std::string::npos);
  EXPECT_NE(write_json(members).find("***"), std::string::npos);
}

TEST(Job_Document, documents_without_form_are_refused_with_the_key)
{
  EXPECT_FALSE(refusal("{}").empty());
  EXPECT_NE(refusal(document(R"(,"schedules":{})")).find("schedules"), std::string::npos);
  EXPECT_NE(refusal(document(R"(,"schedules":[{}])")).find("schedules"), std::string::npos);
  EXPECT_EQ("job definition, \"schedules\", number 2: ",
            refusal(document(R"(,"schedules":[{"type":7},{"type":1,"cron":"0 25 * * *"}])")).substr(0, 39));
  EXPECT_NE(refusal(document(R"(,"schedules":[{"type":1}])")).find("cron"), std::string::npos);
  EXPECT_NE(refusal(document(R"(,"rsrc_form":1)")).find("rsrc_form"), std::string::npos);
  EXPECT_NE(refusal(document(R"(,"options":[])")).find("options"), std::string::npos);
  EXPECT_NE(refusal(R"({"uid":"99999999-2222-4333-8444-555555555555","type":"standby","target":{"id":"p"}})")
                .find("type"),
            std::string::npos);
  EXPECT_NE(refusal(R"({"uid":"99999999-2222-4333-8444-555555555555","type":1,"target":{"id":"p"}})").find("source"),
            std::string::npos);
  const std::string other = "21111111-2222-4333-8444-555555555555";
  json_spirit::Object members = json(document("")).get_obj();
  std::string error;
  EXPECT_FALSE(check_definition(other, members, error));
  EXPECT_NE(error.find(JOB), std::string::npos);
}

TEST(Job_Document, tells_what_the_choice_of_a_node_needs)
{
  Cluster_Job job;
  read_cluster_job(json(document(R"(,"name":"nightly","virtual_address":"10.0.0.9")")).get_obj(), job);
  EXPECT_EQ(job.kind, Cluster_Job::Kind::backup);
  EXPECT_EQ(job.instance, "DB 1");
  EXPECT_EQ(job.name, "nightly");
  EXPECT_EQ(job.virtual_address, "10.0.0.9");

  Cluster_Job restore;
  read_cluster_job(json(R"({"type":2,"source":{"name":"DB1","restore_as":{"database":"DB2"}}})").get_obj(), restore);
  EXPECT_EQ(restore.kind, Cluster_Job::Kind::restore);
  EXPECT_EQ(restore.instance, "DB2");
  EXPECT_EQ(restore.virtual_address, "");

  Cluster_Job odd;
  read_cluster_job(json(R"({"type":[],"source":[],"name":3})").get_obj(), odd);
  EXPECT_EQ(odd.kind, Cluster_Job::Kind::unknown);
  EXPECT_EQ(odd.instance, "");
}

namespace
{
class Run_Records_Test : public testing::Test
{
protected:
  std::string record(const std::string& id, const std::string& further = "", const std::string& state = "completed")
  {
    return R"({"run_id":")" + id + R"(","definition_id":"job","state":")" + state + R"(","queued_at":1700000000)" +
           further + "}";
  }
  void report(const std::string& records, const std::string& host = "a")
  {
    runs_.store(host, json("[" + records + "]").get_array(), stored_, refused_);
  }
  std::string found(const std::string& id)
  {
    json_spirit::Value value;
    return runs_.find(id, value) ? write_json(value) : "";
  }

  Server_Store store_;
  Run_Records runs_{store_.database()};
  std::vector<std::string> stored_;
  std::vector<Run_Records::Refusal> refused_;
};
} // namespace

TEST_F(Run_Records_Test, a_run_that_is_reported_twice_is_stored_once_and_acknowledged_twice)
{
  report(record("r1") + "," + record("r2"));
  EXPECT_EQ(stored_, (std::vector<std::string>{"r1", "r2"}));
  report(record("r1", R"(,"ended_at":1700000009)"));
  EXPECT_EQ(stored_, std::vector<std::string>{"r1"});
  EXPECT_TRUE(refused_.empty());
  EXPECT_EQ(runs_.list(Run_Records::Filter()).size(), 2u);
  EXPECT_EQ(found("r1"), record("r1", R"(,"ended_at":1700000009,"host_uuid":"a")"));
}

TEST_F(Run_Records_Test, an_older_report_does_not_undo_the_end_of_a_run)
{
  report(record("r1", R"(,"ended_at":1700000009)"));
  report(record("r1", R"(,"ended_at":0)", "running"));
  EXPECT_EQ(stored_, std::vector<std::string>{"r1"});
  EXPECT_NE(found("r1").find("completed"), std::string::npos);
}

TEST_F(Run_Records_Test, a_host_cannot_report_for_another)
{
  report(record("r1"));
  report(record("r1"), "b");
  EXPECT_TRUE(stored_.empty());
  ASSERT_EQ(refused_.size(), 1u);
  EXPECT_EQ(refused_[0].run_id, "r1");
  report(record("r2", R"(,"host_uuid":"a")"), "b");
  ASSERT_EQ(refused_.size(), 1u);
  EXPECT_EQ(refused_[0].reason, "it is a run of another host");
}

TEST_F(Run_Records_Test, what_is_no_record_is_refused_and_the_rest_is_stored)
{
  report("1,{}," + record("r1") + R"(,{"run_id":7},)" + record(std::string(65, 'x')) + "," + record(""));
  EXPECT_EQ(stored_, std::vector<std::string>{"r1"});
  EXPECT_EQ(refused_.size(), 5u);
}

TEST_F(Run_Records_Test, runs_are_listed_newest_first_and_by_what_is_asked)
{
  report(record("r1"));
  report(R"({"run_id":"r2","definition_id":"other","state":"error","queued_at":1700000005})", "b");
  Run_Records::Filter filter;
  EXPECT_EQ(number_of(runs_.list(filter).at(0), "run_id"), "\"r2\"");
  filter.definition_id = "job";
  EXPECT_EQ(runs_.list(filter).size(), 1u);
  filter = Run_Records::Filter();
  filter.host_uuid = "b";
  filter.state = "error";
  EXPECT_EQ(runs_.list(filter).size(), 1u);
  filter.state = "completed";
  EXPECT_EQ(runs_.list(filter).size(), 0u);
  filter = Run_Records::Filter();
  filter.limit = 1;
  EXPECT_EQ(runs_.list(filter).size(), 1u);
}

TEST_F(Run_Records_Test, a_list_that_is_too_large_ends_early_and_says_so)
{
  report(record("r1") + "," + record("r2") + "," + record("r3"));
  Run_Records::Filter filter;
  EXPECT_EQ(runs_.page(filter).runs.size(), 3u);
  EXPECT_FALSE(runs_.page(filter).truncated);
  filter.most_bytes = 1;
  const Run_Records::Page page = runs_.page(filter);
  EXPECT_EQ(page.runs.size(), 1u);
  EXPECT_TRUE(page.truncated);
  EXPECT_TRUE(page.more);
  EXPECT_EQ(page.last_run_id, "r1");
}

TEST_F(Run_Records_Test, pages_show_every_run_once_though_runs_are_reported_meanwhile)
{
  const auto at = [&](const std::string& id, int queued_at) {
    std::string text = record(id);
    return text.replace(text.find("1700000000"), 10, std::to_string(queued_at));
  };
  report(at("c", 1700000002) + "," + at("b", 1700000001) + "," + at("a", 1700000001) + "," +
         at("d", 1700000001) + "," + at("e", 1600000000));
  Run_Records::Filter filter;
  filter.limit = 2;
  std::string seen;
  Run_Records::Page page;
  do {
    page = runs_.page(filter);
    for (const json_spirit::Value& run : page.runs)
      seen += number_of(run, "run_id");
    filter.before_queued_at = page.last_queued_at;
    filter.before_run_id = page.last_run_id;
    report(at("new" + std::to_string(seen.size()), 1800000000));
  } while (page.more);
  EXPECT_EQ(seen, R"("c""a""b""d""e")");
  EXPECT_TRUE(runs_.page(filter).runs.empty()) << "nothing follows the last";
}

TEST_F(Run_Records_Test, the_newest_run_is_told_of_each_definition_on_each_host)
{
  const auto run = [](const std::string& id, const std::string& definition, int queued_at, const std::string& reason) {
    return R"({"run_id":")" + id + R"(","definition_id":")" + definition + R"(","state":"skipped","queued_at":)" +
           std::to_string(queued_at) + (reason.empty() ? "" : R"(,"reason":")" + reason + '"') + "}";
  };
  report(run("r1", "one", 1700000001, "early") + "," + run("r2", "one", 1700000009, R"(late \" x)") + "," +
         run("r3", "two", 1700000005, ""));
  report(run("r4", "one", 1700000004, "there"), "b");
  const auto newest = runs_.newest({{"one", "a"}, {"one", "b"}, {"two", "a"}, {"two", "b"}, {"o\"ne", "a"}});
  ASSERT_EQ(newest.size(), 3u);
  EXPECT_EQ(write_json(newest.at({"one", "a"})), R"({"state":"skipped","queued_at":1700000009,"reason":"late \" x"})");
  EXPECT_EQ(write_json(newest.at({"one", "b"})), R"({"state":"skipped","queued_at":1700000004,"reason":"there"})");
  EXPECT_EQ(write_json(newest.at({"two", "a"})), R"({"state":"skipped","queued_at":1700000005,"reason":""})");
  EXPECT_TRUE(runs_.newest({}).empty());
}

TEST_F(Run_Records_Test, what_is_asked_of_one_job_does_not_go_through_the_runs_of_all)
{
  std::string records = record("mine");
  for (int i = 0; i < 999; ++i)
    records += R"(,{"run_id":"r)" + std::to_string(i) + R"(","definition_id":"other","state":"error","queued_at":1800000000})";
  report(records);
  ASSERT_EQ(stored_.size(), 1000u);
  unsigned steps = 0; // in hundreds of operations of the database
  {
    Server_Database::Lease session = store_.database().lease();
    sqlite3_progress_handler(
        static_cast<soci::sqlite3_session_backend*>(session->get_backend())->conn_, 100,
        [](void* counted) { return ++*static_cast<unsigned*>(counted), 0; }, &steps);
  }
  Run_Records::Filter filter;
  EXPECT_EQ(runs_.list(filter).size(), 100u);
  EXPECT_LT(0u, steps) << "the connection is the one that is watched";
  steps = 0;
  EXPECT_EQ(runs_.newest({{"job", "a"}, {"job", "b"}, {"none", "a"}}).size(), 1u);
  filter.definition_id = "job";
  EXPECT_EQ(runs_.list(filter).size(), 1u);
  filter.host_uuid = "a";
  EXPECT_EQ(runs_.list(filter).size(), 1u);
  filter.host_uuid = "b";
  EXPECT_EQ(runs_.list(filter).size(), 0u);
  EXPECT_GT(20u, steps);
}

TEST_F(Run_Records_Test, old_runs_are_removed_and_those_under_way_stay)
{
  report(record("old", R"(,"ended_at":1600000000)") + "," + record("new", R"(,"ended_at":1700000009)") + "," +
         record("open", "", "running"));
  EXPECT_EQ(runs_.prune(1650000000), 1);
  EXPECT_EQ(runs_.list(Run_Records::Filter()).size(), 2u);
}

TEST(Host_Store_Test, what_a_host_told_is_known_while_it_is_away)
{
  Server_Store store;
  store.enroll("u1", "db1");
  store.enroll("u2", "db0");
  Host_Record record;
  record.uuid = "u1";
  record.version = "1.0";
  record.address = "10.0.0.1:99";
  record.last_seen = 1700000000;
  record.instances = json(R"([{"name":"DB1"}])").get_array();
  Host_Store(store.database()).save(record);
  Host_Store(store.database()).save(record);
  store.open();
  const std::vector<Host_Record> hosts = Host_Store(store.database()).load();
  ASSERT_EQ(hosts.size(), 2u);
  EXPECT_EQ(hosts[0].name, "db0");
  EXPECT_EQ(hosts[0].last_seen, 0);
  EXPECT_EQ(hosts[1].last_seen, 1700000000);
  EXPECT_EQ(write_json(hosts[1].instances), R"([{"name":"DB1"}])");
  EXPECT_FALSE(hosts[1].revoked);
}
