#include "catalog/catalog_schema.h"

namespace kestrel
{
namespace
{
// Commit order is the order of id. The first storage and the first piece are repeated in pool_uuid,
// backup_set_storage_size and backup_file, so that a page of rows is read from one table in index order.
// predecessor_id is the backup_id of the set that must be restored before this one, null for a full backup.
// The ids come from the tools of many hosts, which only know their own: they are unique for one resource.
const std::vector<std::string> version_1 = {
    "CREATE TABLE backup_set ("
    " id {id},"
    " catalog TEXT NOT NULL,"
    " uuid TEXT NOT NULL,"
    " catalog_type TEXT, type TEXT, seq BIGINT, uid TEXT, definition_uuid TEXT, name TEXT, agent TEXT,"
    " host_uuid TEXT, resource_uuid TEXT NOT NULL DEFAULT '', minor_resource_id TEXT, uri TEXT, backup_file "
    "TEXT, pool_uuid TEXT,"
    " backup_set_size BIGINT, backup_set_storage_size BIGINT, total_size BIGINT,"
    " start_time BIGINT, end_time BIGINT,"
    " backup_id TEXT, backup_lsn BIGINT, backup_scn BIGINT,"
    " last_backup_id TEXT, last_backup_lsn BIGINT, last_backup_scn BIGINT,"
    " last_full_backup_id TEXT, last_full_backup_lsn BIGINT, last_full_backup_scn BIGINT,"
    " full_backup_id TEXT, predecessor_id TEXT, predecessor_missing BIGINT NOT NULL DEFAULT 0,"
    " compression TEXT, pump_size BIGINT, pump_checksum TEXT, original_checksum TEXT, storage_checksum TEXT,"
    " dbinstance TEXT, tablespaces TEXT,"
    " state TEXT NOT NULL DEFAULT 'available', state_reason TEXT NOT NULL DEFAULT '')",

    "CREATE TABLE backup_set_storage ("
    " set_id BIGINT NOT NULL REFERENCES backup_set (id) ON DELETE CASCADE,"
    " position BIGINT NOT NULL, pool_uuid TEXT NOT NULL, size BIGINT NOT NULL, PRIMARY KEY (set_id, "
    "position))",

    "CREATE TABLE backup_set_piece ("
    " set_id BIGINT NOT NULL REFERENCES backup_set (id) ON DELETE CASCADE,"
    " position BIGINT NOT NULL, name TEXT NOT NULL, size BIGINT NOT NULL, PRIMARY KEY (set_id, position))",

    "CREATE TABLE backup_set_file ("
    " set_id BIGINT NOT NULL REFERENCES backup_set (id) ON DELETE CASCADE,"
    " position BIGINT NOT NULL, database_name TEXT NOT NULL, schema_name TEXT NOT NULL, table_name TEXT NOT "
    "NULL,"
    " file_name TEXT NOT NULL, grade TEXT NOT NULL, PRIMARY KEY (set_id, position))",

    "CREATE UNIQUE INDEX backup_set_by_uuid ON backup_set (uuid, catalog, resource_uuid)",
    "CREATE INDEX backup_set_by_time ON backup_set (catalog, start_time, id)",
    "CREATE INDEX backup_set_by_resource ON backup_set (catalog, resource_uuid, start_time, id)",
    "CREATE INDEX backup_set_by_definition ON backup_set (catalog, definition_uuid, start_time, id)",
    "CREATE INDEX backup_set_by_pool ON backup_set (catalog, pool_uuid, start_time, id)",
    "CREATE UNIQUE INDEX backup_set_by_backup_id ON backup_set (catalog, backup_id, resource_uuid)",
    "CREATE INDEX backup_set_by_predecessor ON backup_set (catalog, predecessor_id, resource_uuid)",
    "CREATE INDEX backup_set_by_seq ON backup_set (catalog, definition_uuid, (seq < 0), seq, id)",
    "CREATE INDEX backup_set_storage_by_pool ON backup_set_storage (pool_uuid, set_id)",
    "CREATE INDEX backup_set_file_by_name ON backup_set_file (set_id, database_name, grade)",
};

// An archive belongs to one set. Physical sets have no number, and null is never equal.
const std::vector<std::string> version_2 = {
    "ALTER TABLE backup_set_file ADD COLUMN size BIGINT NOT NULL DEFAULT 0",
    "ALTER TABLE backup_set_file ADD COLUMN checksum TEXT NOT NULL DEFAULT ''",
    "CREATE UNIQUE INDEX backup_set_by_archive ON backup_set (minor_resource_id, seq, pool_uuid)"
    " WHERE seq <> 0",
};
} // namespace

const Catalog_Migrations& catalog_migrations()
{
  static const Catalog_Migrations migrations = {version_1, version_2};
  return migrations;
}

// Of a large catalog: 100,000 sets of 100 databases in 5 pools.
const std::vector<Index_Statistics>& catalog_index_statistics()
{
  static const std::vector<Index_Statistics> statistics = {
      {"backup_set", "backup_set_by_uuid", "100000 1 1 1"},
      {"backup_set", "backup_set_by_time", "100000 100000 2 1"},
      {"backup_set", "backup_set_by_resource", "100000 100000 1000 1 1"},
      {"backup_set", "backup_set_by_definition", "100000 100000 1000 1 1"},
      {"backup_set", "backup_set_by_pool", "100000 100000 20000 2 1"},
      {"backup_set", "backup_set_by_backup_id", "100000 100000 1 1"},
      {"backup_set", "backup_set_by_predecessor", "100000 100000 2 2"},
      {"backup_set", "backup_set_by_seq", "100000 100000 1000 1000 1 1"},
      {"backup_set", "backup_set_by_archive", "100000 1000 1 1"},
      {"backup_set_storage", "sqlite_autoindex_backup_set_storage_1", "100000 1 1"},
      {"backup_set_storage", "backup_set_storage_by_pool", "100000 20000 1"},
      {"backup_set_piece", "sqlite_autoindex_backup_set_piece_1", "100000 1 1"},
      {"backup_set_file", "sqlite_autoindex_backup_set_file_1", "100000 5 1"},
      {"backup_set_file", "backup_set_file_by_name", "100000 5 2 1"},
  };
  return statistics;
}
} // namespace kestrel
