#include "support/physical_bench.h"
#include "served_place.h"

#include "support/waiting.h"

#include <gtest/gtest.h>

#include <future>

using namespace kestrel_test;
using kestrel::register_upstream;
using kestrel::unregister_upstream;

namespace
{
/// What brcmd reads for a stored stream: the info block, and the whole stream again.
std::string fed_stream(const std::string& stream)
{
  uint32_t length = 0;
  for (size_t i = 0; i < 4; ++i)
    length = (length << 8) | static_cast<unsigned char>(stream[i]);
  return stream.substr(0, length) + stream;
}

/// The whole installation of the physical jobs' tests, whose catalog and pool are a server's.
class Served_Backup : public testing::Test
{
protected:
  Served_Backup()
  {
    place_.listen();
    pool_ = place_.add_pool("served");
    std::string error;
    EXPECT_TRUE(register_upstream(place_.upstream_options(), error)) << error;
    bench_.set_stream(stream_);
  }

  ~Served_Backup() override { unregister_upstream(); }

  kestrel::Job_Definition_Fields backup_fields()
  {
    kestrel::Job_Definition_Fields fields = bench_.backup_fields();
    fields.target = Job_Target(pool_.pool_id);
    fields.max_seconds_retry = 3000;
    fields.resumption_buffer_size = 64 * 1024;
    return fields;
  }

  /// Holds the request of this number and beginning until the server is told to stop.
  void restart_at(const std::string& method, const std::string& path, unsigned number)
  {
    auto seen = std::make_shared<std::atomic<unsigned>>(0);
    place_.before([=](const kestrel::REST_Request& request, kestrel::REST_Reply&) {
      if (request.method != method || request.path.find(path) == std::string::npos || ++*seen != number)
        return false;
      reached_.set_value();
      stopping_.get_future().wait();
      return false;
    });
  }

  void restart_when_reached()
  {
    ASSERT_EQ(std::future_status::ready, reached_.get_future().wait_for(std::chrono::minutes(1)));
    stopping_.set_value();
    place_.restart();
  }

  std::string stored() const
  {
    for (const std::string& name : Physical_Bench::list(pool_.storage_path + "/" + bench_.source_id))
      if (name.find(".meta") == std::string::npos)
        return name.find(".partial") == std::string::npos
                   ? read_file(pool_.storage_path + "/" + bench_.source_id + "/" + name)
                   : "partial";
    return "none";
  }

