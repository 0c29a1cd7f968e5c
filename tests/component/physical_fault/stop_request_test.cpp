#include "support/physical_bench.h"

#include "jobs/job_mutex.h"
#include "support/fake_tool.h"

#include <ace/Guard_T.h>
#include <gtest/gtest.h>

#include <functional>
#include <memory>
#include <unistd.h>

// A request to stop, to abort, or to pause and resume, at every stage of a run: each tool and script waits at
// its stage until the request has been made.

using namespace kestrel_test;

namespace
{
const unsigned FAST = 100;

enum class Request { STOP, ABORT, PAUSE_AND_RESUME };

/// Makes the tools of the bench such that the run waits at this stage.
typedef std::function<void(Physical_Bench&, kestrel::Job_Definition_Fields&)> Preparation;

struct Stage {
  const char* name;
  Preparation prepare;
  bool too_late;    ///< the work is done: a request changes nothing any more
  unsigned starts;  ///< of the instance's server, that the run owes
  bool is_streamed; ///< all bytes have moved by then
};

/// The steps that tell of the stage and wait there.
std::string here(const Physical_Bench& bench)
{
  return "write_file " + (bench.dir / "up") + " x\nwait_file " + (bench.dir / "go") + "\n";
}

std::string here_in_shell(const Physical_Bench& bench)
{
  return "echo x >" + (bench.dir / "up") + "; while [ ! -e " + (bench.dir / "go") + " ]; do sleep 0.01; done";
}

void ask_isql(Physical_Bench& bench, const std::string& log_mode_steps, const std::string& shutdown_steps)
{
  make_fake_tool(bench.dir, "home/bin/isql",
                 "if args_contain archivemode\n" + log_mode_steps + "end\nif args_contain shutdown\n" +
                     shutdown_steps + "end\n");
}

std::string log_mode(const std::string& mode)
{
  return "out archivemode\nout -\nout " + mode + "\nout \"(1 row)\"\n";
}

/// A brcmd that waits after so many bytes of its stream.
Preparation backup_waits_after(size_t bytes)
{
  return [bytes](Physical_Bench& bench, kestrel::Job_Definition_Fields&) {
    const std::string stream = bench.make_good_stream(100000);
    bench.dir.write("first", stream.substr(0, bytes));
    bench.dir.write("rest", stream.substr(bytes));
    bench.set_brcmd("begin ${option:-f}\nput_file " + (bench.dir / "first") + "\n" + here(bench) +
                        "put_file " + (bench.dir / "rest") + "\nfinish\ncopy " + (bench.dir / "next_state") +
                        " " + bench.home + "/agent/lastlsn.dat\n",
                    bench.good_restore());
  };
}

void start_waits(Physical_Bench& bench)
{
  bench.dir.write("sys/systemctl",
                  "#!/bin/sh\necho \"$*\" >>" + (bench.dir / "starts") + "\n" + here_in_shell(bench) + "\n",
                  0755);
}

const Stage BACKUP_STAGES[] = {
    {"the pre-action",
     [](Physical_Bench& bench, kestrel::Job_Definition_Fields& fields) {
       fields.pre_action = here_in_shell(bench);
     },
     false, 0, false},
    {"the question for the log mode",
     [](Physical_Bench& bench, kestrel::Job_Definition_Fields&) {
       ask_isql(bench, here(bench) + log_mode("ARCHIVELOG"), "");
     },
     false, 0, false},
    {"the shutdown of the server",
     [](Physical_Bench& bench, kestrel::Job_Definition_Fields&) {
       ask_isql(bench, log_mode("NOARCHIVELOG"), here(bench));
     },
     false, 1, false},
    {"the start of brcmd",
     [](Physical_Bench& bench, kestrel::Job_Definition_Fields&) {
       bench.set_brcmd(here(bench) + bench.good_backup(), bench.good_restore());
     },
     false, 0, false},
    {"the head of the stream", backup_waits_after(100), false, 0, false},
    {"the info block", backup_waits_after(520), false, 0, false},
    {"the image", backup_waits_after(50000), false, 0, false},
    {"the end of brcmd",
     [](Physical_Bench& bench, kestrel::Job_Definition_Fields&) {
       bench.set_brcmd(bench.good_backup() + here(bench), bench.good_restore());
     },
     true, 0, true},
    {"the start of the server",
     [](Physical_Bench& bench, kestrel::Job_Definition_Fields&) {
       ask_isql(bench, log_mode("NOARCHIVELOG"), "");
       start_waits(bench);
     },
     true, 1, true},
    {"the post-action",
     [](Physical_Bench& bench, kestrel::Job_Definition_Fields& fields) {
       fields.post_action = here_in_shell(bench);
     },
     true, 0, true},
};

const Stage RESTORE_STAGES[] = {
    {"the pre-action",
     [](Physical_Bench& bench, kestrel::Job_Definition_Fields& fields) {
       fields.pre_action = here_in_shell(bench);
     },
     false, 0, false},
    {"the start of brcmd",
     [](Physical_Bench& bench, kestrel::Job_Definition_Fields&) {
       bench.set_brcmd(bench.good_backup(), here(bench) + bench.good_restore() + "write_file " +
                                                (bench.dir / "restored") + " x\n");
     },
     false, 1, false},
    {"the stream",
     [](Physical_Bench& bench, kestrel::Job_Definition_Fields&) {
       bench.set_brcmd(bench.good_backup(), "hold ${option:-f}\n" + here(bench) + bench.good_restore() +
                                                "write_file " + (bench.dir / "restored") + " x\n");
     },
     false, 1, false},
    {"the end of brcmd",
     [](Physical_Bench& bench, kestrel::Job_Definition_Fields&) {
       bench.set_brcmd(bench.good_backup(), bench.good_restore() + here(bench) + "write_file " +
                                                (bench.dir / "restored") + " x\n");
     },
     true, 1, false},
    {"the start of the server",
     [](Physical_Bench& bench, kestrel::Job_Definition_Fields&) { start_waits(bench); }, true, 1, false},
    {"the post-action",
     [](Physical_Bench& bench, kestrel::Job_Definition_Fields& fields) {
       fields.post_action = here_in_shell(bench);
     },
     true, 1, false},
};

const struct {
  const char* name;
  Request request;
  Job_State end;
} REQUESTS[] = {{"stop", Request::STOP, JOB_STATE_CANCELED},
                {"abort", Request::ABORT, JOB_STATE_ERROR},
                {"pause and resume", Request::PAUSE_AND_RESUME, JOB_STATE_COMPLETED}};

void make_request(Job& job, Request request)
{
  if (request == Request::STOP) {
    EXPECT_EQ(0, job.stop());
  } else if (request == Request::ABORT) {
    EXPECT_EQ(0, job.abort());
  } else {
    EXPECT_EQ(0, job.pause());
    EXPECT_EQ(JOB_STATE_PAUSING, job.state());
    EXPECT_EQ(0, job.resume());
  }
}

/// The run up to its stage, the request, and the rest of the run. Gives its end.
Job_State request_at(const Stage& stage, Physical_Bench& bench, const Job_Ptr& job, Request request)
{
  EXPECT_EQ(0, job->start());
  EXPECT_TRUE(bench.wait_for(bench.dir / "up"));
  if (stage.is_streamed) {
    EXPECT_TRUE(bench.wait_streamed(job));
  }
  bench.clock.stand_still(); // what waits here is not silent
  make_request(*job, request);
  bench.dir.write("go", "");
  return bench.wait_end(job);
}
} // namespace

