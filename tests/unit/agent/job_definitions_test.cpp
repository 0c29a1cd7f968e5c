#include "agent/interrupted_run.h"
#include "agent/job_definitions.h"
#include "agent/job_log_reader.h"
#include "agent/job_notices.h"
#include "base/path_conf.h"
#include "jobs/job_activity.h"
#include "support/scoped_env.h"
#include "support/temp_dir.h"
#include "support/waiting.h"
#include "json/json_util.h"

#include <gtest/gtest.h>

#include <atomic>
#include <condition_variable>
#include <cstring>

using namespace kestrel;
using namespace kestrel_test;

namespace
{
const std::string id = "7d3a1c52-0000-4000-8000-0000000000d7";

json_spirit::Value json(const std::string& text)
{
  json_spirit::Value value;
  std::string error;
  EXPECT_TRUE(read_json(text, value, error)) << error;
  return value;
}

std::string offer_refusal(const std::string& text)
{
  Definition_Offer offer;
  std::string reason;
  EXPECT_FALSE(read_offer(json(text), offer, reason)) << text;
  return reason;
}
} // namespace

TEST(Definition_Offers, are_kept_without_their_password)
{
  Definition_Offer offer;
  std::string reason;
  ASSERT_TRUE(read_offer(json("{\"id\":\"" + id +
                              "\",\"revision\":3,\"enabled\":false,\"document\":"
                              "{\"name\":\"a\",\"backup_protection_password\":\"s3cr3t\"}}"),
                         offer, reason))
      << reason;
  EXPECT_EQ(id, offer.id);
  EXPECT_EQ(3u, offer.revision);
  EXPECT_FALSE(offer.enabled);
  EXPECT_EQ("{\"name\":\"a\",\"backup_protection_password\":\"***\",\"id\":\"" + id + "\"}", offer.document);
}

TEST(Definition_Offers, are_refused_with_a_reason)
{
  EXPECT_NE(std::string::npos, offer_refusal("7").find(""));
  EXPECT_NE(std::string::npos, offer_refusal("{}").find("id"));
  EXPECT_NE(std::string::npos, offer_refusal(R"({"id":"../x","revision":1,"document":{}})").find("no uuid"));
  EXPECT_NE(std::string::npos, offer_refusal("{\"id\":\"" + id + "\",\"document\":{}}").find("revision"));
  EXPECT_NE(std::string::npos,
            offer_refusal("{\"id\":\"" + id + "\",\"revision\":-1,\"document\":{}}").find("revision"));
  EXPECT_NE(std::string::npos,
            offer_refusal("{\"id\":\"" + id + "\",\"revision\":1,\"document\":[]}").find("document"));
  EXPECT_NE(
      std::string::npos,
      offer_refusal("{\"id\":\"" + id + "\",\"revision\":1,\"document\":{\"id\":\"x\"}}").find("another id"));
}

TEST(Definition_Offers, come_from_the_files_of_a_directory)
{
  Temp_Dir dir;
  std::vector<Definition_Offer> offers;
  std::vector<std::pair<std::string, std::string>> problems;
  EXPECT_TRUE(read_offers(dir / "missing", offers, problems));
  dir.write("jobs/good.json", "{\"id\":\"" + id + "\"}");
  dir.write("jobs/broken.json", "{");
  dir.write("jobs/notes.txt", "{");
  ASSERT_TRUE(read_offers(dir / "jobs", offers, problems));
  ASSERT_EQ(1u, offers.size());
  EXPECT_EQ(id, offers[0].id);
  ASSERT_EQ(1u, problems.size());
  EXPECT_EQ(dir / "jobs/broken.json", problems[0].first);
  dir.write("file", "");
  EXPECT_FALSE(read_offers(dir / "file", offers, problems));
}

TEST(Job_Log_Reader, gives_pieces_that_cut_no_character)
{
  Temp_Dir dir;
  const std::string path = dir.write("a.log", "ab\xc3\xa4\xe2\x82\xac\xf0\x9f\x90\xa6z");
  std::string all, error;
  uint64_t offset = 0;
  Job_Log_Part part;
  for (int round = 0; round < 20; ++round) {
    ASSERT_TRUE(read_job_log(path, offset, 4, part, error)) << error;
    EXPECT_NE(part.text, "");
    EXPECT_EQ(offset + part.text.size(), part.next_offset);
    EXPECT_EQ(part.text, utf8_without_invalid(part.text)) << "at " << offset;
    offset = part.next_offset;
    all += part.text;
    if (part.at_end)
      break;
  }
  EXPECT_EQ(read_file(path), all);
  ASSERT_TRUE(read_job_log(path, 2, 1, part, error)) << error;
  EXPECT_EQ(1u, part.text.size()) << "it must get on whatever the limit is";
}

