#include "oscar/backup_job_source_parser.h"

namespace oscar
{
namespace
{
const uint64_t key_id = 1;
const uint64_t key_name = 2;
const uint64_t key_entries = 4;

const Document_Key keys[] = {
    {"id", 2, key_id}, {"name", 4, key_name}, {"entries", 7, key_entries}, {nullptr, 0, 0}};
} // namespace

bool Backup_Job_Source_Parser::handle_string_i(char const* text, unsigned length)
{
  const std::string value(text, length);
  switch (depth()) {
  case 1:
    return handle_member(value);
  case 2:
    return handle_element(value);
  default:
    return fail(DOCUMENT_ERROR_WRONG_VALUE);
  }
}

bool Backup_Job_Source_Parser::handle_member(const std::string& value)
{
  JSON_State& state = top();
  if (!state.obj || state.key == 0)
    return true;
  if (state.key != key_id && state.key != key_name)
    return fail(DOCUMENT_ERROR_WRONG_VALUE);
  if (Backup_Job_Source* source = document()) {
    if (state.key == key_id)
      source->id(value);
    else
      source->name(value);
  }
  state.masks |= state.key;
  return true;
}

bool Backup_Job_Source_Parser::handle_element(const std::string& value)
{
  if (top().obj)
    return top().key == 0 || fail(DOCUMENT_ERROR_WRONG_VALUE);
  if (states_[0].key == key_entries && document())
    document()->entries().push_back(value);
  return true;
}

bool Backup_Job_Source_Parser::handle_map_key_i(char const* text, unsigned length)
{
  return enter_key(depth() == 1 ? keys : nullptr, text, length);
}

bool Backup_Job_Source_Parser::handle_end_map_i()
{
  if (depth() == 1 && !require(keys, key_id | key_entries))
    return false;
  return pop();
}

bool Backup_Job_Source_Parser::handle_start_array_i()
{
  return push(false);
}

bool Backup_Job_Source_Parser::handle_end_array_i()
{
  if (!pop())
    return false;
  // An empty list counts as given.
  if (depth() > 0 && top().key == key_entries)
    top().masks |= key_entries;
  return true;
}
} // namespace oscar
