#include "oscar/backup_job_options_parser.h"

#include "base/natoi.h"

namespace oscar
{
namespace
{
const uint64_t key_compression = 1;
const uint64_t key_compression_level = 2;

const Document_Key keys[] = {
    {"compression", 11, key_compression}, {"compression_level", 17, key_compression_level}, {nullptr, 0, 0}};
} // namespace

bool Backup_Job_Options_Parser::handle_number_i(char const* text, unsigned length)
{
  return handle_member(NUMBER, text, length);
}

bool Backup_Job_Options_Parser::handle_string_i(char const* text, unsigned length)
{
  return handle_member(TEXT, text, length);
}

bool Backup_Job_Options_Parser::handle_member(Value_Kind kind, char const* text, unsigned length)
{
  if (depth() != 1)
    return fail(DOCUMENT_ERROR_WRONG_VALUE);
  JSON_State& state = top();
  if (!state.obj || state.key == 0)
    return true;
  if (Backup_Job_Options* options = document()) {
    if (kind == TEXT && state.key == key_compression)
      options->compression(compression_name_to_value(text, length));
    else if (kind == NUMBER && state.key == key_compression_level)
      options->compression_level(natoi<int>(text, length, nullptr));
  }
  state.masks |= state.key;
  return true;
}

bool Backup_Job_Options_Parser::handle_map_key_i(char const* text, unsigned length)
{
  return enter_key(depth() == 1 ? keys : nullptr, text, length);
}

bool Backup_Job_Options_Parser::handle_start_array_i()
{
  return push(false);
}

bool Backup_Job_Options_Parser::handle_end_array_i()
{
  return pop();
}
} // namespace oscar
