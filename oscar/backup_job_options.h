#pragma once

#include "jobs/job_document.h"
#include "storage/compression.h"

namespace oscar
{
/// How a backup job compresses what it stores.
/// Threads: immutable while a job uses it.
class Backup_Job_Options : public Job_Options
{
public:
  int generate(yajl_gen_t* gen) override;

  Compression_Method compression() const { return compression_; }
  void compression(Compression_Method method) { compression_ = method; }
  int compression_level() const { return compression_level_; }
  void compression_level(int level) { compression_level_ = level; }

private:
  Compression_Method compression_ = 0;
  int compression_level_ = 1;
};
} // namespace oscar
