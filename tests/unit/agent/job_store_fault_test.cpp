#include "agent/job_database.h"
#include "agent/job_store.h"
#include "agent/run_history.h"
#include "support/fault_vfs.h"
#include "support/temp_dir.h"

#include <gtest/gtest.h>
#include <sqlite3.h>

#include <functional>
#include <memory>

using namespace kestrel;
using kestrel_test::Fault_Vfs;
using kestrel_test::Temp_Dir;

namespace
{
const struct {
  const char* kind;
  int result;
} faults[] = {{"write", SQLITE_FULL},           {"sync", SQLITE_IOERR_FSYNC},
              {"open", SQLITE_CANTOPEN},        {"read", SQLITE_IOERR_READ},
              {"shm", SQLITE_IOERR_SHMMAP},     {"truncate", SQLITE_IOERR_TRUNCATE},
              {"delete", SQLITE_IOERR_DELETE}};

Run_Record run_at(time_t started_at, time_t ended_at)
{
  Run_Record record;
  record.run_id = "r1";
  record.definition_id = "d1";
  record.name = std::string(3000, 'n'); // more than a page
  record.trigger = "schedule";
  record.queued_at = 100;
  record.started_at = started_at;
  record.ended_at = ended_at;
  return record;
}

/// The life of a definition and its run as an agent stores it, on a database of its own.
class Stored_Life
{
public:
  /// Every step in turn; false at the first that fails, with its error. What was told to be stored is known.
  bool live(std::string& error)
  {
    const std::vector<std::function<bool(std::string&)>> steps = {
        [this](std::string& e) {
          database_->close();
          return database_->open(path_, e);
        },
        [this](std::string& e) {
          return store_.change({{"d1", 1, true, "server", std::string(5000, 'd'), 5}}, {}, e);
        },
        [this](std::string& e) { return history_.put(run_at(0, 0), e); },
        [this](std::string& e) { return history_.put(run_at(200, 0), e); },
        [this](std::string& e) { return store_.set_scheduled_until(250, e); },
        [this](std::string& e) { return history_.put(run_at(200, 300), e); },
        [this](std::string& e) { return history_.mark_sent({"r1"}, e); }};
    for (; done_ < steps.size(); ++done_)
      if (!steps[done_](error))
        return false;
    return true;
  }
  void close() { database_->close(); }

  /// What a fresh look finds is what the steps so far have stored; of the one that failed nothing, or all.
  void expect_whole()
  {
    close();
    std::string error;
    ASSERT_TRUE(database_->open(path_, error)) << error;
    std::vector<Stored_Definition> definitions;
    ASSERT_TRUE(store_.load(definitions, error)) << error;
    const size_t least = done_, most = done_ + 1;
    EXPECT_TRUE(definitions.size() == (least > 1) || definitions.size() == (most > 1));
    Run_Record record;
    bool found = false;
    ASSERT_TRUE(history_.find("r1", record, found, error)) << error;
    EXPECT_TRUE(found || least < 3) << "a run is lost";
    if (found) {
      EXPECT_GE(most, 3u);
      EXPECT_EQ(std::string(3000, 'n'), record.name);
      EXPECT_TRUE(record.started_at == 200 || least < 4);
      EXPECT_TRUE(record.ended_at == 300 || least < 6);
      EXPECT_TRUE(record.ended_at == 0 || most >= 6);
    }
    std::vector<Run_Record> unsent;
    ASSERT_TRUE(history_.unsent(10, unsent, error)) << error;
    EXPECT_TRUE(unsent.empty() || least < 7) << "it was acknowledged";
  }

private:
  Temp_Dir dir_;
  const std::string path_ = dir_ / "agent.db";
  std::unique_ptr<Job_Database> database_ = std::make_unique<Job_Database>();
  Job_Store store_{*database_};
  Run_History history_{*database_, true};
  size_t done_ = 0;
};
} // namespace

TEST(Job_Store_Fault, every_step_is_all_or_nothing_whatever_fails_and_can_be_repeated)
{
  for (const auto& chosen : faults)
    for (const bool for_ever : {false, true}) {
      unsigned failures = 0;
      bool met = true;
      for (unsigned number = 1; met; ++number) {
        ASSERT_LT(number, 1000u);
        SCOPED_TRACE(std::string(chosen.kind) + " " + std::to_string(number) + (for_ever ? " for ever" : ""));
        Stored_Life life;
        std::string error;
        bool lived;
        {
          Fault_Vfs vfs;
          vfs.fail(chosen.kind, number, chosen.result, for_ever);
          lived = life.live(error);
          met = vfs.met();
          life.close();
        }
        failures += !lived;
        EXPECT_TRUE(lived || error.find("agent.db") != std::string::npos) << error;
        EXPECT_TRUE(lived || chosen.result != SQLITE_FULL || error.find("disk is full") != std::string::npos)
            << error;
        life.expect_whole();
        EXPECT_TRUE(life.live(error)) << "what failed can be repeated: " << error;
        life.expect_whole();
      }
      // A log that cannot be removed or shortened after the commit is taken up by the next connection.
      const bool harmless = std::string(chosen.kind) == "delete" || std::string(chosen.kind) == "truncate";
      EXPECT_TRUE(failures > 0 || harmless) << chosen.kind;
    }
}
