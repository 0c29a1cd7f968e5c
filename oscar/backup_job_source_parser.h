#pragma once

#include "oscar/backup_job_source.h"
#include "oscar/json_document_parser.h"

namespace oscar
{
/// Parses the source document of a backup job: {"id": text, "name": text, "entries": [text, ...]}, "name"
/// optional.
/// Errors: error() is one of Document_Error; a missing key is logged, one line each.
class Backup_Job_Source_Parser : public JSON_Document_Parser_T<Job_Source, Backup_Job_Source>
{
public:
  bool handle_string_i(char const* text, unsigned length) override;
  bool handle_map_key_i(char const* text, unsigned length) override;
  bool handle_end_map_i() override;
  bool handle_start_array_i() override;
  bool handle_end_array_i() override;

private:
  bool handle_member(const std::string& value);
  bool handle_element(const std::string& value);
};
} // namespace oscar