TEST(Physical_Backup_Request, ends_the_run_as_it_must_at_every_stage)
{
  for (const Stage& stage : BACKUP_STAGES) {
    for (const auto& each : REQUESTS) {
      SCOPED_TRACE(std::string(each.name) + " at " + stage.name);
      Physical_Bench bench(FAST);
      std::unique_ptr<Fake_Server> server;
      if (std::string(stage.name) == "the shutdown of the server") {
        server.reset(new Fake_Server(bench.dir, "wait_file " + (bench.dir / "go")));
      }
      kestrel::Job_Definition_Fields fields = bench.backup_fields();
      stage.prepare(bench, fields);
      const Job_Ptr job = bench.make_job(fields);
      const Job_State end = stage.too_late ? JOB_STATE_COMPLETED : each.end;
      EXPECT_EQ(end, request_at(stage, bench, job, each.request));
      EXPECT_EQ(stage.starts, bench.starts());
      const size_t sets = end == JOB_STATE_COMPLETED ? 1 : 0;
      EXPECT_EQ(sets, bench.rows().size());
      EXPECT_EQ(sets, bench.whole_files().size());
      EXPECT_TRUE(bench.fifos().empty());
      EXPECT_TRUE(bench.alerts(job).empty());
      EXPECT_EQ(each.request == Request::PAUSE_AND_RESUME || stage.too_late ||
                        std::string(stage.name) == "the pre-action"
                    ? 0u
                    : 1u,
                bench.log.count("has been canceled."));
    }
  }
}

