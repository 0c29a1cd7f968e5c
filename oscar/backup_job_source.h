#pragma once

#include "jobs/job_document.h"

#include <string>
#include <vector>

namespace oscar
{
/// What a backup job saves: entries such as "oscar/SERVER/DATABASE/SCHEMA/TABLE", the rest left off from the
/// right.
/// Threads: immutable while a job uses it.
class Backup_Job_Source : public Job_Source
{
public:
  int generate(yajl_gen_t* gen) const override;

  /// In document order.
  const std::vector<std::string>& entries() const { return entries_; }
  std::vector<std::string>& entries() { return entries_; }

private:
  std::vector<std::string> entries_;
};
} // namespace oscar
