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

/// Marks the SQLite file as a catalog ("ktlc"): another program's database is refused rather than migrated.
const int catalog_application_id = 0x6b746c63;
} // namespace kestrel
