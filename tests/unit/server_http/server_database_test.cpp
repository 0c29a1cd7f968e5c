#include "base/path_conf.h"
#include "server/server_setup.h"
#include "server_fixture.h"
#include "support/fault_file_system.h"
#include "support/fault_vfs.h"
#include "support/scoped_env.h"

#include <sqlite3.h>

#include <cerrno>
#include <sys/stat.h>
#include <thread>

using namespace kestrel;
using namespace kestrel_test;

namespace
{
Server_Database::Options options_for(const std::string& path, const std::vector<Server_Schema_Part>& schema)
{
  Server_Database::Options options;
  options.path = path;
  options.create = true;
  options.connections = 1;
  options.schema = schema;
  return options;
}

std::string open_error(const Server_Database::Options& options)
{
  Server_Database database;
  std::string error;
  return database.open(options, error) ? "" : error;
}

Server_Init small_init()
{
  set_password_cost(10);
  Server_Init init;
  init.admin = "root";
  init.password = "password-1";
  return init;
}
} // namespace

TEST(Server_Database, each_part_is_brought_up_to_date_by_its_own_steps)
{
  Temp_Dir dir;
  const std::string path = dir / "server.db";
  EXPECT_EQ("", open_error(options_for(path, {{"one", {{"CREATE TABLE a (x INTEGER)"}}}, {"two", {}}})));
  const std::vector<Server_Schema_Part> later = {
      {"one", {{"CREATE TABLE a (x INTEGER)"}, {"ALTER TABLE a ADD COLUMN y INTEGER"}}},
      {"two", {{"CREATE TABLE b (x INTEGER REFERENCES a (x))"}}}};
  Server_Database database;
  std::string error;
  ASSERT_TRUE(database.open(options_for(path, later), error)) << error;
  {
    Server_Database::Lease session = database.lease();
    *session << "INSERT INTO a (x, y) VALUES (1, 2)";
    *session << "SELECT x FROM b";
  }
  database.close();
  EXPECT_EQ("", open_error(options_for(path, later))) << "a second time changes nothing";
  EXPECT_NE(std::string::npos,
            open_error(options_for(path, {{"one", {}}})).find("written by a newer release"));
}

TEST(Server_Database, a_step_that_fails_leaves_nothing_behind)
{
  Temp_Dir dir;
  const std::string path = dir / "server.db";
  const Server_Schema_Part good = {"one", {{"CREATE TABLE a (x INTEGER)"}}};
  EXPECT_EQ("", open_error(options_for(path, {good})));
  EXPECT_NE("", open_error(options_for(path, {good, {"two", {{"CREATE TABLE b (x INTEGER)", "NONSENSE"}}}})));
  EXPECT_EQ("", open_error(options_for(path, {good, {"two", {{"CREATE TABLE b (x INTEGER)"}}}})));
}

TEST(Server_Database, refuses_a_database_of_another_program)
{
  Temp_Dir dir;
  const std::string path = dir / "server.db";
  sqlite3* other = nullptr;
  ASSERT_EQ(SQLITE_OK, ::sqlite3_open(path.c_str(), &other));
  ASSERT_EQ(SQLITE_OK, ::sqlite3_exec(other, "CREATE TABLE t (x)", nullptr, nullptr, nullptr));
  ::sqlite3_close(other);
  EXPECT_NE(std::string::npos, open_error(options_for(path, {})).find("not one of this server"));
}

TEST(Server_Database, is_made_for_its_owner_only_and_not_unasked)
{
  Temp_Dir dir;
  Server_Database::Options options = options_for(dir / "server.db", server_schema());
  options.create = false;
  EXPECT_NE(std::string::npos, open_error(options).find("'kestrel server init' makes a new server"));
  EXPECT_FALSE(exists(dir / "server.db"));
  options.create = true;
  dir.write("server.db.new", "leftover");
  EXPECT_EQ("", open_error(options));
  struct stat status;
  ASSERT_EQ(0, ::stat((dir / "server.db").c_str(), &status));
  EXPECT_EQ(0600u, status.st_mode & 0777);
  EXPECT_FALSE(exists(dir / "server.db.new"));
}

class Server_Database_Faults : public Server_Fixture
{
};

TEST_F(Server_Database_Faults, nobody_waits_for_ever_for_a_connection)
{
  std::vector<std::unique_ptr<Server_Database::Lease>> all;
  for (int i = 0; i < 4; ++i)
    all.push_back(std::unique_ptr<Server_Database::Lease>(new Server_Database::Lease(database_.lease())));
  try {
    (void)database_.lease();
    ADD_FAILURE() << "a fifth connection";
  } catch (const Server_Database_Error& error) {
    EXPECT_TRUE(error.busy());
  }
  all.pop_back();
  (void)database_.lease();
}

