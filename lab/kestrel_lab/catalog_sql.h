/// SQL that makes a PostgreSQL database answer like an OSCAR database.
#pragma once

namespace oscar_lab
{

extern const char* const catalog_sql;

} // namespace oscar_lab
