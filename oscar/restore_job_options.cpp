#include "oscar/restore_job_options.h"

#include "json/yajl_gen.h"

namespace oscar
{
int Restore_Job_Options::generate(yajl_gen_t* gen)
{
  YAJL_Gen(gen).map_open().map_close();
  return 0;
}
} // namespace oscar