TEST(Job_Log_Reader, follows_a_log_that_grows)
{
  Temp_Dir dir;
  const std::string path = dir.write("a.log", "one\n");
  std::string error;
  Job_Log_Part part;
  ASSERT_TRUE(read_job_log(path, 0, 0, part, error)) << error;
  EXPECT_EQ("one\n", part.text);
  EXPECT_TRUE(part.at_end);
  ASSERT_TRUE(read_job_log(path, 4, 0, part, error)) << error;
  EXPECT_EQ("", part.text);
  EXPECT_EQ(4u, part.next_offset);
  dir.write("a.log", "one\ntwo\n");
  ASSERT_TRUE(read_job_log(path, 4, 100, part, error)) << error;
  EXPECT_EQ("two\n", part.text);
  ASSERT_TRUE(read_job_log(path, 1000, 100, part, error)) << error;
  EXPECT_EQ("", part.text);
  ASSERT_TRUE(read_job_log(path, UINT64_MAX, 100, part, error)) << error;
  ASSERT_TRUE(read_job_log("", 0, 0, part, error)) << "a run without a log";
  EXPECT_TRUE(part.at_end);
  EXPECT_FALSE(read_job_log(dir / "gone.log", 0, 0, part, error));
  EXPECT_NE(std::string::npos, error.find("no longer there"));
}

TEST(Job_Log_Reader, gives_a_bounded_piece)
{
  Temp_Dir dir;
  const std::string path = dir.write("a.log", std::string(3 << 20, 'x'));
  std::string error;
  Job_Log_Part part;
  ASSERT_TRUE(read_job_log(path, 0, UINT64_MAX, part, error)) << error;
  EXPECT_EQ(max_log_part_bytes, part.text.size());
  EXPECT_FALSE(part.at_end);
}

TEST(Job_Log_Reader, removes_only_logs_of_jobs)
{
  Temp_Dir dir;
  const Scoped_Env root("KESTREL_ROOT", dir.path());
  const std::string log = dir.write("var/log/kestrel3/jobs/a.log", "");
  const std::string other = dir.write("var/log/kestrel3/kestrel.log", "");
  remove_job_logs(
      {log, other, dir / "var/log/kestrel3/jobs/../kestrel.log", dir / "var/log/kestrel3/jobs/gone.log"});
  EXPECT_FALSE(exists(log));
  EXPECT_TRUE(exists(other));
}

TEST(Interrupted_Run, says_how_far_it_was_and_what_it_left)
{
  Temp_Dir dir;
  const Scoped_Env root("KESTREL_ROOT", dir.path());
  Run_Record record;
  record.definition_id = id;
  record.started_at = 100;
  end_interrupted_run(record, "", {"/x/1_fifo"});
  EXPECT_EQ(JOB_STATE_ERROR, record.state);
  EXPECT_NE(0, record.ended_at);
  EXPECT_EQ("the agent ended while the job was running; cleared away: /x/1_fifo", record.reason);

  dir.write("var/opt/tarnvik/kestrel3/agent/activity/" + id + ".activity", std::string(4096, '\0'));
  end_interrupted_run(record, "no json", {});
  EXPECT_EQ("the agent ended while the job was running", record.reason) << "a record that was never written";

  Run_Record waiting;
  waiting.definition_id = id;
  end_interrupted_run(waiting, "", {});
  EXPECT_EQ(JOB_STATE_CANCELED, waiting.state);
  EXPECT_EQ("the agent ended before the run began", waiting.reason);
}