TEST(Physical_Restore_Request, ends_the_run_as_it_must_at_every_stage)
{
  for (const Stage& stage : RESTORE_STAGES) {
    for (const auto& each : REQUESTS) {
      SCOPED_TRACE(std::string(each.name) + " at " + stage.name);
      Physical_Bench bench(FAST);
      bench.set_stream(bench.make_good_stream(1000000)); // more than a pipe holds
      bench.set_brcmd(bench.good_backup(),
                      bench.good_restore() + "write_file " + (bench.dir / "restored") + " x\n");
      bench.back_up();
      const Fake_Server server(bench.dir, "hang");
      kestrel::Job_Definition_Fields fields = bench.restore_fields("full-1");
      stage.prepare(bench, fields);
      const Job_Ptr job = bench.make_job(fields);
      const Job_State end = stage.too_late ? JOB_STATE_COMPLETED : each.end;
      EXPECT_EQ(end, request_at(stage, bench, job, each.request));
      // A run that ends before its work leaves the server alone; every other one stops it and starts it
      // again.
      const bool worked = end == JOB_STATE_COMPLETED || stage.starts > 0;
      EXPECT_EQ(worked ? 1u : 0u, bench.starts());
      EXPECT_EQ(!worked, server.running());
      EXPECT_EQ(end == JOB_STATE_COMPLETED, exists(bench.dir / "restored"))
          << "brcmd took half a stream for a whole";
      EXPECT_TRUE(bench.fifos().empty());
      EXPECT_TRUE(bench.alerts(job).empty());
    }
  }
}

TEST(Physical_Backup_Request, reaches_a_run_that_waits_for_another_job_on_its_source)
{
  for (const auto& each : REQUESTS) {
    SCOPED_TRACE(each.name);
    Physical_Bench bench(FAST);
    const Job_Ptr job = bench.make_job(bench.backup_fields());
    const std::shared_ptr<ACE_Thread_Mutex> source = Job_Mutex::get(bench.source_id);
    {
      ACE_Guard<ACE_Thread_Mutex> other_job(*source);
      ASSERT_EQ(0, job->start());
      EXPECT_TRUE(eventually([&job] { return job->state() == JOB_STATE_RUNNING; }));
      // By now it waits for the mutex, or is just about to: on the way there a request has the same result.
      ::usleep(200 * 1000);
      make_request(*job, each.request);
    }
    EXPECT_EQ(each.end, bench.wait_end(job));
    EXPECT_EQ(each.end == JOB_STATE_COMPLETED ? 1u : 0u, bench.rows().size());
    EXPECT_EQ(bench.rows().size(), bench.whole_files().size());
  }
}
