#include "catalog/catalog_operator.h"
#include "catalog/catalog_schema.h"
#include "catalog/sql_back_end.h"
#include "instances/instance_manager.h"
#include "instances/instance_registry.h"
#include "support/log_capture.h"
#include "support/scoped_env.h"
#include "support/temp_dir.h"

#include <gtest/gtest.h>

#include <csignal>
#include <cstdlib>
#include <fcntl.h>
#include <fstream>
#include <set>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

// Several processes on one catalog and one registry. A child is this program again, told by the environment
// to run one of the tests whose names begin with "DISABLED_child".

using json_spirit::find_value;

namespace
{
Oscar_Brcmd_Backup_Set make_set(const std::string& id)
{
  Oscar_Brcmd_Backup_Set set;
  set.set_uuid(id);
  set.set_backup_id(id);
  set.set_resource_uuid("resource");
  set.set_type("full");
  set.set_name("job");
  set.set_backup_file(id + ".bak");
  set.set_backup_set_size(1);
  set.set_start_time(1000);
  set.add_storage(Backup_Set_Storage("pool", 1));
  set.add_piece(id + ".bak", 0);
  return set;
}

std::vector<std::string> committed_ids()
{
  json_spirit::Value result;
  EXPECT_TRUE(Catalog_Operator(-1, 60).get_view("oscar_brcmd", "catalogs", {}, result));
  std::vector<std::string> ids;
  for (const json_spirit::Value& row : find_value(result.get_obj(), "rows").get_array())
    ids.push_back(find_value(row.get_obj(), "backup_id").get_str());
  return ids;
}

std::string child_name()
{
  return getenv("CHILD_NAME");
}
int child_count()
{
  return atoi(getenv("CHILD_COUNT"));
}

/// A child process; killed and reaped at the end of the scope if it still runs.
class Child
{
public:
  Child(const char* test, const std::string& name, int count, const std::string& output)
  {
    kestrel_test::Scoped_Env child_name("CHILD_NAME", name);
    kestrel_test::Scoped_Env child_count("CHILD_COUNT", std::to_string(count));
    const std::string filter = std::string("--gtest_filter=Catalog_Process.DISABLED_child_") + test;
    pid_ = ::fork();
    if (pid_ == 0) {
      const int fd = ::open(output.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0600);
      ::dup2(fd, 1);
      ::dup2(fd, 2);
      ::execl("/proc/self/exe", "child", filter.c_str(), "--gtest_also_run_disabled_tests", nullptr);
      ::_exit(127);
    }
  }
  ~Child() { kill(); }
  Child(const Child&) = delete;
  Child& operator=(const Child&) = delete;

  /// The exit status, -1 when a signal ended it.
  int wait()
  {
    int status = 0;
    while (pid_ > 0 && ::waitpid(pid_, &status, 0) < 0 && errno == EINTR)
      continue;
    pid_ = -1;
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  }
  void kill()
  {
    if (pid_ > 0) {
      ::kill(pid_, SIGKILL);
      wait();
    }
  }

private:
  pid_t pid_ = -1;
};
} // namespace

class Catalog_Process : public ::testing::Test
{
protected:
  kestrel_test::Temp_Dir root_;
  // Children keep the directory of their parent.
  kestrel_test::Scoped_Env environment_{
      "KESTREL_ROOT", getenv("CHILD_NAME") ? std::string(getenv("KESTREL_ROOT")) : root_.path()};
  const std::string output_ = root_ / "children.log";

  std::string output() const { return kestrel_test::exists(output_) ? kestrel_test::read_file(output_) : ""; }
  static std::string file(const std::string& name)
  {
    return std::string(getenv("KESTREL_ROOT")) + "/" + name;
  }
  void expect_integrity()
  {
    kestrel::Catalog_Database database(kestrel::default_catalog_place());
    std::string answer;
    database.session() << "PRAGMA integrity_check", soci::into(answer);
    EXPECT_EQ("ok", answer);
  }
};

TEST_F(Catalog_Process, DISABLED_child_commit)
{
  const std::string name = child_name();
  for (int i = 0; i < child_count(); ++i) {
    const std::string id = name + "-" + std::to_string(i);
    ASSERT_TRUE(Catalog_Operator(-1, 120).commit(make_set(id), true));
    std::ofstream(file(name + ".done"), std::ios::app) << id << std::endl;
  }
}

TEST_F(Catalog_Process, DISABLED_child_read)
{
  size_t before = 0;
  while (before < static_cast<size_t>(child_count())) {
    const std::vector<std::string> ids = committed_ids();
    ASSERT_GE(ids.size(), before) << "what was seen once stays";
    before = ids.size();
  }
}

TEST_F(Catalog_Process, DISABLED_child_hold)
{
  kestrel::Catalog_Database database(kestrel::default_catalog_place());
  kestrel::Catalog_Transaction transaction(database.session(), kestrel::Catalog_Transaction::Kind::write);
  database.session() << "UPDATE backup_set SET name = 'half done'";
  std::ofstream(file("holding")) << "yes" << std::endl;
  ::pause();
}

TEST_F(Catalog_Process, DISABLED_child_migrate)
{
  kestrel::Catalog_Migrations migrations = kestrel::catalog_migrations();
  migrations.push_back({"ALTER TABLE backup_set ADD COLUMN note TEXT", "UPDATE backup_set SET note = 'old'"});
  kestrel::Catalog_Place place = kestrel::default_catalog_place();
  place.migrations = &migrations;
  place.busy_timeout_msec = 60000;
  kestrel::Catalog_Database database(place);
  int version = 0;
  database.session() << "SELECT version FROM schema_version", soci::into(version);
  EXPECT_EQ(static_cast<int>(migrations.size()), version);
}

