#pragma once

#include "catalog/catalog_back_end.h"
#include "catalog/catalog_database.h"

#include <memory>
#include <mutex>

namespace kestrel
{
/// The catalog in a SQL database: a SQLite file of this host or a PostgreSQL server. Opens a connection for
/// each operation: an operation takes a millisecond more, and in exchange no connection is ever shared
/// between threads, inherited by a child, or left on a file that an operator has moved away.
///
/// A server that records the backups of many hosts has its catalog held open: one more connection to the
/// SQLite file, which no operation uses, lives as long as the object. Without it each operation is the last
/// one to leave the file and moves its log into it, so that a commit waits for the disk several times and not
/// once.
class Sql_Back_End : public Catalog_Back_End
{
public:
  explicit Sql_Back_End(const Catalog_Place& place, bool held_open = false);

  Catalog_Status get_view(const std::string& catalog, const std::string& view,
                          const std::map<std::string, json_spirit::Value>& query, json_spirit::Value& result,
                          std::string& error) override;
  Catalog_Status commit(const Backup_Record& record, bool must_be_new, std::string& warning,
                        std::string& error) override;
  Catalog_Status set_state(const std::string& uuid, Set_State state, const std::string& reason,
                           std::string& error) override;
  Catalog_Status remove(const std::string& uuid, std::string& error) override;
  Catalog_Status dependents(const std::string& uuid, std::vector<std::string>& uuids,
                            std::string& error) override;
  Catalog_Status count_by_pool(const std::string& pool_uuid, uint64_t& count, std::string& error) override;

private:
  template <class Work> Catalog_Status run(std::string& error, Work work);
  void hold();

  Catalog_Place place_;
  const bool held_open_;
  std::mutex held_lock_;
  std::unique_ptr<Catalog_Database> held_;
};

/// The catalog of this component: state_path("catalog.db"), unless the file catalog.json beside it names a
/// database of a PostgreSQL server: {"postgresql": "host=... dbname=..."}. A catalog.json that cannot be used
/// is an error and not a reason to fall back to the file, whose backups would be others.
Catalog_Place default_catalog_place();
} // namespace kestrel
