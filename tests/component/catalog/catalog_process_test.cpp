#include "catalog/catalog_operator.h"
#include "catalog/sql_back_end.h"
#include "instances/instance_registry.h"
#include "support/log_capture.h"
#include "support/paths.h"
#include "support/scoped_env.h"
#include "support/temp_dir.h"
#include "support/waiting.h"

#include <gtest/gtest.h>

#include <csignal>
#include <cstdlib>
#include <fcntl.h>
#include <fstream>
#include <set>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

// Several processes on one catalog and one registry: tests/tools/catalog_child.

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

/// A child process; killed and reaped at the end of the scope if it still runs.
class Child
{
public:
  /// arguments: what tests/tools/catalog_child takes.
  Child(const std::vector<std::string>& arguments, const std::string& output)
  {
    const std::string program = kestrel_test::bin_dir() + "/catalog_child";
    std::vector<char*> argv = {const_cast<char*>(program.c_str())};
    for (const std::string& argument : arguments)
      argv.push_back(const_cast<char*>(argument.c_str()));
    argv.push_back(nullptr);
    pid_ = ::fork();
    if (pid_ == 0) {
      const int fd = ::open(output.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0600);
      ::dup2(fd, 1);
      ::dup2(fd, 2);
      ::execv(argv[0], argv.data());
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
  kestrel_test::Scoped_Env environment_{"KESTREL_ROOT", root_.path()};
  const std::string output_ = root_ / "children.log";

  std::string output() const { return kestrel_test::exists(output_) ? kestrel_test::read_file(output_) : ""; }
  void expect_integrity()
  {
    kestrel::Catalog_Database database(kestrel::default_catalog_place());
    std::string answer;
    database.session() << "PRAGMA integrity_check", soci::into(answer);
    EXPECT_EQ("ok", answer);
  }
};

TEST_F(Catalog_Process, two_processes_commit_while_a_third_reads)
{
  const int count = 30;
  {
    Child first({"commit", "first", std::to_string(count)}, output_);
    Child second({"commit", "second", std::to_string(count)}, output_);
    Child reader({"read", std::to_string(2 * count)}, output_);
    ASSERT_EQ(0, first.wait()) << output(); // without all the sets the reader would not end
    ASSERT_EQ(0, second.wait()) << output();
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
      Child child({"commit", name, "1000000"}, output_);
      ASSERT_TRUE(kestrel_test::wait_for_file(root_ / (name + ".done"))) << output();
      ::usleep(static_cast<useconds_t>(round) * 110000); // killed at another point of its work each time
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
    Child holder({"hold"}, output_);
    ASSERT_TRUE(kestrel_test::wait_for_file(root_ / "holding")) << output();
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
    children.push_back(std::make_unique<Child>(std::vector<std::string>{"migrate"}, output_));
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
    Child first({"register", "A", std::to_string(count)}, output_);
    Child second({"register", "B", std::to_string(count)}, output_);
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
