#include "support/answering_catalog.h"
#include "support/physical_bench.h"

#include "catalog/catalog_admin.h"
#include "catalog/catalog_operator.h"
#include "oscar/restore_job_source.h"
#include "storage/pool_registry.h"

#include <gtest/gtest.h>

#include <functional>
#include <sys/wait.h>
#include <unistd.h>

using namespace kestrel_test;

namespace
{
typedef std::vector<int> Codes;

const unsigned FAST = 200;

/// A chain full-1, incr-1, diff-1, incr-2, each of another stream, so that the restore of incr-2 reads
/// full-1, diff-1 and incr-2. The restoring brcmd keeps what each of its runs read, but only once it was
/// whole.
class Chain_Bench : public Physical_Bench
{
public:
  Chain_Bench() : Physical_Bench(FAST)
  {
    take(JOB_DEFINITION_SUBTYPE_FULL, "full-1", 10);
    take(JOB_DEFINITION_SUBTYPE_INCREMENTAL, "incr-1", 20);
    take(JOB_DEFINITION_SUBTYPE_CUMULATIVE, "diff-1", 30);
    take(JOB_DEFINITION_SUBTYPE_INCREMENTAL, "incr-2", 40);
    set_brcmd("exit 99", "append_file " + (dir / "begun") + " x\nread_to ${option:-f} " + (dir / "reading") +
                             "\ncopy " + (dir / "reading") + " " + (dir / "fed_${run}") + "\nappend_file " +
                             (dir / "whole") + " x\n");
    forget();
  }

  /// Forgets what earlier restores left.
  void forget()
  {
    for (const char* const name : {"begun", "whole", "starts", "fed_1", "fed_2", "fed_3", "fed_4"})
      ::unlink((dir / name).c_str());
    ::unlink((home + "/bin/brcmd.script.runs").c_str());
  }

  size_t begun() const { return marks("begun"); }
  size_t whole() const { return marks("whole"); }

  /// The ids of the sets that brcmd read, in order.
  std::string restored() const
  {
    std::string ids;
    for (int run = 1; exists(dir / ("fed_" + std::to_string(run))); ++run) {
      const std::string fed = read_file(dir / ("fed_" + std::to_string(run)));
      for (const auto& [id, stream] : streams_)
        if (fed.size() > stream.size() && fed.compare(fed.size() - stream.size(), stream.size(), stream) == 0)
          ids += (ids.empty() ? "" : " ") + id;
    }
    return ids;
  }

  const std::string& file(const std::string& id) const { return files_.at(id); }
  void write_file(const std::string& id, const std::string& content)
  {
    dir.write("pool/" + source_id + "/" + file(id), content);
  }
  /// Names of the stored file and of what belongs to it.
  std::vector<std::string> all_files(const std::string& id) const
  {
    std::vector<std::string> names;
    for (const std::string& name : stored_files())
      if (name.compare(0, file(id).size(), file(id)) == 0)
        names.push_back(name);
    return names;
  }

private:
  void take(Job_Definition_Subtype level, const std::string& id, unsigned number)
  {
    streams_[id] = make_good_stream(100000 + number);
    streams_[id].back() = static_cast<char>(number);
    set_stream(streams_[id]);
    set_next_state("full-1", id, number);
    back_up(level);
    files_[id] = json_spirit::find_value(rows().back().get_obj(), "backup_file").get_str();
  }
  size_t marks(const char* name) const { return exists(dir / name) ? read_file(dir / name).size() : 0; }

  std::map<std::string, std::string> streams_;
  std::map<std::string, std::string> files_;
};

const char* const MEMBERS[] = {"full-1", "diff-1", "incr-2"}; // of the chain of incr-2, in order

oscar::Restore_Job_Source& source_of(const kestrel::Job_Definition_Fields& fields)
{
  return dynamic_cast<oscar::Restore_Job_Source&>(*fields.source);
}
} // namespace

