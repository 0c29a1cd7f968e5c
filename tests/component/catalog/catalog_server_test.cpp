#include "catalog/catalog_operator.h"
#include "support/log_capture.h"
#include "support/scoped_env.h"
#include "support/temp_dir.h"
#include "support/waiting.h"

#include <gtest/gtest.h>
#include <soci/soci.h>

#include <cstdlib>
#include <thread>
#include <unistd.h>

// What only a real PostgreSQL server shows. KESTREL_TEST_POSTGRESQL names one that commits locally unless
// told otherwise and whose standby never answers (synchronous_commit=local,
// synchronous_standby_names=nobody).

namespace
{
Oscar_Brcmd_Backup_Set make_set(const std::string& id)
{
  Oscar_Brcmd_Backup_Set set;
  set.set_uuid(id);
  set.set_backup_id(id);
  set.set_resource_uuid("resource");
  set.set_type("full");
  set.set_backup_file(id + ".bak");
  set.set_start_time(1000);
  set.add_storage(Backup_Set_Storage("pool", 1));
  return set;
}

class Catalog_Server : public ::testing::Test
{
protected:
  void SetUp() override
  {
    const char* const server = ::getenv("KESTREL_TEST_POSTGRESQL");
    if (!server)
      GTEST_SKIP() << "there is no PostgreSQL server";
    session_.open("postgresql", server);
    session_ << "SET client_min_messages = error";
    session_ << "CREATE SCHEMA " << schema_;
    configure("local");
  }
  void TearDown() override
  {
    if (session_.is_connected())
      session_ << "DROP SCHEMA " << schema_ << " CASCADE";
  }
  /// With "on" a commit writes its record and then waits for the standby, for ever.
  void configure(const std::string& commits)
  {
    root_.write("var/opt/tarnvik/kestrel3/agent/catalog.json",
                "{\"postgresql\": \"" + std::string(::getenv("KESTREL_TEST_POSTGRESQL")) +
                    " options='-c search_path=" + schema_ + " -c synchronous_commit=" + commits + "'\"}");
  }
  std::string run(const std::string& query)
  {
    std::string answer;
    soci::indicator indicator = soci::i_null;
    session_ << query, soci::into(answer, indicator);
    return indicator == soci::i_ok ? answer : std::string();
  }
  /// Ends the connection of the commit that waits for the standby; false when there is none yet.
  bool end_waiting_commit()
  {
    return !run("SELECT CAST(pg_terminate_backend(pid) AS TEXT) FROM pg_stat_activity WHERE wait_event = "
                "'SyncRep' AND application_name = 'kestrel'")
                .empty();
  }

  kestrel_test::Temp_Dir root_;
  kestrel_test::Scoped_Env environment_{"KESTREL_ROOT", root_.path()};
  kestrel_test::Log_Capture log_;
  const std::string schema_ = "kestrel_lost_" + std::to_string(::getpid());
  soci::session session_;
};
} // namespace

TEST_F(Catalog_Server, a_commit_whose_connection_is_ended_after_it_was_written_is_done)
{
  ASSERT_TRUE(Catalog_Operator(-1, 60).commit(make_set("before"), true));
  configure("on");
  bool committed = false;
  std::thread job([&] { committed = Catalog_Operator(-1, 60).commit(make_set("lost"), true); });
  EXPECT_TRUE(kestrel_test::eventually([&] { return end_waiting_commit(); }));
  job.join();
  EXPECT_TRUE(committed);
  EXPECT_EQ("2", run("SELECT CAST(count(*) AS TEXT) FROM " + schema_ + ".backup_set"));
  EXPECT_FALSE(Catalog_Operator(-1, 60).commit(make_set("lost"), true)) << "another call is no repeat";
  log_.expect(LM_ERROR, "already has a backup set 'lost'");
}
