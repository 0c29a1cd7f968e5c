#include "oscar/backup_job_source.h"

#include "json/yajl_gen.h"

namespace oscar
{
int Backup_Job_Source::generate(yajl_gen_t* gen) const
{
  YAJL_Gen out(gen);
  out.map_open();
  out.string("id").string(id());
  if (!name().empty())
    out.string("name").string(name());
  if (!entries_.empty()) {
    out.string("entries").array_open();
    for (const std::string& entry : entries_)
      out.string(entry);
    out.array_close();
  }
  out.map_close();
  return 0;
}
} // namespace oscar
