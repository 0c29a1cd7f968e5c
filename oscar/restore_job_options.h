#pragma once

#include "jobs/job_document.h"

namespace oscar
{
/// The options of a restore job: there are none.
class Restore_Job_Options : public Job_Options
{
public:
  int generate(yajl_gen_t* gen) override;
};
} // namespace oscar
