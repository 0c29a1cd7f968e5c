#include "server/server_schema.h"

namespace kestrel
{
namespace
{
// Times are seconds since 1970. `hosts`, `instances`, `document` and `record` are JSON. A definition that was
// removed keeps its row without the document, so that its revisions never repeat; runs and selections name
// it for ever.
const std::vector<std::string> version_1 = {
    "CREATE TABLE host_info ("
    " host_uuid TEXT NOT NULL PRIMARY KEY, version TEXT NOT NULL, address TEXT NOT NULL,"
    " last_seen BIGINT NOT NULL, instances TEXT NOT NULL)",

    "CREATE TABLE definition ("
    " id TEXT NOT NULL PRIMARY KEY, revision BIGINT NOT NULL, enabled INTEGER NOT NULL, hosts TEXT NOT NULL,"
    " document TEXT NOT NULL, changed_at BIGINT NOT NULL, changed_by TEXT NOT NULL,"
    " removed INTEGER NOT NULL DEFAULT 0)",

    "CREATE TABLE run ("
    " run_id TEXT NOT NULL PRIMARY KEY, definition_id TEXT NOT NULL, host_uuid TEXT NOT NULL,"
    " state TEXT NOT NULL, queued_at BIGINT NOT NULL, ended_at BIGINT NOT NULL, record TEXT NOT NULL)",
    "CREATE INDEX run_by_definition ON run (definition_id, queued_at)",
    "CREATE INDEX run_by_host ON run (host_uuid, queued_at)",
    "CREATE INDEX run_by_time ON run (queued_at)",

    "CREATE TABLE selection ("
    " number INTEGER PRIMARY KEY AUTOINCREMENT, definition_uuid TEXT NOT NULL, state TEXT NOT NULL,"
    " host_uuid TEXT NOT NULL, asked_at BIGINT NOT NULL, decided_at BIGINT NOT NULL, record TEXT NOT NULL)",
    "CREATE INDEX selection_by_definition ON selection (definition_uuid, number)",
    "CREATE INDEX selection_by_host ON selection (host_uuid, number)",

    // The last time given to a request: times of one definition never repeat, whatever the clock does.
    "CREATE TABLE selection_clock ("
    " definition_uuid TEXT NOT NULL PRIMARY KEY, last_time BIGINT NOT NULL)",
};

// What a next server must know of a selection to go on with it; empty when there is nothing to go on with.
const std::vector<std::string> version_2 = {
    "ALTER TABLE selection ADD COLUMN kept TEXT NOT NULL DEFAULT ''",
};

// What the list of jobs asks for each host of a cluster's job.
const std::vector<std::string> version_3 = {
    "CREATE INDEX run_by_node ON run (definition_id, host_uuid, queued_at)",
};
} // namespace

Server_Schema_Part hub_schema()
{
  return {"hub", {version_1, version_2, version_3}};
}
} // namespace kestrel
