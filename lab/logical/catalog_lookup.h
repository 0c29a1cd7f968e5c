/// Questions to a database's catalog that export and import share.
/// Threads: as the connection. Errors: Failure. Connections must have pg_catalog as their search path.
#pragma once

#include "lab/common/database.h"
#include "lab/logical/object_name.h"

#include <string>

namespace oscar_lab
{

bool schema_exists(Connection& connection, const std::string& schema);
/// The kind of the relation ("r" for a plain table, see pg_class.relkind); empty when there is none.
std::string relation_kind(Connection& connection, const std::string& schema, const std::string& name);
/// Of the names that the word can stand for, the one that exists; otherwise the last one.
std::string find_schema(Connection& connection, const Name_Word& word);
std::string find_relation(Connection& connection, const std::string& schema, const Name_Word& word);
/// Throws when the schema belongs to the system.
void refuse_system_schema(const std::string& schema);
/// Throws unless the relation is a table that can be exported and replaced alone.
void require_single_table(Connection& connection, const std::string& schema, const std::string& table);

/// "SALES" or "SALES.ORDERS", for messages.
std::string shown_object(const std::string& schema, const std::string& table = {});

} // namespace oscar_lab
