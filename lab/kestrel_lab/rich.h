/// More than tables and rows: schemas whose objects need each other, for exports and imports.
#pragma once

#include "lab/common/database.h"

#include <cstdint>

namespace oscar_lab
{

/// Adds the schemas crm, reports and Mixed, which depend on the seed only, unless they are there. The
/// tablespace labspace must exist.
///   crm      accounts (identity, unique, check, a default from the free sequence account_number), contacts
///   (serial,
///            foreign key, trigger), activity (in labspace, foreign key, partial index), a type, functions, a
///            view
///   reports  a view and a materialized view over crm, a table with a foreign key to crm.accounts
///   Mixed    a table whose names have capitals
/// Errors: Failure; nothing is added then.
void add_rich_objects(Connection& connection, std::uint64_t seed);

} // namespace oscar_lab