TEST(Physical_Restore_Chain, feeds_one_run_of_brcmd_a_set_in_order)
{
  Chain_Bench bench;
  const struct {
    const char *id, *sets;
  } cases[] = {{"full-1", "full-1"},
               {"incr-1", "full-1 incr-1"},
               {"diff-1", "full-1 diff-1"},
               {"incr-2", "full-1 diff-1 incr-2"}};
  for (const auto& one : cases) {
    bench.forget();
    const Fake_Server server(bench.dir, "hang");
    EXPECT_EQ(JOB_STATE_COMPLETED, bench.run(bench.restore_fields(one.id)));
    EXPECT_EQ(one.sets, bench.restored());
    EXPECT_EQ(bench.begun(), bench.whole());
    EXPECT_FALSE(server.running());
    EXPECT_EQ(1u, bench.starts());
  }
}

TEST(Physical_Restore_Chain, stops_at_a_damaged_member)
{
  struct Damage {
    const char* name;
    std::function<void(Chain_Bench&, const std::string& id, const std::string& content)> apply;
  };
  const Damage damages[] = {
      {"missing", [](Chain_Bench& bench, const std::string& id,
                     const std::string&) { ::unlink(bench.stored_path(bench.file(id)).c_str()); }},
      {"empty",
       [](Chain_Bench& bench, const std::string& id, const std::string&) { bench.write_file(id, ""); }},
      {"truncated",
       [](Chain_Bench& bench, const std::string& id, const std::string& content) {
         bench.write_file(id, content.substr(0, content.size() / 2));
       }},
      {"last byte gone",
       [](Chain_Bench& bench, const std::string& id, const std::string& content) {
         bench.write_file(id, content.substr(0, content.size() - 1));
       }},
      {"a bit flipped",
       [](Chain_Bench& bench, const std::string& id, std::string content) {
         content[content.size() / 2] = static_cast<char>(content[content.size() / 2] ^ 1);
         bench.write_file(id, content);
       }},
      {"a directory",
       [](Chain_Bench& bench, const std::string& id, const std::string&) {
         ::unlink(bench.stored_path(bench.file(id)).c_str());
         bench.dir.make_dir("pool/" + bench.source_id + "/" + bench.file(id));
       }},
      // Whole and undamaged, with all that belongs to it, but of another backup of the same chain.
      {"another set's",
       [](Chain_Bench& bench, const std::string& id, const std::string&) {
         for (const std::string& name : bench.all_files("incr-1"))
           bench.dir.write("pool/" + bench.source_id + "/" + bench.file(id) +
                               name.substr(bench.file("incr-1").size()),
                           read_file(bench.stored_path(name)));
       }},
  };
  Chain_Bench bench;
  bench.log.allow(LM_ERROR, "Failed to open file ");
  bench.log.allow(LM_ERROR, "Failed to read backup ");
  bench.log.allow(LM_ERROR, "this is not the file that was backed up");
  for (const Damage& damage : damages)
    for (size_t position = 0; position < std::size(MEMBERS); ++position) {
      const std::string id = MEMBERS[position];
      SCOPED_TRACE(std::string(damage.name) + " " + id);
      std::map<std::string, std::string> saved;
      for (const std::string& name : bench.all_files(id))
        saved[name] = read_file(bench.stored_path(name));
      damage.apply(bench, id, saved.at(bench.file(id)));
      bench.forget();
      const Fake_Server server(bench.dir, "hang");
      Codes alerts;
      EXPECT_EQ(JOB_STATE_ERROR, bench.run(bench.restore_fields("incr-2"), &alerts));
      EXPECT_TRUE(alerts == Codes{14} || alerts == Codes{16}) << testing::PrintToString(alerts);
      EXPECT_EQ(position, bench.whole()) << "brcmd took the damaged set for a whole one";
      EXPECT_LE(bench.begun(), position + 1) << "a set after the damaged one was begun";
      EXPECT_EQ(1u, bench.starts());
      ::rmdir(bench.stored_path(bench.file(id)).c_str());
      for (const auto& [name, content] : saved)
        bench.dir.write("pool/" + bench.source_id + "/" + name, content);
    }
  bench.forget();
  EXPECT_EQ(JOB_STATE_COMPLETED, bench.run(bench.restore_fields("incr-2")));
  EXPECT_EQ("full-1 diff-1 incr-2", bench.restored());
}

