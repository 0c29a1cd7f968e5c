#include "console_fixture.h"

#include "cli/exit_code.h"

using namespace kestrel;
using namespace kestrel_test;

namespace
{
/// One full backup, of DB2 unless the test says otherwise.
class Served_Restore : public Console_Test
{
protected:
  Served_Restore()
  {
    server_->answer("POST /k2/r/catalogs/oscar/catalogs", 200, "{\"rows\":[]}");
    backup_of(db2_on_1);
  }

  void backup_of(const std::string& resource_uuid)
  {
    const std::string row =
        R"({"uuid":"full","type":"full","resource_uuid":")" + resource_uuid +
        R"(","uri":"folder","pool_uuid":")" + pool +
        R"(","backup_file":"full.bak","backup_set_size":100,"backup_set_storage_size":2048,)" +
        R"("start_time":1700000000,"state":["available"],"full_backup_id":"full","chain_length":1})";
    for (const char* kind : {"catalogs", "catalog_sequences"})
      server_->answer(std::string("POST /k2/r/catalogs/oscar_brcmd/") + kind, 200,
                      "{\"rows\":[" + row + "]}");
  }

  bool begun() const
  {
    for (const Fake_Server::Request& request : server_->requests())
      if (request.line.find("/k2/r/jobs") != std::string::npos && request.line.compare(0, 3, "GET") != 0)
        return true;
    return false;
  }
};
} // namespace

TEST_F(Served_Restore, is_refused_into_an_instance_that_the_backup_is_not_of)
{
  const Command_Outcome outcome = run({"restore", "full", "--instance", "DB1", "--host", "alpha", "--yes"});
  EXPECT_EQ(EXIT_CODE_USAGE, outcome.code);
  EXPECT_EQ("kestrel: backup full is one of DB2, not of DB1; nothing was changed\n", outcome.err);
  EXPECT_FALSE(begun());
}

TEST_F(Served_Restore, goes_into_the_instance_of_the_backup_named_or_not)
{
  server_->answer("POST /k2/r/jobs", 500, R"({"error":"stop here"})");
  for (const std::vector<std::string>& words :
       {std::vector<std::string>{"restore", "full", "--yes"},
        std::vector<std::string>{"restore", "full", "--instance", "db2", "--yes"}}) {
    const Command_Outcome outcome = run(words);
    EXPECT_NE(std::string::npos, outcome.err.find("Restore of DB2 to the state of ")) << outcome.err;
    EXPECT_TRUE(begun()) << outcome.err;
  }
}

TEST_F(Served_Restore, goes_where_it_is_told_when_the_instance_of_the_backup_is_not_known)
{
  backup_of("99999999-0000-4000-8000-000000000009");
  const Command_Outcome unknown = run({"restore", "full", "--yes"});
  EXPECT_EQ(EXIT_CODE_USAGE, unknown.code);
  EXPECT_NE(std::string::npos, unknown.err.find("say where to with --instance NAME --host HOST"))
      << unknown.err;
  EXPECT_FALSE(begun());
  const Command_Outcome told = run({"restore", "full", "--instance", "DB2", "--yes"});
  EXPECT_NE(std::string::npos, told.err.find("Restore of DB2 to the state of ")) << told.err;
  EXPECT_TRUE(begun()) << told.err;
}
