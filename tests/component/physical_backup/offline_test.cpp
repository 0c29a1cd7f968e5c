#include "support/physical_bench.h"

#include "base/scope_guard.h"
#include "storage/directory_back_end.h"
#include "support/fake_tool.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <functional>

using namespace kestrel_test;

namespace
{
typedef std::vector<int> Codes;

const unsigned FAST = 100;

class Refusing_Back_End : public kestrel::Directory_Back_End
{
public:
  bool connect(const std::string&, const Client_IO_Base::Options&, std::string& error) override
  {
    error = "it refuses";
    return false;
  }
};

/// An instance without archive logging, whose server ends when it is asked to and whose start command looks
/// around: the FIFO must still be there, and brcmd must be gone.
class Offline_Bench : public Physical_Bench
{
public:
  explicit Offline_Bench(unsigned time_factor = FAST) : Physical_Bench(time_factor)
  {
    set_isql("NOARCHIVELOG");
    set_start_status(0);
  }

  void set_start_status(int status)
  {
    dir.write("sys/systemctl",
              "#!/bin/sh\necho \"$*\" >>" + (dir / "starts") + "\nls " +
                  (dir / "root/var/opt/tarnvik/kestrel3/agent/oscar") + " >>" + (dir / "seen") +
                  "\nif [ -e " + (dir / "tool") + " ] && kill -0 `cat " + (dir / "tool") +
                  "` 2>/dev/null; then echo brcmd >>" + (dir / "seen") + "; fi\nexit " +
                  std::to_string(status) + "\n",
              0755);
  }

  void set_backup(const std::string& steps)
  {
    set_brcmd("write_file " + (dir / "tool") + " ${pid}\n" + steps);
  }

  std::string obedient_server() const { return "wait_file " + (dir / "shutdown"); }

  /// The server was stopped and started again, once.
  void expect_restarted(const Fake_Server& server) const
  {
    EXPECT_FALSE(server.running());
    EXPECT_TRUE(exists(dir / "shutdown"));
    EXPECT_EQ("start oscard@PHYS7\n", exists(dir / "starts") ? read_file(dir / "starts") : "");
    const std::string seen = exists(dir / "seen") ? read_file(dir / "seen") : "";
    EXPECT_NE(std::string::npos, seen.find("_fifo\n")) << seen;
    EXPECT_EQ(std::string::npos, seen.find("brcmd")) << "brcmd was still there when the server was started";
  }
};
} // namespace

TEST(Physical_Offline, the_server_is_started_again_after_every_end_of_brcmd)
{
  struct Case {
    const char* name;
    const char* steps; // with the stream's path in the place of STREAM
    Job_State state;
    const char* message;
  };
  const Case cases[] = {
      {"exits at once", "exit 3", JOB_STATE_ERROR, ""},
      {"exits at once with success", "exit 0", JOB_STATE_ERROR, ""},
      {"dies at once", "die SEGV", JOB_STATE_ERROR, ""},
      {"gives nothing", "begin ${option:-f}\nfinish\nexit 1", JOB_STATE_ERROR,
       "Failed to get backup info head"},
      {"gives half a head", "begin ${option:-f}\nput_zeros 100\nfinish\nexit 1", JOB_STATE_ERROR,
       "Failed to get backup info head"},
      {"dies within the stream", "begin ${option:-f}\nput_file STREAM\ndie KILL", JOB_STATE_ERROR,
       "brcmd reported a failure after "},
      {"fails after the stream", "begin ${option:-f}\nput_file STREAM\nfinish\nexit 7", JOB_STATE_ERROR,
       "brcmd reported a failure after "},
      {"writes no state", "begin ${option:-f}\nput_file STREAM\nfinish", JOB_STATE_ERROR,
       "Failed to get backup info.\n"},
  };
  for (const Case& one : cases) {
    SCOPED_TRACE(one.name);
    Offline_Bench bench;
    std::string steps = one.steps;
    const size_t at = steps.find("STREAM");
    if (at != std::string::npos)
      steps.replace(at, 6, bench.dir / "stream");
    bench.set_backup(steps);
    const Fake_Server server(bench.dir, bench.obedient_server());
    EXPECT_EQ(one.state, bench.run(bench.backup_fields()));
    bench.log.allow(LM_ERROR, "");
    EXPECT_LT(0u, bench.log.count(LM_ERROR, one.message));
    bench.expect_restarted(server);
    EXPECT_TRUE(bench.rows().empty());
  }
}

