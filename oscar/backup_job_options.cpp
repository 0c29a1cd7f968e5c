#include "oscar/backup_job_options.h"

#include "json/yajl_gen.h"

namespace oscar
{
int Backup_Job_Options::generate(yajl_gen_t* gen)
{
  YAJL_Gen out(gen);
  out.map_open();
  if (compression_ != 0)
    out.string("compression").string(compression_value_to_name(compression_));
  out.string("compression_level").integer(compression_level_);
  out.map_close();
  return 0;
}
} // namespace oscar
