#include "served_storage.h"

#include "catalog/backup_set.h"
#include "server/recent_reads.h"
#include "support/scoped_env.h"
#include "support/unmounted.h"
#include "json/json_util.h"

#include <cerrno>
#include <functional>
#include <unistd.h>

using namespace kestrel;
using namespace kestrel_test;
using json_spirit::Array;
using json_spirit::Object;
using json_spirit::Value;

namespace
{
/// A catalog at which a backup arrives at the moment of the first mark.
class Interrupted_Catalog : public Present_Catalog
{
public:
  std::function<void()> before_mark;
  bool remove_fails = false;

  Catalog_Status set_state(const std::string& uuid, Set_State state, const std::string& reason,
                           std::string& error) override
  {
    if (const auto work = std::move(before_mark)) {
      before_mark = nullptr;
      work();
    }
    return Present_Catalog::set_state(uuid, state, reason, error);
  }
  Catalog_Status remove(const std::string& uuid, std::string& error) override
  {
    if (remove_fails) {
      error = "the catalog's disk is full";
      return Catalog_Status::failed;
    }
    return Present_Catalog::remove(uuid, error);
  }
};

class Served_Deletion : public Served_Storage
{
protected:
  void record(const Backup_Set& set)
  {
    std::string warning, error;
    ASSERT_EQ(Catalog_Status::done, place_.catalog().commit(set.record(), true, warning, error)) << error;
  }

  Oscar_Brcmd_Backup_Set set_of(const std::string& id, const std::string& type, const std::string& last,
                                const std::string& full)
  {
    Oscar_Brcmd_Backup_Set set;
    set.set_uuid(id);
    set.set_backup_id(id);
    set.set_resource_uuid("source");
    set.set_uri("source");
    set.set_host_uuid("host-1");
    set.set_type(type);
    set.set_last_backup_id(last);
    set.set_last_full_backup_id(full);
    set.set_full_backup_id(full.empty() ? id : full);
    set.set_backup_file(id + ".bak");
    set.set_start_time(1000);
    set.add_storage(Backup_Set_Storage(pool_.pool_id, 3));
    set.add_piece(id + ".bak", 3);
    return set;
  }

  /// Stored and recorded.
  void back_up(const std::string& id, const std::string& type = "full", const std::string& last = "",
               const std::string& full = "")
  {
    ASSERT_TRUE(store(id + ".bak", "abc")) << error_;
    record(set_of(id, type, last, full));
  }

  void back_up_chain()
  {
    back_up("full");
    back_up("one", "incr", "full", "full");
    back_up("two", "incr", "one", "full");
  }

  int erase(const std::string& id, const std::string& who = "admin", const std::string& query = "")
  {
    return ask("DELETE", "backups/" + id + query, "", who);
  }
  std::string code() { return text_at("code"); }
  std::string message() { return text_at("message"); }
  std::string text_at(const char* key)
  {
    return required<std::string>(required<Object>(reply_.json.get_obj(), "error"), key);
  }

