#include "oscar/restore_job_source_parser.h"

#include "base/natoi.h"

namespace oscar
{
namespace
{
// Every bit stands for one key of one table, so that a bit alone tells which field is meant.
const uint64_t key_id = 1;
const uint64_t key_name = 2;
const uint64_t key_backup_host_id = 4;
const uint64_t key_backup_definition_id = 8;
const uint64_t key_seq = 16;
const uint64_t key_pool_uuid = 32;
const uint64_t key_catalog_id = 64;
const uint64_t key_original = 128;
const uint64_t key_original_database = 256;
const uint64_t key_original_schema = 512;
const uint64_t key_original_table = 1024;
const uint64_t key_original_backup_file = 2048;
const uint64_t key_restore_as = 4096;
const uint64_t key_restore_as_database = 8192;
const uint64_t key_restore_as_schema = 16384;
const uint64_t key_restore_as_table = 32768;

const Document_Key keys[] = {{"id", 2, key_id},
                             {"name", 4, key_name},
                             {"backup_host_id", 14, key_backup_host_id},
                             {"backup_definition_id", 20, key_backup_definition_id},
                             {"seq", 3, key_seq},
                             {"pool_uuid", 9, key_pool_uuid},
                             {"catalog_id", 10, key_catalog_id},
                             {"original", 8, key_original},
                             {"restore_as", 10, key_restore_as},
                             {nullptr, 0, 0}};

const Document_Key original_keys[] = {{"database", 8, key_original_database},
                                      {"schema", 6, key_original_schema},
                                      {"table", 5, key_original_table},
                                      {"backup_file", 11, key_original_backup_file},
                                      {nullptr, 0, 0}};

const Document_Key restore_as_keys[] = {{"database", 8, key_restore_as_database},
                                        {"schema", 6, key_restore_as_schema},
                                        {"table", 5, key_restore_as_table},
                                        {nullptr, 0, 0}};

/// The keys of the object that stands under a key of the top object; null when there are none.
const Document_Key* inner_keys(uint64_t outer_key)
{
  if (outer_key == key_original)
    return original_keys;
  return outer_key == key_restore_as ? restore_as_keys : nullptr;
}

bool takes_text(uint64_t key)
{
  return key == key_id || key == key_name || key == key_backup_host_id || key == key_backup_definition_id ||
         key == key_pool_uuid || key == key_catalog_id;
}

void store(Restore_Job_Source& source, uint64_t key, const std::string& value)
{
  if (key == key_id)
    source.id(value);
  else if (key == key_name)
    source.name(value);
  else if (key == key_backup_host_id)
    source.backup_host_id(value);
  else if (key == key_backup_definition_id)
    source.backup_definition_id(value);
  else if (key == key_pool_uuid)
    source.pool_uuid(value);
  else if (key == key_catalog_id)
    source.catalog_id(value);
}

/// The field of "original" or "restore_as" that the key names; null for any other key.
std::string* inner_field(Restore_Job_Source& source, uint64_t key)
{
  switch (key) {
  case key_original_database:
    return &source.original().database;
  case key_original_schema:
    return &source.original().schema;
  case key_original_table:
    return &source.original().table;
  case key_original_backup_file:
    return &source.original().backup_file;
  case key_restore_as_database:
    return &source.restore_as().database;
  case key_restore_as_schema:
    return &source.restore_as().schema;
  case key_restore_as_table:
    return &source.restore_as().table;
  default:
    return nullptr;
  }
}
} // namespace

bool Restore_Job_Source_Parser::handle_number_i(char const* text, unsigned length)
{
  if (depth() != 1)
    return fail(DOCUMENT_ERROR_WRONG_VALUE);
  if (top().key == key_seq && document())
    document()->seq(natoi<uint64_t>(text, length, nullptr));
  top().masks |= top().key;
  return true;
}

bool Restore_Job_Source_Parser::handle_string_i(char const* text, unsigned length)
{
  const std::string value(text, length);
  switch (depth()) {
  case 1:
    return handle_member(value);
  case 2:
    return handle_inner_member(value);
  default:
    return fail(DOCUMENT_ERROR_WRONG_VALUE);
  }
}

bool Restore_Job_Source_Parser::handle_member(const std::string& value)
{
  JSON_State& state = top();
  if (!state.obj || state.key == 0)
    return true;
  if (!takes_text(state.key))
    return fail(DOCUMENT_ERROR_WRONG_VALUE);
  if (document())
    store(*document(), state.key, value);
  state.masks |= state.key;
  return true;
}

bool Restore_Job_Source_Parser::handle_inner_member(const std::string& value)
{
  JSON_State& state = top();
  if (!state.obj || state.key == 0)
    return true;
  if (document()) {
    // Only keys of the inner tables can be in force here.
    std::string* field = inner_field(*document(), state.key);
    if (!field)
      return fail(DOCUMENT_ERROR_WRONG_VALUE);
    *field = value;
  }
  state.masks |= state.key;
  return true;
}

bool Restore_Job_Source_Parser::handle_map_key_i(char const* text, unsigned length)
{
  const Document_Key* table = nullptr;
  if (depth() == 1)
    table = keys;
  else if (depth() == 2)
    table = inner_keys(states_[0].key);
  return enter_key(table, text, length);
}

bool Restore_Job_Source_Parser::handle_end_map_i()
{
  if (depth() == 1 && !require(keys, key_id))
    return false;
  if (depth() == 2) {
    const uint64_t outer_key = states_[0].key;
    if (outer_key == key_original && !require(original_keys, key_original_database))
      return false;
    if (outer_key == key_restore_as && !require(restore_as_keys, key_restore_as_database))
      return false;
  }
  return pop();
}
} // namespace oscar
