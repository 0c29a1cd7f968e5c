#pragma once

#include "oscar/json_document_parser.h"
#include "oscar/restore_job_options.h"

namespace oscar
{
/// Accepts any options document of a restore job and takes nothing from it.
class Restore_Job_Options_Parser : public JSON_Document_Parser_T<Job_Options, Restore_Job_Options>
{
public:
  bool handle_map_key_i(char const* text, unsigned length) override;
};
} // namespace oscar