TEST(Physical_Offline, the_server_is_started_again_when_brcmd_is_missing)
{
  Offline_Bench bench;
  ASSERT_EQ(0, ::remove((bench.home + "/bin/brcmd").c_str()));
  const Fake_Server server(bench.dir, bench.obedient_server());
  EXPECT_EQ(JOB_STATE_ERROR, bench.run(bench.backup_fields()));
  bench.log.allow(LM_ERROR, "");
  bench.expect_restarted(server);
}

TEST(Physical_Offline, the_server_is_started_again_when_the_storage_refuses)
{
  Offline_Bench bench;
  bench.set_backup(bench.good_backup());
  // A pool that is not there is noticed before the server is stopped; this one is, and takes nothing.
  kestrel::register_storage_back_end("", [] { return std::make_unique<Refusing_Back_End>(); });
  const kestrel::Scope_Guard forget([] { kestrel::register_storage_back_end("", nullptr); });
  const Fake_Server server(bench.dir, bench.obedient_server());
  Codes alerts;
  EXPECT_EQ(JOB_STATE_ERROR, bench.run(bench.backup_fields(), &alerts));
  EXPECT_EQ(Codes{13}, alerts);
  bench.log.expect(LM_ERROR, "Failed to connect to storage: ");
  bench.expect_restarted(server);
}

TEST(Physical_Offline, the_server_is_started_again_when_the_catalog_refuses)
{
  Offline_Bench bench;
  bench.set_isql("ARCHIVELOG");
  bench.back_up();
  EXPECT_EQ(0u, bench.starts());
  bench.set_isql("NOARCHIVELOG");
  bench.set_backup(bench.good_backup());
  const Fake_Server server(bench.dir, bench.obedient_server());
  EXPECT_EQ(JOB_STATE_ERROR, bench.run(bench.backup_fields())); // the same id again
  bench.log.expect(LM_ERROR, "already has a backup set 'full-1'");
  bench.expect_restarted(server);
}

TEST(Physical_Offline, a_failure_before_the_shutdown_leaves_the_server_alone)
{
  Offline_Bench bench;
  const Fake_Server server(bench.dir, bench.obedient_server());
  kestrel::Job_Definition_Fields fields = bench.backup_fields();
  fields.target = Job_Target("7d3a1c52-0000-4000-8000-00000000ffff");
  EXPECT_EQ(JOB_STATE_ERROR, bench.run(fields));
  bench.log.allow(LM_ERROR, "pool");
  EXPECT_TRUE(server.running());
  EXPECT_FALSE(exists(bench.dir / "shutdown"));
  EXPECT_EQ(0u, bench.starts());
}

TEST(Physical_Offline, a_server_with_archive_logging_is_left_alone)
{
  Offline_Bench bench;
  bench.set_isql("ARCHIVELOG");
  const Fake_Server server(bench.dir, bench.obedient_server());
  bench.back_up();
  EXPECT_TRUE(server.running());
  EXPECT_FALSE(exists(bench.dir / "shutdown"));
  EXPECT_EQ(0u, bench.starts());
}

TEST(Physical_Offline, brcmd_is_started_only_when_the_server_is_gone)
{
  Offline_Bench bench(20);
  bench.set_backup("if not exists " + (bench.dir / "down") + "\nwrite_file " + (bench.dir / "too_early") +
                   " x\nend\n" + bench.good_backup());
  const Fake_Server server(bench.dir, bench.obedient_server() + "\nsleep 400\nwrite_file " +
                                          (bench.dir / "down") + " x");
  bench.back_up();
  EXPECT_FALSE(exists(bench.dir / "too_early"));
  bench.expect_restarted(server);
}

