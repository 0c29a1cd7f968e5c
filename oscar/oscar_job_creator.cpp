#include "oscar/oscar_job_creator.h"

#include "base/key_value.h"

namespace oscar
{
namespace
{
const Key2_Value_T<Job_Definition_Subtype> level_names[] = {{"full", 4, JOB_DEFINITION_SUBTYPE_FULL},
                                                            {"incr", 4, JOB_DEFINITION_SUBTYPE_INCREMENTAL},
                                                            {"diff", 4, JOB_DEFINITION_SUBTYPE_CUMULATIVE},
                                                            {nullptr, 0, JOB_DEFINITION_SUBTYPE_FULL}};
} // namespace

const char* type_to_cmd_name(Job_Definition_Subtype subtype)
{
  return get_key_value_entry(level_names, subtype);
}
} // namespace oscar
