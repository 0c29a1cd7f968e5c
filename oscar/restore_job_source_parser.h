#pragma once

#include "oscar/json_document_parser.h"
#include "oscar/restore_job_source.h"

namespace oscar
{
/// Parses the source document of a restore job. "id" is required; "original" and "restore_as" need a
/// "database" when they are given. Booleans, nulls and whole arrays are ignored.
/// Errors: error() is one of Document_Error; a missing key is logged.
class Restore_Job_Source_Parser : public JSON_Document_Parser_T<Job_Source, Restore_Job_Source>
{
public:
  bool handle_number_i(char const* text, unsigned length) override;
  bool handle_string_i(char const* text, unsigned length) override;
  bool handle_map_key_i(char const* text, unsigned length) override;
  bool handle_end_map_i() override;

private:
  bool handle_member(const std::string& value);
  bool handle_inner_member(const std::string& value);
};
} // namespace oscar
