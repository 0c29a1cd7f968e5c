#include "catalog_fixture.h"

#include "catalog/catalog_admin.h"
#include "support/fault_vfs.h"
#include "support/clocks.h"

#include <sqlite3.h>

using kestrel_test::Fault_Vfs;

class Catalog_Fault : public Catalog_Fixture
{
protected:
  static Oscar_Backup_Set big_set(const std::string& uuid)
  {
    Oscar_Backup_Set set = make_logical_set(uuid, 1);
    set.set_minor_resource_id(uuid); // every set has an archive of its own
    set.add_piece("p", 1);
    for (int i = 0; i < 40; ++i)
      set.add_file("DB" + std::to_string(i), "", "", "/d/" + std::to_string(i) + std::string(400, 'x'));
    return set;
  }
  /// All of the set or nothing.
  void expect_whole(const std::string& uuid, bool committed, const std::string& when)
  {
    const json_spirit::Array found = rows({{"uuid", uuid}, {"with_files", true}}, "oscar");
    EXPECT_TRUE(!committed || found.size() == 1) << when << ": what was reported as done must be there";
    if (found.size() == 1) {
      EXPECT_EQ(40u, json_spirit::find_value(found[0].get_obj(), "backup_files").get_array().size()) << when;
    }
  }
};

// A full disk at every write in turn, and a disk that fails at every sync in turn.
TEST_F(Catalog_Fault, a_commit_is_all_or_nothing_whatever_fails)
{
  log_.allow(LM_ERROR, catalog_path());
  ASSERT_TRUE(commit(make_set("b1")));
  const struct {
    const char* kind;
    int result;
  } faults[] = {{"write", SQLITE_FULL},         {"sync", SQLITE_IOERR_FSYNC},
                {"open", SQLITE_CANTOPEN},      {"read", SQLITE_IOERR_READ},
                {"shm", SQLITE_IOERR_SHMMAP},   {"truncate", SQLITE_IOERR_TRUNCATE},
                {"delete", SQLITE_IOERR_DELETE}};
  for (const auto& chosen : faults)
    for (const bool for_ever : {false, true}) {
      unsigned failures = 0;
      bool met = true;
      for (unsigned number = 1; met; ++number) {
        ASSERT_LT(number, 1000u);
        const std::string uuid = chosen.kind + std::to_string(number) + (for_ever ? "+" : "");
        bool committed;
        {
          Fault_Vfs vfs;
          vfs.fail(chosen.kind, number, chosen.result, for_ever);
          committed = commit(big_set(uuid));
          met = vfs.met();
        }
        failures += !committed;
        expect_whole(uuid, committed, uuid);
        EXPECT_TRUE(Catalog_Operator(-1, 0).commit(big_set(uuid), false)) << "the next run succeeds " << uuid;
        number += number / 6; // the later calls are many of the same
      }
      // A log that cannot be removed or shortened after the commit is taken up by the next connection.
      const bool harmless = std::string(chosen.kind) == "delete" || std::string(chosen.kind) == "truncate";
      EXPECT_TRUE(failures > 0 || harmless) << chosen.kind;
    }
  EXPECT_EQ("b1", ids({}));
}

TEST_F(Catalog_Fault, a_full_disk_is_said_to_be_full)
{
  ASSERT_TRUE(commit(make_set("b1")));
  Fault_Vfs vfs;
  vfs.fail("write", 1, SQLITE_FULL, true);
  EXPECT_FALSE(commit(make_set("b2")));
  log_.expect(LM_ERROR, "Catalog " + catalog_path() + ": ");
  EXPECT_EQ(1u, log_.count("The disk is full: free some space and repeat"));
}

TEST_F(Catalog_Fault, a_read_only_catalog_refuses_commits_and_says_so)
{
  ASSERT_TRUE(commit(make_set("b1")));
  Fault_Vfs vfs;
  vfs.read_only(true);
  EXPECT_FALSE(commit(make_set("b2")));
  log_.expect(LM_ERROR, "The file or its file system is read-only: make it writable for this user");
  std::string error;
  EXPECT_FALSE(kestrel::Catalog_Admin(0).remove("b1", error));
  EXPECT_NE(std::string::npos, error.find("read-only")) << error;
}

TEST_F(Catalog_Fault, a_failing_read_is_never_an_empty_answer)
{
  ASSERT_TRUE(commit(make_set("F")));
  ASSERT_TRUE(commit(make_set("I", "incr", "F", "F")));
  log_.allow(LM_ERROR, catalog_path());
  unsigned failures = 0;
  for (const char* view_name : {"catalogs", "catalog_sequences"}) {
    bool met = true;
    for (unsigned number = 1; met; ++number) {
      ASSERT_LT(number, 1000u);
      Fault_Vfs vfs;
      vfs.fail("read", number, SQLITE_IOERR_READ);
      json_spirit::Value result;
      if (view({{"backup_id", "I"}}, result, "oscar_brcmd", view_name))
        EXPECT_FALSE(json_spirit::find_value(result.get_obj(), "rows").get_array().empty())
            << view_name << number;
      else
        ++failures;
      met = vfs.met();
    }
  }
  EXPECT_GT(failures, 10u);
}

TEST_F(Catalog_Fault, only_locks_are_worth_waiting_for)
{
  ASSERT_TRUE(commit(make_set("b1")));
  kestrel_test::Fake_Clock clock;
  {
    Fault_Vfs vfs;
    vfs.fail("write", 1, SQLITE_FULL, true);
    EXPECT_FALSE(Catalog_Operator(-1, 60).commit(make_set("b2"), true));
    log_.expect(LM_ERROR, "The disk is full");
    EXPECT_EQ(0, clock.slept_msec());
  }
  Fault_Vfs vfs;
  vfs.fail("write", 1, SQLITE_BUSY);
  EXPECT_TRUE(Catalog_Operator(-1, 60).commit(make_set("b2"), true));
  EXPECT_EQ(100, clock.slept_msec());
}

TEST_F(Catalog_Fault, the_next_run_succeeds_after_a_failed_creation)
{
  log_.allow(LM_ERROR, catalog_path());
  for (const char* kind : {"write", "sync", "shm", "open"}) {
    bool met = true;
    for (unsigned number = 1; met; ++number) {
      ASSERT_LT(number, 1000u);
      ::remove(catalog_path().c_str());
      bool committed;
      {
        Fault_Vfs vfs;
        vfs.fail(kind, number, SQLITE_IOERR, true);
        committed = commit(make_set("b1"));
        met = vfs.met();
      }
      EXPECT_TRUE(Catalog_Operator(-1, 0).commit(make_set("b1"), false)) << kind << number << committed;
      EXPECT_EQ("b1", ids({})) << kind << number;
      number += number / 4;
    }
  }
}