TEST(Physical_Restore_Chain, does_not_stop_the_server_when_a_record_is_missing_or_not_available)
{
  for (const bool remove : {false, true})
    for (const char* const id : MEMBERS) {
      SCOPED_TRACE(id);
      Chain_Bench bench;
      std::string error;
      ASSERT_TRUE(
          remove ? kestrel::Catalog_Admin().remove(id, error)
                 : kestrel::Catalog_Admin().set_state(id, kestrel::Set_State::unavailable, "gone", error))
          << error;
      const Fake_Server server(bench.dir, "hang");
      Codes alerts;
      EXPECT_EQ(JOB_STATE_ERROR, bench.run(bench.restore_fields("incr-2"), &alerts));
      EXPECT_EQ(Codes{18}, alerts);
      bench.log.expect_exactly(LM_ERROR, "Invalid backup set size\n");
      EXPECT_TRUE(server.running());
      EXPECT_EQ(0u, bench.begun() + bench.starts());
    }
}

TEST(Physical_Restore_Chain, finds_every_member_in_the_pool_that_the_job_names)
{
  Chain_Bench bench;
  bench.dir.make_dir("pool2/" + bench.source_id);
  Pool_Info other;
  std::string error;
  ASSERT_TRUE(kestrel::Pool_Registry().add("other", bench.dir / "pool2", other, error)) << error;
  kestrel::Job_Definition_Fields fields = bench.restore_fields("incr-2");
  source_of(fields).pool_uuid(other.pool_id);
  // The pool holds the beginning of the chain only.
  for (const char* const id : {"full-1", "diff-1"})
    for (const std::string& name : bench.all_files(id))
      bench.dir.write("pool2/" + bench.source_id + "/" + name, read_file(bench.stored_path(name)));
  Codes alerts;
  EXPECT_EQ(JOB_STATE_ERROR, bench.run(fields, &alerts));
  EXPECT_EQ(Codes{14}, alerts);
  bench.log.expect(LM_ERROR, "Failed to open file " + bench.file("incr-2"));
  EXPECT_EQ("full-1 diff-1", bench.restored());

  for (const std::string& name : bench.all_files("incr-2"))
    bench.dir.write("pool2/" + bench.source_id + "/" + name, read_file(bench.stored_path(name)));
  ASSERT_TRUE(kestrel::Pool_Registry().remove("main", error)) << error;
  bench.forget();
  EXPECT_EQ(JOB_STATE_COMPLETED, bench.run(fields));
  EXPECT_EQ("full-1 diff-1 incr-2", bench.restored());
}

TEST(Physical_Restore_Chain, ends_at_a_pool_that_is_gone)
{
  Chain_Bench bench;
  std::string error;
  ASSERT_TRUE(kestrel::Pool_Registry().remove("main", error)) << error;
  Codes alerts;
  EXPECT_EQ(JOB_STATE_ERROR, bench.run(bench.restore_fields("incr-2"), &alerts));
  EXPECT_EQ(Codes{11}, alerts);
  bench.log.expect_exactly(LM_ERROR, "Failed to get pool info.\n");
  bench.log.allow(LM_ERROR, "pool");
  EXPECT_EQ(0u, bench.begun());
  EXPECT_EQ(1u, bench.starts()) << "the server had been stopped before the pool was looked up";
}

TEST(Physical_Restore_Chain, a_run_of_brcmd_that_fails_ends_the_sequence)
{
  Chain_Bench bench;
  bench.set_brcmd("exit 99", "append_file " + (bench.dir / "begun") +
                                 " x\nread_to ${option:-f} /dev/null\nif exists " + (bench.dir / "whole") +
                                 "\nexit 5\nend\nappend_file " + (bench.dir / "whole") + " x\n");
  const Fake_Server server(bench.dir, "hang");
  EXPECT_EQ(JOB_STATE_ERROR, bench.run(bench.restore_fields("incr-2")));
  bench.log.expect(LM_ERROR, "brcmd read all of file " + bench.file("diff-1"));
  EXPECT_EQ(2u, bench.begun());
  EXPECT_EQ(1u, bench.starts());
}