TEST_F(Catalog_Process, DISABLED_child_register)
{
  kestrel::Instance_Registry registry("host");
  std::string error;
  for (int i = 0; i < child_count(); ++i) {
    auto instance = std::make_shared<Instance>();
    instance->type = "oscar";
    instance->name = child_name() + std::to_string(i);
    instance->options["oscar_home"] = "/opt/oscar";
    ASSERT_EQ(0, registry.merge_probe({{instance->name, instance}}, error)) << error;
    ASSERT_EQ(0, registry.set_account("oscar", instance->name, "", "SYS", "secret", error)) << error;
    std::string user;
    secure_string password;
    ASSERT_EQ(
        0, Instance_Manager::instance()->get_account("oscar", instance->name, "", user, password, nullptr));
    ASSERT_EQ("secret", password);
  }
}

TEST_F(Catalog_Process, two_processes_commit_while_a_third_reads)
{
  const int count = 30;
  {
    Child first("commit", "first", count, output_);
    Child second("commit", "second", count, output_);
    Child reader("read", "reader", 2 * count, output_);
    EXPECT_EQ(0, first.wait()) << output();
    EXPECT_EQ(0, second.wait()) << output();
    EXPECT_EQ(0, reader.wait()) << output();
  }
  const std::vector<std::string> ids = committed_ids();
  ASSERT_EQ(2u * count, ids.size());
  for (const std::string name : {"first", "second"}) {
    int next = 0;
    for (const std::string& id : ids)
      if (id.compare(0, name.size(), name) == 0) {
        EXPECT_EQ(name + "-" + std::to_string(next++), id) << "rows stand in commit order";
      }
    EXPECT_EQ(count, next);
  }
  expect_integrity();
}

TEST_F(Catalog_Process, a_commit_that_was_reported_survives_a_kill)
{
  std::set<std::string> reported;
  for (int round = 0; round < 8; ++round) {
    const std::string name = "round" + std::to_string(round);
    {
      Child child("commit", name, 1000000, output_);
      for (int i = 0; i < 3000 && (!kestrel_test::exists(root_ / (name + ".done")) || i % 97 < round * 11);
           ++i)
        ::usleep(10000); // real time: the child is a real process
    }
    std::ifstream done(root_ / (name + ".done"));
    for (std::string id; std::getline(done, id);)
      reported.insert(id);
  }
  EXPECT_GE(reported.size(), 8u) << output();
  const std::vector<std::string> ids = committed_ids();
  const std::set<std::string> present(ids.begin(), ids.end());
  for (const std::string& id : reported)
    EXPECT_EQ(1u, present.count(id)) << id;
  EXPECT_LE(present.size(), reported.size() + 8) << "at most one unreported commit for each kill";
  expect_integrity();
}

TEST_F(Catalog_Process, a_writer_that_dies_half_way_leaves_nothing_and_blocks_nobody)
{
  ASSERT_TRUE(Catalog_Operator(-1, 60).commit(make_set("b1"), true));
  {
    Child holder("hold", "holder", 0, output_);
    for (int i = 0; i < 3000 && !kestrel_test::exists(root_ / "holding"); ++i)
      ::usleep(10000);
    ASSERT_TRUE(kestrel_test::exists(root_ / "holding")) << output();
    EXPECT_EQ(1u, committed_ids().size()) << "readers go on";
  }
  EXPECT_TRUE(Catalog_Operator(-1, 60).commit(make_set("b2"), true));
  json_spirit::Value result;
  ASSERT_TRUE(Catalog_Operator(-1, 60).get_view("oscar_brcmd", "catalogs", {{"name", "half done"}}, result));
  EXPECT_TRUE(find_value(result.get_obj(), "rows").get_array().empty());
}

TEST_F(Catalog_Process, processes_that_start_together_migrate_once)
{
  ASSERT_TRUE(Catalog_Operator(-1, 60).commit(make_set("b1"), true));
  std::vector<std::unique_ptr<Child>> children;
  for (int i = 0; i < 4; ++i)
    children.push_back(std::make_unique<Child>("migrate", "migrator", 0, output_));
  for (const auto& child : children)
    EXPECT_EQ(0, child->wait()) << output();
  kestrel_test::Log_Capture log;
  json_spirit::Value result;
  EXPECT_FALSE(Catalog_Operator(-1, 0).get_view("oscar_brcmd", "catalogs", {}, result))
      << "this release must refuse the newer schema";
  log.expect(LM_ERROR, "was written by a newer release");
}

TEST_F(Catalog_Process, two_processes_register_instances_and_accounts)
{
  const int count = 20;
  {
    Child first("register", "A", count, output_);
    Child second("register", "B", count, output_);
    EXPECT_EQ(0, first.wait()) << output();
    EXPECT_EQ(0, second.wait()) << output();
  }
  std::vector<kestrel::Instance_Registry::Entry> entries;
  std::string error;
  ASSERT_EQ(0, kestrel::Instance_Registry("host").list(entries, error)) << error;
  ASSERT_EQ(2u * count, entries.size());
  for (const auto& entry : entries)
    EXPECT_EQ(1u, entry.accounts.size()) << entry.instance.name;
}