TEST_F(Server_Database_Faults, a_write_lock_of_somebody_else_is_busy)
{
  Server_Database::Lease other = database_.lease();
  *other << "BEGIN IMMEDIATE";
  try {
    accounts_.enroll("db1");
    ADD_FAILURE() << "written beside a lock";
  } catch (const std::exception& error) {
    EXPECT_TRUE(database_.translate(error).busy());
    EXPECT_EQ(std::string::npos, std::string(database_.translate(error).what()).find("INSERT"));
  }
  EXPECT_TRUE(accounts_.hosts().empty()) << "reading goes on";
  *other << "ROLLBACK";
  accounts_.enroll("db1");
}

TEST(Server_Database_Disk, a_full_disk_is_told_and_survived)
{
  Temp_Dir dir;
  Fault_Vfs files;
  set_password_cost(10);
  Server_Database database;
  std::string error;
  ASSERT_TRUE(database.open(options_for(dir / "server.db", server_schema()), error)) << error;
  Accounts accounts(database);
  accounts.enroll("db1");
  unsigned failed = 0;
  for (unsigned number = 1; number <= 20; ++number) {
    files.fail("write", number, SQLITE_FULL);
    try {
      accounts.enroll("db2");
    } catch (const std::exception& exception) {
      ++failed;
      EXPECT_NE(std::string::npos,
                std::string(database.translate(exception).what()).find("The disk is full"));
      EXPECT_EQ(1u, accounts.hosts().size()) << "half a change";
    }
    if (!files.met())
      break;
    if (accounts.hosts().size() == 2)
      break;
  }
  EXPECT_LT(0u, failed);
  files.fail("write", 1000000, SQLITE_FULL);
  accounts.enroll("db2");
  EXPECT_EQ(2u, accounts.hosts().size());
  set_password_cost(15);
}

TEST(Server_Setup, init_survives_every_failing_call_and_says_which)
{
  unsigned number = 1;
  for (;; ++number) {
    Temp_Dir dir;
    Scoped_Env env("KESTREL_ROOT", dir.path());
    std::string error, again;
    bool done = false, met = false;
    {
      Fault_File_System files;
      files.fail("any", number, ENOSPC);
      done = init_server(small_init(), error);
      met = files.met();
    }
    ASSERT_TRUE(done || !error.empty()) << number;
    ASSERT_EQ(std::string::npos, error.find("password-1"));
    if (!done) {
      for (const char* name : {"server.toml", "server.db", "server.db-wal", "tls"})
        EXPECT_FALSE(exists(state_path(name))) << number << ": " << error << ", " << name;
    }
    if (!met) {
      EXPECT_TRUE(done) << error;
      break;
    }
  }
  EXPECT_LT(10u, number);
  set_password_cost(15);
}

TEST(Server_Setup, init_can_be_repeated_after_a_mistake)
{
  Temp_Dir dir;
  Scoped_Env env("KESTREL_ROOT", dir.path());
  Server_Init short_password = small_init(), bad_name = small_init(), bad_address = small_init();
  short_password.password = "short";
  bad_name.admin = "al ice";
  bad_address.names.addresses = {"nowhere"};
  std::string error;
  EXPECT_FALSE(init_server(short_password, error));
  EXPECT_EQ("A password has 8 to 1023 bytes", error);
  EXPECT_FALSE(init_server(bad_name, error));
  EXPECT_EQ(0u, error.find("The name of a user has ")) << error;
  EXPECT_FALSE(init_server(bad_address, error));
  EXPECT_EQ("Cannot make a server certificate: 'nowhere' is no numeric address", error);
  EXPECT_TRUE(init_server(small_init(), error)) << error;
  EXPECT_FALSE(init_server(small_init(), error));
  EXPECT_NE(std::string::npos, error.find("exists already")) << error;
  EXPECT_TRUE(exists(state_path("tls/ca.key"))) << "a refused attempt removes nothing";
  set_password_cost(15);
}

TEST(Server_Setup, a_copy_that_fails_has_no_mark_of_being_complete)
{
  Temp_Dir dir;
  Scoped_Env env("KESTREL_ROOT", dir.path());
  std::string error;
  ASSERT_TRUE(init_server(small_init(), error)) << error;
  unsigned failed = 0;
  for (unsigned number = 1;; ++number) {
    const std::string copy = dir / ("copy" + std::to_string(number));
    std::vector<std::string> notes;
    Fault_File_System files;
    files.fail("any", number, EIO);
    const bool done = save_server(copy, notes, error);
    if (!files.met()) {
      EXPECT_TRUE(done) << error;
      EXPECT_TRUE(exists(copy + "/complete"));
      break;
    }
    if (done)
      continue;
    ++failed;
    EXPECT_FALSE(error.empty());
    // As above: only its last step may have failed.
    if (exists(copy + "/complete")) {
      EXPECT_EQ(0u, error.find("cannot flush directory")) << number << ": " << error;
    }
  }
  EXPECT_LT(5u, failed);
  set_password_cost(15);
}
