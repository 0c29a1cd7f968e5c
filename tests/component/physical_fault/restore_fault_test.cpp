#include "support/physical_bench.h"

#include "support/fault_file_system.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <cstdio>
#include <unistd.h>

using namespace kestrel_test;

namespace
{
typedef std::vector<int> Codes;

const unsigned FAST = 100;
const unsigned MOST_CALLS = 200;
} // namespace

TEST(Physical_Restore_Fault, of_each_file_operation_feeds_no_wrong_backup)
{
  for (const char* const call : {"open", "read", "pread", "fstat", "stat", "close"}) {
    bool met = true;
    for (unsigned k = 1; met && k < MOST_CALLS; ++k) {
      SCOPED_TRACE(std::string(call) + " " + std::to_string(k));
      Physical_Bench bench(FAST); // its short stream takes a dozen reads: those of a longer one are all alike
      bench.set_brcmd(bench.good_backup(), bench.marking_restore());
      bench.back_up();
      bench.log.allow(LM_ERROR, "");
      bench.log.allow(LM_WARNING, "");
      const Fake_Server server(bench.dir, "hang");
      const Job_Ptr job = bench.make_job(bench.restore_fields("full-1"));
      {
        Fault_File_System faults;
        faults.fail(call, k, EIO);
        bench.run(job);
        met = faults.met();
      }
      EXPECT_EQ(job->state() == JOB_STATE_COMPLETED, exists(bench.dir / "restored"));
      EXPECT_EQ(server.running() ? 0u : 1u, bench.starts()) << "a stopped server was not started again";
      EXPECT_TRUE(bench.fifos().empty());
    }
    EXPECT_FALSE(met) << "calls of " << call << " that no round failed";
  }
}

TEST(Physical_Restore_Fault, of_a_stored_file_never_lets_brcmd_finish)
{
  Physical_Bench bench(FAST);
  const std::string first = bench.make_good_stream(3000000);
  bench.set_stream(first);
  bench.set_brcmd(bench.good_backup(), bench.marking_restore());
  bench.back_up();
  const std::string file = bench.whole_files().at(0);
  const std::string path = bench.stored_path(file);
  std::string meta_path;
  for (const std::string& name : bench.stored_files())
    if (name != file)
      meta_path = bench.stored_path(name);
  const std::string content = read_file(path);
  const std::string meta = read_file(meta_path);

  std::vector<std::pair<std::string, std::string>> damages;
  for (const size_t at : {size_t(0), size_t(600), content.size() / 2, content.size() - 1}) {
    std::string damaged = content;
    damaged[at] = static_cast<char>(damaged[at] ^ 0x10);
    damages.emplace_back("flipped " + std::to_string(at), damaged);
  }
  for (const size_t length :
       {size_t(0), size_t(100), size_t(512), size_t(8192), content.size() / 2, content.size() - 1})
    damages.emplace_back("cut to " + std::to_string(length), content.substr(0, length));
  damages.emplace_back("longer", content + "x");
  damages.emplace_back("foreign", std::string(10000, 'f'));

  for (const auto& damage : damages) {
    SCOPED_TRACE(damage.first);
    bench.dir.write("pool/" + bench.source_id + "/" + file, damage.second);
    const Fake_Server server(bench.dir, "hang");
    const unsigned starts = bench.starts();
    Codes alerts;
    bench.log.allow(LM_ERROR, "Failed to read backup ");
    bench.log.allow(LM_ERROR, "Failed to open file ");
    EXPECT_EQ(JOB_STATE_ERROR, bench.run(bench.restore_fields("full-1"), &alerts));
    EXPECT_TRUE(alerts == Codes{16} || alerts == Codes{14});
    EXPECT_FALSE(exists(bench.dir / "restored")) << "brcmd took a damaged backup for a whole one";
    EXPECT_EQ(starts + 1, bench.starts());
  }

  // A missing file, then the good one again.
  ASSERT_EQ(0, ::unlink(path.c_str()));
  Codes alerts;
  EXPECT_EQ(JOB_STATE_ERROR, bench.run(bench.restore_fields("full-1"), &alerts));
  EXPECT_EQ(Codes{14}, alerts);
  bench.dir.write("pool/" + bench.source_id + "/" + file, content);
  EXPECT_EQ(JOB_STATE_COMPLETED, bench.run(bench.restore_fields("full-1")));
  EXPECT_TRUE(exists(bench.dir / "restored"));
}

TEST(Physical_Restore_Fault, of_an_exchanged_file_never_lets_brcmd_finish)
{
  Physical_Bench bench(FAST);
  bench.set_brcmd(bench.good_backup(), bench.marking_restore());
  bench.set_stream(bench.make_good_stream(100000));
  bench.back_up();
  const std::string first = bench.whole_files().at(0);
  std::string other = read_file(bench.dir / "stream");
  for (const bool same_size : {false, true}) {
    // Another whole and undamaged backup stands under the name of the first.
    if (same_size)
      other[other.size() - 5] = static_cast<char>(other[other.size() - 5] + 1);
    bench.set_stream(same_size ? other : bench.make_good_stream(90000));
    const std::string id = same_size ? "full-3" : "full-2";
    bench.set_next_state(id, id, 20);
    bench.back_up();
    const std::string second = bench.whole_files().back();
    ASSERT_NE(first, second);
    for (const std::string& name : bench.stored_files()) {
      if (name.compare(0, second.size(), second) == 0) {
        const std::string target = first + name.substr(second.size());
        bench.dir.write("pool/" + bench.source_id + "/" + target, read_file(bench.stored_path(name)));
      }
    }
    Codes alerts;
    EXPECT_EQ(JOB_STATE_ERROR, bench.run(bench.restore_fields("full-1"), &alerts));
    EXPECT_EQ(Codes{16}, alerts);
    bench.log.expect(LM_ERROR, "this is not the file that was backed up");
    EXPECT_FALSE(exists(bench.dir / "restored"));
    EXPECT_EQ(JOB_STATE_COMPLETED, bench.run(bench.restore_fields(id)));
    EXPECT_EQ(0, ::unlink((bench.dir / "restored").c_str()));
  }
}

TEST(Physical_Restore_Fault, of_a_later_set_of_a_chain_stops_there)
{
  Physical_Bench bench(FAST);
  bench.set_brcmd(bench.good_backup(), "append_file " + (bench.dir / "runs") + " x\n" + bench.good_restore());
  bench.back_up();
  const std::string full = bench.whole_files().at(0);
  bench.set_next_state("full-1", "incr-1", 20);
  bench.back_up(JOB_DEFINITION_SUBTYPE_INCREMENTAL);
  for (const std::string& name : bench.stored_files())
    if (name.find("_incr_") != std::string::npos) {
      ASSERT_EQ(0, ::unlink(bench.stored_path(name).c_str()));
    }
  Codes alerts;
  EXPECT_EQ(JOB_STATE_ERROR, bench.run(bench.restore_fields("incr-1"), &alerts));
  EXPECT_EQ(Codes{14}, alerts);
  bench.log.expect(LM_ERROR, "Failed to open file PHYS7_incr_");
  EXPECT_EQ("x", read_file(bench.dir / "runs"));
  EXPECT_EQ(1u, bench.starts());
}