TEST(Physical_Offline, chains_go_on_and_every_backup_restarts_the_server)
{
  Offline_Bench bench;
  const auto back_up = [&](Job_Definition_Subtype level, const std::string& id, unsigned number) {
    for (const char* const trace : {"shutdown", "starts", "seen"})
      ::remove((bench.dir / trace).c_str());
    const Fake_Server server(bench.dir, bench.obedient_server());
    bench.set_next_state("full-1", id, number);
    bench.set_backup(bench.good_backup());
    bench.back_up(level);
    bench.expect_restarted(server);
  };
  back_up(JOB_DEFINITION_SUBTYPE_FULL, "full-1", 10);
  back_up(JOB_DEFINITION_SUBTYPE_INCREMENTAL, "incr-1", 20);
  back_up(JOB_DEFINITION_SUBTYPE_CUMULATIVE, "diff-1", 30);
  ASSERT_EQ(3u, bench.rows().size());
  EXPECT_EQ("diff", json_spirit::find_value(bench.rows().back().get_obj(), "type").get_str());
  EXPECT_EQ(0u, bench.log.count("Lack of backup info"));
}

TEST(Physical_Offline_Stop, a_status_of_isql_is_no_failure_when_the_server_ends)
{
  Offline_Bench bench;
  make_fake_tool(
      bench.dir, "home/bin/isql",
      "if args_contain archivemode\nout a\nout -\nout NOARCHIVELOG\nout \"(1 row)\"\nelse\nwrite_file " +
          (bench.dir / "shutdown") + " x\nexit 2\nend\n");
  bench.set_backup(bench.good_backup());
  const Fake_Server server(bench.dir, bench.obedient_server());
  Codes alerts;
  EXPECT_EQ(JOB_STATE_COMPLETED, bench.run(bench.backup_fields(), &alerts));
  EXPECT_TRUE(alerts.empty());
  bench.expect_restarted(server);
}

TEST(Physical_Offline_Stop, a_server_that_stays_up_is_waited_for_a_minute_and_then_left)
{
  Offline_Bench bench(400);
  bench.set_backup(bench.good_backup());
  const Fake_Server server(bench.dir, "hang");
  const int64_t begin = bench.clock.monotonic_msec();
  Codes alerts;
  EXPECT_EQ(JOB_STATE_COMPLETED, bench.run(bench.backup_fields(), &alerts));
  EXPECT_GE(bench.clock.monotonic_msec() - begin, 60000);
  EXPECT_TRUE(alerts.empty());
  EXPECT_TRUE(server.running()) << "only the server's own shutdown command may end it";
  EXPECT_EQ(0u, bench.starts());
  bench.log.expect_exactly(LM_INFO, "Instance PHYS7 is already running.\n");
}

TEST(Physical_Offline_Stop, a_stranger_in_the_pid_file_is_never_signalled)
{
  Offline_Bench bench(400);
  const Fake_Server stranger(bench.dir, "hang");
  bench.dir.write("home/admin/PHYS7.db", std::to_string(stranger.pid()) + " left by a crash\n");
  bench.set_backup("exit 1");
  EXPECT_EQ(JOB_STATE_ERROR, bench.run(bench.backup_fields()));
  bench.log.allow(LM_ERROR, "");
  EXPECT_TRUE(stranger.running());
}

TEST(Physical_Offline_Start, a_failing_start_does_not_change_the_result_but_is_told)
{
  for (const bool good : {false, true}) {
    Offline_Bench bench;
    bench.set_start_status(1);
    bench.set_backup(good ? bench.good_backup() : "begin ${option:-f}\nfinish\nexit 1");
    const Fake_Server server(bench.dir, bench.obedient_server());
    EXPECT_EQ(good ? JOB_STATE_COMPLETED : JOB_STATE_ERROR, bench.run(bench.backup_fields()));
    bench.expect_restarted(server);
    EXPECT_EQ(good ? 1u : 0u, bench.rows().size());
    bench.log.expect(LM_ERROR, "instance PHYS7 was stopped for this job and its start command failed");
    bench.log.allow(LM_ERROR, "Failed to get backup info head");
  }
}

TEST(Physical_Offline_Start, a_failing_start_after_a_restore_is_told_too)
{
  Offline_Bench bench;
  bench.set_isql("ARCHIVELOG");
  bench.back_up();
  bench.set_start_status(3);
  const Fake_Server server(bench.dir, "hang");
  EXPECT_EQ(JOB_STATE_COMPLETED, bench.run(bench.restore_fields("full-1")));
  EXPECT_EQ(1u, bench.starts());
  bench.log.expect(LM_ERROR, "instance PHYS7 was stopped for this job and its start command failed");
}
