#pragma once

#include "catalog/backup_record.h"
#include "json/value.h"
#include "storage/pool.h"

namespace kestrel
{
// The documents in which catalog records and pools travel between a host and its backup server.
// Threads: any. Errors: the *_from functions throw std::runtime_error naming the key that is missing or of
// another type; keys that they do not know are ignored.

/// {"catalog","fields":{...},"storages":[{"pool_uuid","size"}],"pieces":[{"name","size"}],
///  "files":[{"database","schema","table","file","grade","size","checksum"}]}
json_spirit::Object backup_record_json(const Backup_Record& record);
Backup_Record backup_record_from(const json_spirit::Value& value);

/// {"id","name","path","back_end"}: as the server sees the pool.
json_spirit::Object pool_json(const Pool_Info& pool);
Pool_Info pool_from(const json_spirit::Value& value);
} // namespace kestrel
