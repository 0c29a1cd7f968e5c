#include "oscar/restore_job_options_parser.h"

namespace oscar
{
bool Restore_Job_Options_Parser::handle_map_key_i(char const* text, unsigned length)
{
  return enter_key(nullptr, text, length);
}
} // namespace oscar
