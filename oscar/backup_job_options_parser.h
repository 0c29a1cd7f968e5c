#pragma once

#include "oscar/backup_job_options.h"
#include "oscar/json_document_parser.h"

namespace oscar
{
/// Parses the options document of a backup job: {"compression": name, "compression_level": number}, both
/// optional. An unknown method name means no compression.
/// Errors: error() is one of Document_Error.
class Backup_Job_Options_Parser : public JSON_Document_Parser_T<Job_Options, Backup_Job_Options>
{
public:
  bool handle_number_i(char const* text, unsigned length) override;
  bool handle_string_i(char const* text, unsigned length) override;
  bool handle_map_key_i(char const* text, unsigned length) override;
  bool handle_start_array_i() override;
  bool handle_end_array_i() override;

private:
  enum Value_Kind { NUMBER, TEXT };

  bool handle_member(Value_Kind kind, char const* text, unsigned length);
};
} // namespace oscar