  bool has_file(const std::string& id) { return exists(path(id + ".bak")) || exists(path(id + ".bak.meta")); }
  Array rows(const std::string& id, const char* catalog = "oscar_brcmd")
  {
    Value result;
    std::string error;
    EXPECT_EQ(Catalog_Status::done,
              place_.catalog().get_view(catalog, "catalogs", {{"uuid", id}}, result, error))
        << error;
    return required<Array>(result.get_obj(), "rows");
  }
  bool has_record(const std::string& id) { return !rows(id).empty(); }
  bool is_available(const std::string& id)
  {
    return !required<Array>(rows(id).front().get_obj(), "state").empty();
  }
  std::string reason(const std::string& id)
  {
    std::string text;
    optional(rows(id).front().get_obj(), "state_reason", text);
    return text;
  }
};

TEST_F(Served_Deletion, takes_the_record_and_the_file)
{
  back_up("full");
  ASSERT_EQ(200, erase("full"));
  EXPECT_FALSE(has_file("full"));
  EXPECT_FALSE(has_record("full"));
  const Object& reply = reply_.json.get_obj();
  EXPECT_EQ("oscar_brcmd", required<std::string>(reply, "catalog"));
  EXPECT_EQ("main", required<std::string>(reply, "pool"));
  EXPECT_EQ("full.bak", required<std::string>(reply, "file"));
  EXPECT_EQ(3u, required<uint64_t>(reply, "size"));
  EXPECT_EQ("backup set of oscar_brcmd, with its file: main: source/full.bak", reply_.audit);
  EXPECT_EQ(404, erase("full"));
  EXPECT_EQ("not_found", code());
}

TEST_F(Served_Deletion, is_for_administrators)
{
  back_up("full");
  EXPECT_EQ(403, erase("full", "operator"));
  EXPECT_EQ(403, erase("full", "viewer"));
  EXPECT_EQ(403, erase("full", "host-1"));
  EXPECT_EQ(401, erase("full", ""));
  EXPECT_TRUE(has_file("full"));
  EXPECT_TRUE(is_available("full"));
}

TEST_F(Served_Deletion, refuses_what_others_build_on)
{
  back_up_chain();
  for (const char* id : {"full", "one"}) {
    ASSERT_EQ(409, erase(id));
    EXPECT_EQ("needed", code());
    EXPECT_NE(std::string::npos, message().find("two")) << message();
    EXPECT_TRUE(is_available(id));
    EXPECT_TRUE(has_file(id));
  }
  for (const char* id : {"two", "one", "full"})
    EXPECT_EQ(200, erase(id)) << id;
  EXPECT_FALSE(has_file("full"));
}

TEST_F(Served_Deletion, takes_exports_as_well)
{
  ASSERT_TRUE(store("sales.1", "abc")) << error_;
  Oscar_Backup_Set set;
  set.set_uuid("export-1");
  set.set_definition_uuid("definition-1");
  set.set_resource_uuid("resource-1");
  set.set_minor_resource_id("source");
  set.set_seq(1);
  set.set_start_time(1000);
  set.add_storage(Backup_Set_Storage(pool_.pool_id, 3));
  set.add_piece("sales.1", 3);
  record(set);
  ASSERT_EQ(1u, rows("export-1", "oscar").size());
  ASSERT_EQ(200, erase("export-1")) << message();
  EXPECT_EQ("oscar", required<std::string>(reply_.json.get_obj(), "catalog"));
  EXPECT_FALSE(exists(path("sales.1")));
  EXPECT_EQ(0u, rows("export-1", "oscar").size());
}

TEST_F(Served_Deletion, keeps_the_file_on_demand)
{
  back_up("full");
  ASSERT_EQ(200, erase("full", "admin", "?keep_file=1"));
  EXPECT_FALSE(has_record("full"));
  EXPECT_TRUE(has_file("full"));
  EXPECT_EQ("backup set of oscar_brcmd, its file kept: source/full.bak", reply_.audit);
}

TEST_F(Served_Deletion, is_not_begun_when_the_pool_is_away)
{
  back_up("full");
  std::string error;
  ASSERT_TRUE(place_.pools().remove("main", error)) << error;
  ASSERT_EQ(409, erase("full"));
  EXPECT_EQ("pool", code());
  EXPECT_TRUE(is_available("full"));
  EXPECT_TRUE(has_file("full"));
  EXPECT_EQ(200, erase("full", "admin", "?keep_file=1"));
}

TEST_F(Served_Deletion, that_failed_at_the_file_is_seen_and_can_be_repeated)
{
  back_up("full");
  {
    Fault_File_System faults;
    faults.fail("unlink", 1, EACCES);
    ASSERT_EQ(507, erase("full"));
    EXPECT_NE(std::string::npos, message().find("delete the backup again")) << message();
  }
  ASSERT_TRUE(has_record("full"));
  EXPECT_FALSE(is_available("full"));
  EXPECT_NE(std::string::npos, reason("full").find("deletion has begun")) << reason("full");
  EXPECT_EQ(200, erase("full"));
  EXPECT_FALSE(has_file("full"));
  EXPECT_FALSE(has_record("full"));
}

TEST_F(Served_Deletion, that_has_begun_is_taken_back_by_nobody)
{
  back_up("full");
  {
    Fault_File_System faults;
    faults.fail("unlink", 1, EACCES);
    ASSERT_EQ(507, erase("full"));
  }
  const std::string marked = reason("full");
  for (const char* state : {"available", "unavailable"})
    for (const char* who : {"operator", "admin"}) {
      EXPECT_EQ(409, ask("POST", "catalogs/sets/full/state",
                         std::string(R"({"state":")") + state + R"(","reason":"verified"})", who));
      EXPECT_EQ("deleting", code());
      EXPECT_NE(std::string::npos, message().find("delete it again")) << message();
    }
  for (const char* state : {"deleting", "spared"})
    EXPECT_EQ(400, ask("POST", "catalogs/sets/full/state", std::string(R"({"state":")") + state + "\"}", "admin"));
  EXPECT_FALSE(is_available("full"));
  EXPECT_EQ(marked, reason("full"));
  // A deletion that is refused meanwhile leaves the mark: the file may be half gone.
  record(set_of("next", "incr", "full", "full"));
  EXPECT_EQ(409, erase("full"));
  EXPECT_FALSE(is_available("full"));
  EXPECT_EQ(200, erase("next", "admin", "?keep_file=1"));
  EXPECT_EQ(200, erase("full"));
  EXPECT_FALSE(has_record("full"));
}

TEST_F(Served_Deletion, finishes_whatever_call_to_the_disk_failed_before)
{
  for (const char* kind : {"unlink", "fsync_directory"})
    for (unsigned number = 1;; ++number) {
      back_up("full");
      bool met = false;
      {
        Fault_File_System faults;
        faults.fail(kind, number, EIO);
        const int status = erase("full");
        met = faults.met();
        EXPECT_EQ(met ? 507 : 200, status) << kind << number;
      }
      if (!met)
        break;
      // The record outlives the file, so that nothing lies in the pool of which nobody knows.
      EXPECT_TRUE(has_record("full")) << kind << number;
      EXPECT_FALSE(is_available("full")) << kind << number;
      ASSERT_EQ(200, erase("full")) << kind << number << message();
      ASSERT_FALSE(has_file("full"));
    }
}

TEST_F(Served_Deletion, of_a_file_that_is_gone_already_succeeds)
{
  back_up("full");
  std::string error;
  ASSERT_EQ(0, ::unlink(path("full.bak").c_str()));
  EXPECT_EQ(200, erase("full"));
  EXPECT_FALSE(has_file("full"));
}

TEST_F(Served_Deletion, does_not_reach_the_file_of_another_record)
{
  back_up("full");
  Oscar_Brcmd_Backup_Set other = set_of("other", "full", "", "");
  other.set_backup_file("full.bak");
  record(other);
  ASSERT_EQ(409, erase("other"));
  EXPECT_EQ("shared", code());
  EXPECT_TRUE(has_file("full"));
  EXPECT_EQ(200, erase("other", "admin", "?keep_file=1"));
  EXPECT_TRUE(has_file("full"));
  EXPECT_EQ(200, erase("full"));
}

TEST_F(Served_Deletion, stays_inside_the_pool)
{
  const std::string outside = place_.dir / "outside";
  place_.dir.write("outside", "mine");
  for (const auto& [folder, name] : {std::pair<std::string, std::string>{"..", "outside"},
                                     {"source", "../../outside"},
                                     {"/", "outside"},
                                     {"", "outside"}}) {
    Oscar_Brcmd_Backup_Set bad = set_of("bad", "full", "", "");
    bad.set_uri(folder);
    bad.set_backup_file(name);
    record(bad);
    EXPECT_EQ(507, erase("bad")) << folder << " " << name;
    EXPECT_TRUE(exists(outside));
    EXPECT_TRUE(is_available("bad"));
    ASSERT_EQ(200, erase("bad", "admin", "?keep_file=1"));
  }
}

TEST_F(Served_Deletion, does_not_begin_in_a_pool_that_is_not_mounted)
{
  back_up("full");
  {
    const Unmounted unmounted(pool_.storage_path);
    ASSERT_EQ(507, erase("full"));
    EXPECT_NE(std::string::npos, message().find("mount the pool's file system")) << message();
    EXPECT_TRUE(is_available("full"));
    EXPECT_EQ("", reason("full"));
  }
  EXPECT_TRUE(has_file("full"));
  EXPECT_EQ(200, erase("full"));
  EXPECT_FALSE(has_file("full"));
}

TEST_F(Served_Deletion, waits_for_a_restore_of_the_chain)
{
  back_up_chain();
  clock_.sleep_msec((Recent_Reads::PATIENCE_SECONDS + 1) * 1000);
  ASSERT_EQ("abc", fetch("full.bak")) << error_;
  ASSERT_EQ(409, erase("two"));
  EXPECT_EQ("in_use", code());
  EXPECT_TRUE(is_available("two"));
  clock_.sleep_msec((Recent_Reads::PATIENCE_SECONDS + 1) * 1000);
  EXPECT_EQ(200, erase("two"));
}

/// With a catalog that something happens to.
class Interrupted_Deletion : public testing::Test
{
protected:
  void SetUp() override { ASSERT_TRUE(pools_.add("main", dir_.make_dir("pool"), pool_, error_)) << error_; }

  Log_Capture log_;
  Fake_Clock clock_;
  Temp_Dir dir_;
  const Scoped_Env root_{"KESTREL_ROOT", dir_.path()};
  const std::shared_ptr<Interrupted_Catalog> catalog_ = std::make_shared<Interrupted_Catalog>();
  Pool_Registry pools_{dir_ / "pools.json"};
  Pool_Info pool_;
  std::string error_, warning_;
};

TEST_F(Interrupted_Deletion, gives_back_the_state_that_it_found_and_none_that_it_does_not_know)
{
  const auto commit = [&](const std::string& id, const std::string& last) {
    Oscar_Brcmd_Backup_Set set;
    set.set_uuid(id);
    set.set_backup_id(id);
    set.set_resource_uuid("source");
    set.set_uri("source");
    set.set_type(last.empty() ? "full" : "incr");
    set.set_last_backup_id(last);
    set.set_last_full_backup_id(last);
    set.set_backup_file(id + ".bak");
    set.add_storage(Backup_Set_Storage(pool_.pool_id, 3));
    ASSERT_EQ(Catalog_Status::done, catalog_->commit(set.record(), true, warning_, error_)) << error_;
  };
  const auto state = [&](const std::string& id) {
    Value result;
    EXPECT_EQ(Catalog_Status::done, catalog_->get_view("oscar_brcmd", "catalogs", {{"uuid", id}}, result, error_));
    const Object row = required<Array>(result.get_obj(), "rows").front().get_obj();
    std::string text;
    optional(row, "state_reason", text);
    return (required<Array>(row, "state").empty() ? "no:" : "yes:") + text;
  };
  unsigned number = 0;
  for (const std::string former : {"yes:", "no:damaged", "no:"}) {
    const std::string id = "full" + std::to_string(++number);
    commit(id, "");
    if (former != "yes:") {
      ASSERT_EQ(Catalog_Status::done,
                catalog_->set_state(id, Set_State::unavailable, former.substr(3), error_));
    }
    catalog_->before_mark = [&] { commit("next" + id, id); };
    Backup_Deletion deletion(catalog_, pools_, 0);
    Deleted_Backup deleted;
    Deletion_Problem problem;
    EXPECT_FALSE(deletion.run(id, false, deleted, problem));
    EXPECT_EQ(Deletion_Problem::needed, problem.kind) << problem.text;
    EXPECT_EQ(former == "no:" ? "no:it was unavailable before" : former, state(id));
    // What was spared is as any other.
    EXPECT_EQ(Catalog_Status::done, catalog_->set_state(id, Set_State::available, "", error_)) << error_;
    EXPECT_EQ(Catalog_Status::done, catalog_->set_state(id, Set_State::spared, "no deletion has begun", error_));
    EXPECT_EQ("yes:", state(id));
  }
  // One that an earlier deletion had marked keeps its mark.
  commit("marked", "");
  ASSERT_EQ(Catalog_Status::done, catalog_->set_state("marked", Set_State::deleting, "begun", error_));
  catalog_->before_mark = [&] { commit("child", "marked"); };
  Backup_Deletion deletion(catalog_, pools_, 0);
  Deleted_Backup deleted;
  Deletion_Problem problem;
  EXPECT_FALSE(deletion.run("marked", false, deleted, problem));
  EXPECT_EQ(Catalog_Status::failed, catalog_->set_state("marked", Set_State::available, "", error_));
  EXPECT_NE(std::string::npos, error_.find("The deletion of backup set 'marked' has begun")) << error_;
  EXPECT_EQ("no:its deletion has begun; delete it again to finish that", state("marked"));
}

TEST_F(Interrupted_Deletion, gives_way_to_a_backup_that_builds_on_it_meanwhile)
{
  Oscar_Brcmd_Backup_Set full;
  full.set_uuid("full");
  full.set_backup_id("full");
  full.set_resource_uuid("source");
  full.set_uri("source");
  full.set_type("full");
  full.set_full_backup_id("full");
  full.set_backup_file("full.bak");
  full.add_storage(Backup_Set_Storage(pool_.pool_id, 3));
  ASSERT_EQ(Catalog_Status::done, catalog_->commit(full.record(), true, warning_, error_)) << error_;
  catalog_->before_mark = [&] {
    Oscar_Brcmd_Backup_Set next = full;
    next.set_uuid("next");
    next.set_backup_id("next");
    next.set_type("incr");
    next.set_last_backup_id("full");
    next.set_last_full_backup_id("full");
    next.set_backup_file("next.bak");
    ASSERT_EQ(Catalog_Status::done, catalog_->commit(next.record(), true, warning_, error_)) << error_;
  };
  Backup_Deletion deletion(catalog_, pools_, 0);
  Deleted_Backup deleted;
  Deletion_Problem problem;
  EXPECT_FALSE(deletion.run("full", false, deleted, problem));
  EXPECT_EQ(Deletion_Problem::needed, problem.kind) << problem.text;
  Value result;
  ASSERT_EQ(Catalog_Status::done,
            catalog_->get_view("oscar_brcmd", "catalog_sequences",
                              {{"backup_id", "next"}, {"resource_uuid", "source"}}, result, error_))
      << error_;
  EXPECT_EQ(2u, required<Array>(result.get_obj(), "rows").size()) << "the new backup cannot be restored";

  // And one whose record could not go any more is seen as what it is.
  catalog_->remove_fails = true;
  EXPECT_FALSE(deletion.run("next", false, deleted, problem));
  EXPECT_EQ(Deletion_Problem::catalog, problem.kind);
  catalog_->remove_fails = false;
  ASSERT_TRUE(deletion.run("next", false, deleted, problem)) << problem.text;
  EXPECT_EQ("next.bak", deleted.file);
  EXPECT_TRUE(deletion.run("full", false, deleted, problem)) << problem.text;
}
} // namespace
