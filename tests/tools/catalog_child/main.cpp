// One of several processes that use a catalog and a registry at the same time. The tree is named by
// KESTREL_ROOT.
//   commit NAME COUNT    commits NAME-0, NAME-1, ... and writes each id to NAME.done once it is reported
//   read COUNT           looks until it sees that many sets; what was seen once must stay
//   hold                 changes a row in a transaction, makes the file "holding", and never ends
//   migrate              takes the catalog to a schema of a release to come
//   register NAME COUNT  registers instances NAME0, NAME1, ... and an account of each
// The exit status is 0 when everything was as it must be; the reason for another is on stderr.
#include "catalog/catalog_operator.h"
#include "catalog/catalog_schema.h"
#include "catalog/sql_back_end.h"
#include "instances/instance_manager.h"
#include "instances/instance_registry.h"

#include <cstdio>
#include <cstdlib>
#include <exception>
#include <fstream>
#include <memory>
#include <stdexcept>
#include <string>
#include <unistd.h>

namespace
{
void must(bool holds, const std::string& what)
{
  if (!holds)
    throw std::runtime_error(what);
}

std::string file(const std::string& name)
{
  return std::string(::getenv("KESTREL_ROOT")) + "/" + name;
}

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

void commit(const std::string& name, int count)
{
  for (int i = 0; i < count; ++i) {
    const std::string id = name + "-" + std::to_string(i);
    must(Catalog_Operator(-1, 120).commit(make_set(id), true), "cannot commit " + id);
    std::ofstream(file(name + ".done"), std::ios::app) << id << std::endl;
  }
}

void read(size_t count)
{
  for (size_t before = 0; before < count;) {
    json_spirit::Value result;
    must(Catalog_Operator(-1, 60).get_view("oscar_brcmd", "catalogs", {}, result), "cannot read");
    const size_t now = json_spirit::find_value(result.get_obj(), "rows").get_array().size();
    must(now >= before, "a set that was seen has gone");
    before = now;
  }
}

void hold()
{
  kestrel::Catalog_Database database(kestrel::default_catalog_place());
  kestrel::Catalog_Transaction transaction(database.session(), kestrel::Catalog_Transaction::Kind::write);
  database.session() << "UPDATE backup_set SET name = 'half done'";
  std::ofstream(file("holding")) << "yes" << std::endl;
  for (;;)
    ::pause();
}

void migrate()
{
  kestrel::Catalog_Migrations migrations = kestrel::catalog_migrations();
  migrations.push_back({"ALTER TABLE backup_set ADD COLUMN note TEXT", "UPDATE backup_set SET note = 'old'"});
  kestrel::Catalog_Place place = kestrel::default_catalog_place();
  place.migrations = &migrations;
  place.busy_timeout_msec = 60000;
  kestrel::Catalog_Database database(place);
  int version = 0;
  database.session() << "SELECT version FROM schema_version", soci::into(version);
  must(version == static_cast<int>(migrations.size()), "schema version " + std::to_string(version));
}

void register_all(const std::string& name, int count)
{
  kestrel::Instance_Registry registry("host");
  std::string error;
  for (int i = 0; i < count; ++i) {
    const auto instance = std::make_shared<Instance>();
    instance->type = "oscar";
    instance->name = name + std::to_string(i);
    instance->options["oscar_home"] = "/opt/oscar";
    must(registry.merge_probe({{instance->name, instance}}, error) == 0, error);
    must(registry.set_account("oscar", instance->name, "", "SYS", "secret", error) == 0, error);
    std::string user;
    secure_string password;
    must(Instance_Manager::instance()->get_account("oscar", instance->name, "", user, password, nullptr) == 0,
         "no account of " + instance->name);
    must(password == "secret", "a wrong password of " + instance->name);
  }
}

void play(const std::string& part, const std::string& first, const std::string& second)
{
  if (part == "commit")
    commit(first, std::stoi(second));
  else if (part == "read")
    read(std::stoul(first));
  else if (part == "hold")
    hold();
  else if (part == "migrate")
    migrate();
  else if (part == "register")
    register_all(first, std::stoi(second));
  else
    throw std::runtime_error("unknown part " + part);
}
} // namespace

int main(int argc, char** argv)
{
  try {
    play(argc > 1 ? argv[1] : "", argc > 2 ? argv[2] : "", argc > 3 ? argv[3] : "");
    return 0;
  } catch (const std::exception& error) {
    std::fprintf(stderr, "catalog_child: %s\n", error.what());
    return 1;
  }
}