TEST(Physical_Restore_Chain, refuses_every_wrong_shape_of_the_catalogs_sequence)
{
  Chain_Bench bench;
  const std::string pool = "\"pool_uuid\": \"" + bench.pool_id + "\"";
  const std::string uri = "\"uri\": \"" + bench.source_id + "\"";
  const std::string file = "\"backup_file\": \"" + bench.file("full-1") + "\"";
  const std::string size = "\"backup_set_size\": 1000";
  const std::string good = "{" + pool + ", " + uri + ", " + file + ", " + size + "}";
  struct Answer {
    std::string text;
    const char* message; // "" = none is laid down
  };
  const char* const invalid = "Invalid catalog data, exception: ";
  const char* const no_size = "Invalid backup set size\n";
  const Answer answers[] = {
      {"null", ""},
      {"[]", ""},
      {"\"rows\"", ""},
      {"{}", invalid},
      {"{\"rows\": null}", invalid},
      {"{\"rows\": {}}", invalid},
      {"{\"rows\": [null]}", invalid},
      {"{\"rows\": [[]]}", invalid},
      {"{\"rows\": [" + good + ", 7]}", invalid},
      {"{\"rows\": [{" + pool + ", " + uri + ", " + file + "}]}", invalid},
      {"{\"rows\": [{" + pool + ", " + uri + ", " + file + ", \"backup_set_size\": \"1000\"}]}", invalid},
      {"{\"rows\": [{" + pool + ", " + uri + ", " + file + ", \"backup_set_size\": 1.5}]}", invalid},
      {"{\"rows\": [{" + pool + ", " + uri + ", " + file + ", \"backup_set_size\": null}]}", invalid},
      {"{\"rows\": [{" + uri + ", " + file + ", " + size + "}]}", invalid},
      {"{\"rows\": [{\"pool_uuid\": 4, " + uri + ", " + file + ", " + size + "}]}", invalid},
      {"{\"rows\": [{" + pool + ", " + file + ", " + size + "}]}", invalid},
      {"{\"rows\": [{" + pool + ", \"uri\": [], " + file + ", " + size + "}]}", invalid},
      {"{\"rows\": [{" + pool + ", " + uri + ", " + size + "}]}", invalid},
      {"{\"rows\": [{" + pool + ", " + uri + ", \"backup_file\": false, " + size + "}]}", invalid},
      {"{\"rows\": []}", no_size},
      {"{\"rows\": [{" + pool + ", " + uri + ", " + file + ", \"backup_set_size\": 0}]}", no_size},
  };
  Catalog_Answers catalog;
  for (const Answer& answer : answers) {
    SCOPED_TRACE(answer.text);
    catalog->answer("catalog_sequences", answer.text);
    const Fake_Server server(bench.dir, "hang");
    Codes alerts;
    EXPECT_EQ(JOB_STATE_ERROR, bench.run(bench.restore_fields("incr-2"), &alerts));
    if (*answer.message)
      bench.log.expect(LM_ERROR, answer.message);
    EXPECT_EQ(answer.message == no_size ? Codes{18} : Codes{}, alerts);
    EXPECT_TRUE(server.running());
    EXPECT_EQ(0u, bench.begun() + bench.starts());
  }
  // What a restore needs is enough, and an unknown key does not matter.
  catalog->answer("catalog_sequences", "{\"rows\": [" + good.substr(0, good.size() - 1) +
                                           ", \"state\": [], \"seq\": -1}], \"problem\": 5}");
  bench.log.allow(LM_ERROR, "this is not the file that was backed up");
  EXPECT_EQ(JOB_STATE_ERROR, bench.run(bench.restore_fields("incr-2")));
  EXPECT_EQ(1u, bench.begun());
}

TEST(Physical_Restore_Periodic, takes_the_chain_of_the_newest_backup_of_its_source)
{
  Chain_Bench bench;
  Oscar_Brcmd_Backup_Set newer;
  newer.set_uuid("other-1");
  newer.set_backup_id("other-1");
  newer.set_type("full");
  newer.set_resource_uuid("another source");
  newer.set_start_time(bench.clock.now() + 1000000);
  ASSERT_TRUE(Catalog_Operator(-1, 0).commit(newer, true));
  kestrel::Job_Definition_Fields fields = bench.restore_fields("full-1");
  fields.periodic = true;
  EXPECT_EQ(JOB_STATE_COMPLETED, bench.run(fields));
  EXPECT_EQ("full-1 diff-1 incr-2", bench.restored());
  EXPECT_EQ("full-1", source_of(fields).catalog_id()) << "the job's document was changed";
}

