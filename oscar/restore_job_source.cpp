#include "oscar/restore_job_source.h"

#include "json/yajl_gen.h"

namespace oscar
{
namespace
{
void generate_unless_empty(YAJL_Gen& out, const char* key, const std::string& value)
{
  if (!value.empty())
    out.string(key).string(value);
}
} // namespace

int Restore_Job_Source::generate(yajl_gen_t* gen) const
{
  YAJL_Gen out(gen);
  out.map_open();
  out.string("id").string(id());
  out.string("seq").number(seq_);
  generate_unless_empty(out, "name", name());
  generate_unless_empty(out, "backup_host_id", backup_host_id_);
  generate_unless_empty(out, "backup_definition_id", backup_definition_id_);
  generate_unless_empty(out, "pool_uuid", pool_uuid_);
  generate_unless_empty(out, "catalog_id", catalog_id_);
  generate_original(out);
  generate_restore_as(out);
  out.map_close();
  return 0;
}

void Restore_Job_Source::generate_original(YAJL_Gen& out) const
{
  out.string("original").map_open();
  generate_unless_empty(out, "database", original_.database);
  generate_unless_empty(out, "schema", original_.schema);
  generate_unless_empty(out, "table", original_.table);
  generate_unless_empty(out, "backup_file", original_.backup_file);
  out.map_close();
}

void Restore_Job_Source::generate_restore_as(YAJL_Gen& out) const
{
  out.string("restore_as").map_open();
  generate_unless_empty(out, "database", restore_as_.database);
  generate_unless_empty(out, "schema", restore_as_.schema);
  generate_unless_empty(out, "table", restore_as_.table);
  out.map_close();
}
} // namespace oscar
