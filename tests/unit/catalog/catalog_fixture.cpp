#include "catalog_fixture.h"

#include "catalog/catalog_commit.h"
#include "catalog/sql_back_end.h"

#include <cstdlib>
#include <unistd.h>

Server_Schema::Server_Schema(const kestrel_test::Temp_Dir& root)
{
  const char* const server = ::getenv("KESTREL_TEST_POSTGRESQL");
  if (!server)
    return;
  static int number = 0;
  server_ = server;
  name_ = "kestrel_test_" + std::to_string(::getpid()) + "_" + std::to_string(++number);
  soci::session session("postgresql", server_);
  session << "CREATE SCHEMA " << name_;
  root.write("var/opt/tarnvik/kestrel3/agent/catalog.json",
             "{\"postgresql\": \"" + server_ + " options='-c search_path=" + name_ + "'\"}");
}

Server_Schema::~Server_Schema()
{
  if (server_.empty())
    return;
  try {
    soci::session session("postgresql", server_);
    session << "SET client_min_messages = error";
    session << "DROP SCHEMA " << name_ << " CASCADE";
  } catch (const std::exception& error) {
    ADD_FAILURE() << error.what();
  }
}

Oscar_Brcmd_Backup_Set Catalog_Fixture::make_set(const std::string& id, const std::string& type,
                                                 const std::string& last, const std::string& full,
                                                 time_t start_time)
{
  Oscar_Brcmd_Backup_Set set;
  set.set_uid("uid-1");
  set.set_definition_uuid("definition-1");
  set.set_name("nightly");
  set.set_agent("agent-1");
  set.set_host_uuid("host-1");
  set.set_resource_uuid("resource-1");
  set.set_uri("resource-1");
  set.set_type(type);
  set.set_uuid(id);
  set.set_backup_id(id);
  set.set_backup_lsn(100);
  set.set_backup_scn(200);
  set.set_last_backup_id(last.empty() ? id : last);
  set.set_last_full_backup_id(full.empty() ? id : full);
  set.set_full_backup_id(full.empty() ? id : full);
  set.set_backup_file(id + ".bak");
  set.set_backup_set_size(4096);
  set.set_total_size(4096);
  set.set_catalog_type("oscar_brcmd_backup_set");
  set.set_start_time(start_time);
  set.set_end_time(start_time + 60);
  set.add_storage(Backup_Set_Storage("pool-1", 1024));
  set.add_piece(id + ".bak", 0);
  return set;
}

Oscar_Backup_Set Catalog_Fixture::make_logical_set(const std::string& uuid, uint64_t seq, time_t start_time)
{
  Oscar_Backup_Set set;
  set.set_uuid(uuid);
  set.set_seq(seq);
  set.set_definition_uuid("definition-2");
  set.set_resource_uuid("resource-2");
  set.set_catalog_type("oscar_backup_set");
  set.set_type("export");
  set.set_start_time(start_time);
  set.add_storage(Backup_Set_Storage("pool-2", 77));
  return set;
}

json_spirit::Array Catalog_Fixture::rows(const Query& query, const char* catalog, const char* view_name)
{
  json_spirit::Value result;
  if (!view(query, result, catalog, view_name)) {
    ADD_FAILURE() << "the view " << view_name << " of " << catalog << " failed";
    return json_spirit::Array();
  }
  return json_spirit::find_value(result.get_obj(), "rows").get_array();
}

std::string Catalog_Fixture::texts(const json_spirit::Array& rows, const char* field)
{
  std::string joined;
  for (const json_spirit::Value& row : rows)
    joined += (joined.empty() ? "" : " ") + json_spirit::find_value(row.get_obj(), field).get_str();
  return joined;
}

void Catalog_Fixture::commit_many(const std::vector<Oscar_Brcmd_Backup_Set>& sets)
{
  kestrel::Catalog_Database database(kestrel::default_catalog_place());
  kestrel::Catalog_Transaction transaction(database.session(), kestrel::Catalog_Transaction::Kind::write);
  for (const Oscar_Brcmd_Backup_Set& set : sets) {
    const kestrel::Backup_Record record = set.record();
    EXPECT_FALSE(kestrel::Commit_Row(record).insert(database.session()));
  }
  transaction.commit();
}
