#pragma once

#include <string>
#include <vector>

namespace kestrel
{
/// The steps that lead an empty database to the present schema, one entry a version: entry 0 makes version 1.
/// Once released an entry is never changed: a change of the schema is a new entry at the end.
/// "{id}" in a statement stands for the database's own word for an ascending 64-bit primary key.
typedef std::vector<std::vector<std::string>> Catalog_Migrations;

const Catalog_Migrations& catalog_migrations();

/// What SQLite's planner is told about the indexes, for the schema that the migrations end with: index,
/// table, and the rows in all and for each longer prefix of the index's columns. Without it the planner takes
/// every filter for equally selective, and prefers an index in the wanted order to the one that finds the
/// single row of an id.
struct Index_Statistics {
  const char* table;
  const char* index;
  const char* rows;
};
const std::vector<Index_Statistics>& catalog_index_statistics();

/// Marks the SQLite file as a catalog ("ktlc"): another program's database is refused rather than migrated.
const int catalog_application_id = 0x6b746c63;
} // namespace kestrel