TEST(Interrupted_Run, knows_from_the_jobs_own_record_that_it_had_begun_and_what_a_restore_leaves)
{
  Temp_Dir dir;
  const Scoped_Env root("KESTREL_ROOT", dir.path());
  Job_Activity activity;
  std::memset(static_cast<void*>(&activity), 0, sizeof activity);
  activity.magic = Job_Activity::MAGIC;
  activity.start_time = 200;
  activity.state = JOB_STATE_RUNNING;
  activity.progress = 40;
  dir.write("var/opt/tarnvik/kestrel3/agent/activity/" + id + ".activity",
            std::string(reinterpret_cast<const char*>(&activity), sizeof activity));
  const auto reason_of = [](time_t queued_at, const std::string& document, time_t started_at = 0) {
    Run_Record record;
    record.definition_id = id;
    record.queued_at = queued_at;
    record.started_at = started_at;
    end_interrupted_run(record, document, {});
    EXPECT_EQ(record.started_at == 0 ? JOB_STATE_CANCELED : JOB_STATE_ERROR, record.state);
    return record.reason;
  };
  const std::string running = "the agent ended while the job was running (its record says running, 40%)";
  const std::string physical = R"({"type":"restore","subtype":"point_in_time"})";
  const std::string remark =
      "; the instance may not be usable until it is restored again: the job's log names the "
      "sets that were applied";
  EXPECT_EQ(running, reason_of(200, R"({"type":"backup"})"));
  EXPECT_EQ(running + remark, reason_of(150, physical));
  EXPECT_EQ(running + remark, reason_of(150, R"({"type":2})", 160));
  EXPECT_EQ(running + "; what was imported until then stays in the database",
            reason_of(150, R"({"type":"restore","subtype":"import"})"));
  // The record of the run before, which may have begun and ended in the second of this request.
  const auto state_of = [](time_t queued_at, time_t former_start) {
    Run_Record record;
    record.definition_id = id;
    record.queued_at = queued_at;
    record.former_start = former_start;
    end_interrupted_run(record, "", {});
    return record.state;
  };
  EXPECT_EQ(200, last_start_of(id));
  EXPECT_EQ(0, last_start_of("11111111-2222-4333-8444-555555555555"));
  EXPECT_EQ(JOB_STATE_CANCELED, state_of(200, 200));
  EXPECT_EQ(JOB_STATE_CANCELED, state_of(150, 200)) << "it was canceled as it waited for its second";
  EXPECT_EQ(JOB_STATE_ERROR, state_of(200, 199));
  EXPECT_EQ(JOB_STATE_ERROR, state_of(200, 0));
  EXPECT_EQ(JOB_STATE_ERROR, state_of(201, 199)) << "the clock was set back";
  EXPECT_EQ(JOB_STATE_ERROR, state_of(200, -1)) << "of a release that did not note it";
  EXPECT_EQ("the agent ended before the run began", reason_of(201, physical));
  EXPECT_EQ("the agent ended while the job was starting", reason_of(201, physical, 202));
}

namespace
{
Job_Notice notice(const std::string& run, int progress, Job_State state = JOB_STATE_RUNNING)
{
  Job_Notice made;
  made.run_id = run;
  made.progress = progress;
  made.state = state;
  return made;
}
} // namespace

TEST(Job_Notices, keep_the_order_of_states_and_the_latest_progress)
{
  std::mutex mutex;
  std::vector<std::string> heard;
  std::atomic<unsigned> histories(0);
  Job_Notices notices;
  notices.set_listener([&](const Job_Notice& each) {
    const std::lock_guard<std::mutex> guard(mutex);
    heard.push_back(each.run_id + " " + job_state_text(each.state) + " " + std::to_string(each.progress));
  });
  notices.set_history_listener([&] { ++histories; });
  notices.put_state(notice("r", 0, JOB_STATE_STARTING));
  for (int percent = 1; percent <= 50; ++percent)
    notices.put_progress(notice("r", percent));
  notices.put_state(notice("r", 50, JOB_STATE_COMPLETED));
  notices.put_history();
  notices.put_history();
  notices.start();
  notices.stop();
  EXPECT_EQ((std::vector<std::string>{"r starting 0", "r running 50", "r completed 50"}), heard);
  EXPECT_EQ(1u, histories);
}

TEST(Job_Notices, are_bounded_while_a_listener_is_slow_and_hold_up_nobody)
{
  std::atomic<bool> go_on(false);
  std::atomic<unsigned> heard(0);
  Job_Notices notices;
  notices.set_listener([&](const Job_Notice&) {
    EXPECT_TRUE(eventually([&] { return go_on.load(); }));
    ++heard;
  });
  notices.start();
  for (int number = 0; number < 30000; ++number)
    notices.put_state(notice("r", number));
  go_on = true;
  notices.stop();
  EXPECT_GE(heard, Job_Notices::max_waiting);
  EXPECT_LT(heard, 30000u);
}

TEST(Job_Notices, a_listener_may_fail_and_may_replace_itself)
{
  std::atomic<unsigned> heard(0);
  Job_Notices notices;
  notices.set_listener([&](const Job_Notice&) {
    ++heard;
    notices.set_listener(nullptr);
  });
  notices.put_state(notice("r", 0));
  notices.put_state(notice("r", 1));
  notices.start();
  notices.stop();
  EXPECT_EQ(1u, heard);
}
