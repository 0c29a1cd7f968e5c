#include "server/server_schema.h"

namespace kestrel
{
namespace
{
// Times are seconds since 1970. key_hash and token_hash are SHA-256 in hexadecimal: keys and tokens are 32
// random bytes, so that no salt is needed. A revoked host keeps its row for the sake of its records.
const std::vector<std::string> version_1 = {
    "CREATE TABLE host ("
    " uuid TEXT NOT NULL PRIMARY KEY, name TEXT NOT NULL UNIQUE, key_hash TEXT NOT NULL,"
    " enrolled_at BIGINT NOT NULL, revoked_at BIGINT NOT NULL DEFAULT 0)",

    "CREATE TABLE account ("
    " name TEXT NOT NULL PRIMARY KEY, role TEXT NOT NULL, password TEXT NOT NULL,"
    " created_at BIGINT NOT NULL, changed_at BIGINT NOT NULL)",

    "CREATE TABLE session ("
    " token_hash TEXT NOT NULL PRIMARY KEY, id TEXT NOT NULL UNIQUE,"
    " account TEXT NOT NULL REFERENCES account (name) ON DELETE CASCADE,"
    " address TEXT NOT NULL, created_at BIGINT NOT NULL, expires_at BIGINT NOT NULL)",
    "CREATE INDEX session_by_account ON session (account)",
    "CREATE INDEX session_by_expiry ON session (expires_at)",

    "CREATE TABLE audit ("
    " id INTEGER PRIMARY KEY AUTOINCREMENT, time BIGINT NOT NULL, caller TEXT NOT NULL, role TEXT NOT NULL,"
    " address TEXT NOT NULL, method TEXT NOT NULL, path TEXT NOT NULL, what TEXT NOT NULL,"
    " status INTEGER NOT NULL)",
};
} // namespace

Server_Schema_Part account_schema()
{
  return {"accounts", {version_1}};
}
} // namespace kestrel
