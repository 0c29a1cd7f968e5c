#pragma once

#include "json/value.h"

#include <soci/soci.h>

#include <map>
#include <string>

namespace kestrel
{
/// The views of Catalog_Operator::get_view() on an open session: each returns the whole result object.
/// Throw std::invalid_argument for a query that cannot be answered, soci::soci_error otherwise.
json_spirit::Object catalogs_view(soci::session& session, const std::string& catalog,
                                  const std::map<std::string, json_spirit::Value>& query);
/// When there are no rows, "problem" says in one sentence why the chain cannot be restored.
json_spirit::Object sequences_view(soci::session& session, const std::string& catalog,
                                   const std::map<std::string, json_spirit::Value>& query);
} // namespace kestrel