  Physical_Bench bench_;
  Served_Place place_;
  Pool_Info pool_;
  std::promise<void> reached_;
  std::promise<void> stopping_;
  const std::string stream_ = bench_.make_good_stream(3000000);
};

TEST_F(Served_Backup, is_stored_recorded_and_restored)
{
  ASSERT_EQ(JOB_STATE_COMPLETED, bench_.run(backup_fields()));
  EXPECT_TRUE(stream_ == stored());
  EXPECT_EQ(1u, bench_.rows().size());
  EXPECT_TRUE(bench_.stored_files().empty()) << "the host's own pool was used";
  ASSERT_EQ(JOB_STATE_COMPLETED, bench_.run(bench_.restore_fields("full-1")));
  EXPECT_TRUE(fed_stream(stream_) == read_file(bench_.dir / "fed"));
}

TEST_F(Served_Backup, ends_well_when_the_server_restarts_while_it_is_stored)
{
  restart_at("PUT", "/bytes", 10);
  const Job_Ptr job = bench_.make_job(backup_fields());
  ASSERT_EQ(0, job->start());
  restart_when_reached();
  EXPECT_EQ(JOB_STATE_COMPLETED, bench_.wait_end(job));
  EXPECT_TRUE(stream_ == stored());
  EXPECT_EQ(1u, bench_.rows().size());
}

TEST_F(Served_Backup, ends_well_when_the_server_restarts_while_the_file_is_finished)
{
  restart_at("POST", "/commit", 1);
  const Job_Ptr job = bench_.make_job(backup_fields());
  ASSERT_EQ(0, job->start());
  restart_when_reached();
  EXPECT_EQ(JOB_STATE_COMPLETED, bench_.wait_end(job));
  EXPECT_TRUE(stream_ == stored());
  EXPECT_EQ(1u, bench_.rows().size());
}

TEST_F(Served_Backup, ends_well_when_the_server_restarts_while_it_is_recorded)
{
  place_.before([this, seen = std::make_shared<std::atomic<unsigned>>(0)](const kestrel::REST_Request& request,
                                                                          kestrel::REST_Reply&) {
    if (request.path == "/k2/r/catalogs" && ++*seen == 1) {
      reached_.set_value();
      stopping_.get_future().wait();
    }
    return false;
  });
  const Job_Ptr job = bench_.make_job(backup_fields());
  ASSERT_EQ(0, job->start());
  restart_when_reached();
  EXPECT_EQ(JOB_STATE_COMPLETED, bench_.wait_end(job));
  EXPECT_EQ(1u, bench_.rows().size());
}

TEST_F(Served_Backup, is_restored_although_the_server_restarts)
{
  ASSERT_EQ(JOB_STATE_COMPLETED, bench_.run(backup_fields()));
  restart_at("GET", "/bytes", 2);
  const Job_Ptr job = bench_.make_job(bench_.restore_fields("full-1"));
  ASSERT_EQ(0, job->start());
  restart_when_reached();
  EXPECT_EQ(JOB_STATE_COMPLETED, bench_.wait_end(job));
  EXPECT_TRUE(fed_stream(stream_) == read_file(bench_.dir / "fed"));
}

TEST_F(Served_Backup, fails_with_the_reason_when_the_pool_is_full)
{
  place_.before([](const kestrel::REST_Request& request, kestrel::REST_Reply& reply) {
    if (request.method != "PUT")
      return false;
    reply = kestrel::rest_error(507, "storage", "cannot write x: No space left on device; free space in the pool");
    return true;
  });
  bench_.log.allow(LM_ERROR, "");
  EXPECT_EQ(JOB_STATE_ERROR, bench_.run(backup_fields()));
  EXPECT_TRUE(bench_.log.contains("No space left on device; free space in the pool"));
  EXPECT_TRUE(bench_.rows().empty());
}

TEST_F(Served_Backup, leaves_nothing_when_it_is_canceled)
{
  bench_.dir.write("first", stream_.substr(0, 2000000));
  bench_.dir.write("rest", stream_.substr(2000000));
  bench_.set_brcmd("begin ${option:-f}\nput_file " + (bench_.dir / "first") + "\nwrite_file " + (bench_.dir / "up") +
                   " x\nwait_file " + (bench_.dir / "go") + "\nput_file " + (bench_.dir / "rest") + "\nfinish\n");
  const Job_Ptr job = bench_.make_job(backup_fields());
  ASSERT_EQ(0, job->start());
  ASSERT_TRUE(bench_.wait_for(bench_.dir / "up"));
  bench_.clock.stand_still(); // what waits here is not silent
  EXPECT_EQ(0, job->stop());
  bench_.dir.write("go", "");
  EXPECT_EQ(JOB_STATE_CANCELED, bench_.wait_end(job));
  EXPECT_EQ("none", stored());
  EXPECT_TRUE(bench_.rows().empty());
}

TEST_F(Served_Backup, that_is_canceled_does_not_wait_ten_minutes_for_a_brcmd_that_will_not_end)
{
  bench_.set_brcmd("ignore TERM\nignore PIPE\nbegin ${option:-f}\nput_file " + (bench_.dir / "stream") +
                   "\nwrite_file " + (bench_.dir / "up") + " x\nwait_file " + (bench_.dir / "go") +
                   "\nput_zeros 600\nout_lines 100000000 row");
  const Job_Ptr job = bench_.make_job(backup_fields());
  ASSERT_EQ(0, job->start());
  ASSERT_TRUE(bench_.wait_for(bench_.dir / "up"));
  // So that the pump waits for more, and sees the end that is wanted only with what comes then.
  ASSERT_TRUE(bench_.wait_streamed(job));
  EXPECT_EQ(0, job->stop());
  bench_.dir.write("go", "");
  EXPECT_EQ(JOB_STATE_CANCELED, bench_.wait_end(job));
  // The watch ended it, not the patience of the job.
  EXPECT_TRUE(bench_.log.expect(LM_WARNING, "Tool_Watch: job " + job->definition().id()));
  EXPECT_TRUE(bench_.log.expect(LM_WARNING, "Tool_Watch: brcmd has been terminated"));
  EXPECT_EQ("none", stored());
  EXPECT_TRUE(bench_.rows().empty());
}
} // namespace
