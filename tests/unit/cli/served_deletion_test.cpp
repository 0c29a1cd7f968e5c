#include "console_fixture.h"

#include "json/json_util.h"

using namespace kestrel;
using namespace kestrel_test;

namespace
{
bool holds(const std::string& text, const std::string& part)
{
  return text.find(part) != std::string::npos;
}

/// A chain of three backups of DB2, full, one and two.
class Served_Deletion : public Console_Test
{
protected:
  Served_Deletion()
  {
    answer_rows("oscar", {});
    server_->answer("POST /k2/r/catalogs/oscar_brcmd/catalogs", [](const Fake_Server::Request& request) {
      std::string wanted;
      optional(request.body.get_obj(), "uuid", wanted);
      std::string rows;
      for (const char* id : {"two", "one", "full"})
        if (wanted.empty() || wanted == id)
          rows += (rows.empty() ? "" : ",") + row(id);
      return std::make_pair(200, "{\"rows\":[" + rows + "]}");
    });
    dependents("full", R"("one","two")");
    dependents("one", R"("two")");
    dependents("two", "");
    for (const char* id : {"full", "one", "two"})
      server_->answer(erased(id), 200, "{}");
  }

  void answer_rows(const std::string& catalog, const std::string& rows)
  {
    server_->answer("POST /k2/r/catalogs/" + catalog + "/catalogs", 200, "{\"rows\":[" + rows + "]}");
  }
  void dependents(const std::string& id, const std::string& uuids)
  {
    server_->answer("GET /k2/r/catalogs/sets/" + id + "/dependents", 200, "{\"uuids\":[" + uuids + "]}");
  }
  static std::string erased(const std::string& id) { return "DELETE /k2/r/backups/" + id; }

  static std::string row(const std::string& id)
  {
    return R"({"uuid":")" + id + R"(","type":")" + (id == "full" ? "full" : "incr") +
           R"(","resource_uuid":")" + db2_on_1 + R"(","uri":"folder","pool_uuid":")" + pool +
           R"(","backup_file":")" + id +
           R"(.bak","backup_set_size":100,"backup_set_storage_size":2048,"start_time":1700000000,)" +
           R"("state":["available"],"full_backup_id":"full","chain_length":1})";
  }

  /// Ids in the order in which they were deleted.
  std::string deleted()
  {
    std::string ids;
    for (const Fake_Server::Request& request : server_->requests())
      if (request.line.compare(0, 20, "DELETE /k2/r/backups") == 0)
        ids += (ids.empty() ? "" : " ") + request.line.substr(21, request.line.find('?') - 21);
    return ids;
  }
};
} // namespace

TEST_F(Served_Deletion, names_what_builds_on_the_backup)
{
  const Command_Outcome outcome = run({"delete", "full", "--yes"});
  EXPECT_EQ(1, outcome.code);
  EXPECT_EQ("kestrel: backup full is needed to restore what builds on it (one, two); delete those with it: "
            "--dependents\n",
            outcome.err);
  EXPECT_EQ("", deleted());
}

TEST_F(Served_Deletion, goes_from_the_end_of_the_chain_to_its_beginning)
{
  const Command_Outcome outcome = run({"delete", "full", "--dependents", "--yes"});
  EXPECT_EQ(0, outcome.code) << outcome.err;
  EXPECT_EQ("two one full", deleted());
  EXPECT_TRUE(holds(outcome.err, "1. backup two of DB2 (incr, ")) << outcome.err;
  EXPECT_TRUE(holds(outcome.err, "3. backup full of DB2 (full, ")) << outcome.err;
  EXPECT_TRUE(holds(outcome.err, "No backup is left then that DB2 can be restored from.")) << outcome.err;
  EXPECT_EQ("Deleted: 3 backups, 6.0 KiB as stored.\n", outcome.out);
}

TEST_F(Served_Deletion, takes_what_is_named_in_any_order_without_the_option)
{
  EXPECT_EQ(0, run({"delete", "full", "two", "one", "--yes"}).code);
  EXPECT_EQ("two one full", deleted());
}

TEST_F(Served_Deletion, warns_of_an_incremental_backup_that_could_not_be_restored)
{
  const Command_Outcome outcome = run({"delete", "two", "--yes"});
  EXPECT_EQ(0, outcome.code) << outcome.err;
  EXPECT_TRUE(holds(outcome.err, "The next backup of DB2 must be a full or differential one")) << outcome.err;
  EXPECT_EQ("two", deleted());
}

TEST_F(Served_Deletion, asks_before_it_does_anything)
{
  const Command_Outcome outcome = run({"delete", "two"});
  EXPECT_EQ(2, outcome.code);
  EXPECT_TRUE(holds(outcome.err, "nobody is there to confirm the deletion; give --yes")) << outcome.err;
  EXPECT_EQ("", deleted());
}

TEST_F(Served_Deletion, says_how_far_it_came)
{
  server_->answer(erased("one"), 507, R"({"error":{"code":"storage","message":"the disk is read-only"}})");
  const Command_Outcome outcome = run({"delete", "full", "--dependents", "--yes"});
  EXPECT_EQ(1, outcome.code);
  EXPECT_TRUE(holds(outcome.err, "backup one was not deleted: ")) << outcome.err;
  EXPECT_TRUE(holds(outcome.err, "the disk is read-only")) << outcome.err;
  EXPECT_TRUE(holds(outcome.err, "of the 3 that were to go, 1 are deleted")) << outcome.err;
  EXPECT_EQ("two one", deleted());
}

TEST_F(Served_Deletion, is_told_as_json)
{
  const Command_Outcome outcome = run({"--json", "delete", "two", "--keep-file", "--yes"});
  ASSERT_EQ(0, outcome.code) << outcome.err;
  json_spirit::Value value;
  std::string error;
  ASSERT_TRUE(read_json(outcome.out, value, error)) << outcome.out;
  const auto list = required<json_spirit::Array>(value.get_obj(), "deleted");
  ASSERT_EQ(1u, list.size());
  const json_spirit::Object& one = list.front().get_obj();
  EXPECT_EQ("two", required<std::string>(one, "id"));
  EXPECT_EQ("main", required<std::string>(one, "pool"));
  EXPECT_EQ(2048u, required<uint64_t>(one, "stored_size"));
  EXPECT_TRUE(required<bool>(value.get_obj(), "files_kept"));
  EXPECT_EQ("", outcome.err);
}

TEST_F(Served_Deletion, means_exports_as_well)
{
  answer_rows(
      "oscar",
      R"({"uuid":"sales-1","resource_uuid":")" + std::string(db2_on_1) +
          R"(","minor_resource_id":"m","pool_uuid":")" + pool +
          R"(","backup_file":"sales.1","seq":1,"backup_set_storage_size":10,"start_time":1700000000,)" +
          R"("state":["available"],"backup_files":[],"tablespaces":[]})");
  server_->answer(erased("sales-1"), 200, "{}");
  const Command_Outcome outcome = run({"delete", "sales-1", "--yes"});
  EXPECT_EQ(0, outcome.code) << outcome.err;
  EXPECT_EQ("sales-1", deleted());
  EXPECT_TRUE(holds(outcome.err, "1. export sales-1 of DB2 (")) << outcome.err;
}