TEST(Physical_Restore_Periodic, fails_on_every_wrong_shape_of_the_catalogs_answer)
{
  Chain_Bench bench;
  struct Answer {
    const char* text;
    bool reported;
  };
  const Answer answers[] = {
      {"null", false},
      {"[]", false},
      {"{}", false},
      {"{\"rows\": null}", false},
      {"{\"rows\": \"full-1\"}", false},
      {"{\"rows\": []}", false},
      {"{\"rows\": [null, {\"backup_id\": \"full-1\"}]}", false},
      {"{\"rows\": [\"full-1\"]}", false},
      {"{\"rows\": [{}]}", true},
      {"{\"rows\": [{\"backup_id\": null}]}", true},
      {"{\"rows\": [{\"backup_id\": 1}]}", true},
      {"{\"rows\": [{\"backup_id\": [\"full-1\"]}, {\"backup_id\": \"full-1\"}]}", true},
  };
  Catalog_Answers catalog;
  kestrel::Job_Definition_Fields fields = bench.restore_fields("full-1");
  fields.periodic = true;
  for (const Answer& answer : answers) {
    SCOPED_TRACE(answer.text);
    catalog->answer("catalogs", answer.text);
    const Fake_Server server(bench.dir, "hang");
    Codes alerts;
    EXPECT_EQ(JOB_STATE_ERROR, bench.run(fields, &alerts));
    EXPECT_EQ(Codes{2}, alerts);
    if (answer.reported)
      bench.log.expect(LM_ERROR, "Invalid catalog data: ");
    bench.log.expect_exactly(LM_ERROR, "Failed to get latest info from catalog\n");
    EXPECT_TRUE(server.running());
    EXPECT_EQ(0u, bench.begun() + bench.starts());
  }
  catalog->answer("catalogs", "{\"rows\": [{\"backup_id\": \"incr-1\"}, 5]}");
  EXPECT_EQ(JOB_STATE_COMPLETED, bench.run(fields));
  EXPECT_EQ("full-1 incr-1", bench.restored());
}

TEST(Physical_Restore_Server, that_cannot_be_ended_fails_the_job_before_any_data_moves)
{
  Chain_Bench bench;
  // Nobody reaps it: as far as signals tell, it stays.
  const pid_t pid = ::fork();
  if (pid == 0) {
    ::pause();
    ::_exit(0);
  }
  ASSERT_GT(pid, 0);
  bench.dir.write("home/admin/PHYS7.db", std::to_string(pid) + "\n");
  const int64_t begin = bench.clock.monotonic_msec();
  Codes alerts;
  EXPECT_EQ(JOB_STATE_ERROR, bench.run(bench.restore_fields("incr-2"), &alerts));
  EXPECT_GE(bench.clock.monotonic_msec() - begin, 20000);
  EXPECT_TRUE(alerts.empty());
  EXPECT_EQ(0u, bench.begun() + bench.starts());
  EXPECT_EQ(pid, ::waitpid(pid, nullptr, 0));
}

TEST(Physical_Restore_Server, is_the_process_that_the_pid_file_names_and_no_other)
{
  Chain_Bench bench;
  const struct {
    const char* after; // behind the number
    bool stopped;
  } cases[] = {{"\n", true}, {"", true}, {" oscar -d PHYS7\n", true}, {"x\n", true}, {"\n1\n", true}};
  for (const auto& one : cases) {
    const Fake_Server server(bench.dir, "hang");
    bench.dir.write("home/admin/PHYS7.db", std::to_string(server.pid()) + one.after);
    EXPECT_EQ(JOB_STATE_COMPLETED, bench.run(bench.restore_fields("full-1")));
    EXPECT_EQ(one.stopped, !server.running()) << one.after;
  }
  for (const char* const before : {" ", "-", "+", "pid=", "0x", "\n", "\xff"}) {
    const Fake_Server server(bench.dir, "hang");
    bench.dir.write("home/admin/PHYS7.db", before + std::to_string(server.pid()) + "\n");
    EXPECT_EQ(JOB_STATE_COMPLETED, bench.run(bench.restore_fields("full-1")));
    EXPECT_TRUE(server.running()) << before;
    bench.log.expect_exactly(LM_ERROR, "Failed to find pid.\n"); // when it is stopped
    bench.log.expect_exactly(LM_ERROR, "Failed to find pid.\n"); // when it is started again
  }
}
