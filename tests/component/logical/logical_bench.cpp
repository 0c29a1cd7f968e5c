#include "logical_bench.h"

#include "catalog/catalog_operator.h"
#include "job/default_job_t.h"
#include "oscar/backup_executor.h"
#include "oscar/brcmd_backup_executor.h"
#include "oscar/restore_executor.h"
#include "storage/pool_registry.h"
#include "support/fake_tool.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <sstream>
#include <unistd.h>

namespace kestrel_test
{
using kestrel::Catalog_Status;

const std::string Logical_Bench::DEFINITION_ID = "7d3a1c52-0000-4000-8000-0000000000d7";
const std::string Logical_Bench::SOURCE_ID = "7d3a1c52-0000-4000-8000-000000000007";
const std::string Logical_Bench::SECRET = "s3cr3t-pw";

namespace
{
const int64_t END_TIMEOUT_MSEC = 120 * 1000;
}

std::shared_ptr<Shaped_Catalog> Shaped_Catalog::install()
{
  std::shared_ptr<Shaped_Catalog> catalog(new Shaped_Catalog);
  kestrel::register_catalog_back_end(catalog);
  return std::shared_ptr<Shaped_Catalog>(
      catalog.get(), [catalog](Shaped_Catalog*) { kestrel::register_catalog_back_end(nullptr); });
}

Catalog_Status Shaped_Catalog::get_view(const std::string& catalog, const std::string& view,
                                        const Query& query, json_spirit::Value& result, std::string& error)
{
  {
    const std::lock_guard<std::mutex> guard(mutex_);
    queries_.push_back(query);
  }
  const bool concerned = !concerns || concerns(query);
  if (refuse_views && concerned) {
    error = "the shaped catalog refuses";
    return Catalog_Status::failed;
  }
  const Catalog_Status status = inner_->get_view(catalog, view, query, result, error);
  if (status == Catalog_Status::done && change && concerned)
    change(result);
  return status;
}

Catalog_Status Shaped_Catalog::commit(const kestrel::Backup_Record& record, bool must_be_new,
                                      std::string& warning, std::string& error)
{
  if (!refuse_commits)
    return inner_->commit(record, must_be_new, warning, error);
  error = "the shaped catalog refuses";
  return Catalog_Status::failed;
}

Catalog_Status Shaped_Catalog::set_state(const std::string& uuid, kestrel::Set_State state,
                                         const std::string& reason, std::string& error)
{
  return inner_->set_state(uuid, state, reason, error);
}

Catalog_Status Shaped_Catalog::remove(const std::string& uuid, std::string& error)
{
  return inner_->remove(uuid, error);
}

Catalog_Status Shaped_Catalog::dependents(const std::string& uuid, std::vector<std::string>& uuids,
                                          std::string& error)
{
  return inner_->dependents(uuid, uuids, error);
}

Catalog_Status Shaped_Catalog::count_by_pool(const std::string& pool_uuid, uint64_t& count,
                                             std::string& error)
{
  return inner_->count_by_pool(pool_uuid, count, error);
}

std::vector<Shaped_Catalog::Query> Shaped_Catalog::queries()
{
  const std::lock_guard<std::mutex> guard(mutex_);
  return queries_;
}

Logical_Bench::Logical_Bench(unsigned time_factor)
    : root("KESTREL_ROOT", dir / "root"), clock(time_factor), home(dir / "home"),
      pool_dir(dir.make_dir("pool"))
{
  dir.make_dir("home/bin");
  dir.write("home/admin/LOGI1.conf", "port = 2010\n");
  set_osrexp(1000);
  set_tablespaces({});
  set_osrimp("2.6.0", "");
  add_instance("LOGI1");
  Pool_Info pool;
  std::string error;
  EXPECT_TRUE(kestrel::Pool_Registry().add("main", pool_dir, pool, error)) << error;
  pool_id = pool.pool_id;
}

Logical_Bench::~Logical_Bench()
{
  EXPECT_FALSE(log.contains(SECRET));
}

void Logical_Bench::add_instance(const std::string& name, bool with_home)
{
  std::shared_ptr<Instance> instance = std::make_shared<Instance>();
  instance->type = "oscar";
  instance->name = name;
  if (with_home)
    instance->options["oscar_home"] = home;
  kestrel::Instance_Registry registry("host-1");
  std::string error;
  EXPECT_EQ(0, registry.merge_probe({{name, instance}}, error)) << error;
  EXPECT_EQ(0, registry.set_account("oscar", name, "", "sysdba", SECRET.c_str(), error)) << error;
}

void Logical_Bench::set_tool(const std::string& name, const std::string& steps)
{
  make_fake_tool(dir, "home/bin/" + name, "dump_args " + (dir / (name + ".calls")) + "\n" + steps);
}

void Logical_Bench::set_osrexp(size_t bytes)
{
  set_tool("osrexp", "write_pattern ${prefix:file=} " + std::to_string(bytes) + "\n");
}

std::string Logical_Bench::dump_content(size_t bytes)
{
  std::string content;
  content.reserve(bytes);
  for (size_t i = 0; i < bytes; ++i)
    content += static_cast<char>((i * 7 + i / 251) % 256);
  return content;
}

void Logical_Bench::set_tablespaces(const std::vector<std::string>& names, const std::string& create_steps)
{
  std::string steps = "if args_contain sys_tablespace\nout \" tsname\"\nout \"--------\"\n";
  for (const std::string& name : names)
    steps += "out \" " + name + "\"\n";
  steps += "out \"(" + std::to_string(names.size()) + " rows)\"\nexit 0\nend\n" + create_steps;
  set_tool("isql", steps);
}

void Logical_Bench::set_osrimp(const std::string& version, const std::string& steps)
{
  set_tool("osrimp", "if args_match \"^-v$\"\nout \"osrimp " + version +
                         "\"\nexit 0\nend\ncopy ${prefix:file=} " + (dir / "imported") + "\n" + steps);
}

std::vector<std::string> Logical_Bench::calls(const std::string& tool) const
{
  std::vector<std::string> calls;
  const std::string path = dir / (tool + ".calls");
  if (!exists(path))
    return calls;
  std::istringstream lines(read_file(path));
  std::string line, call;
  while (std::getline(lines, line)) {
    if (line == "--") {
      calls.push_back(call);
      call.clear();
    } else {
      call += (call.empty() ? "" : " ") + line;
    }
  }
  return calls;
}

std::string Logical_Bench::option(const std::string& call, const std::string& prefix) const
{
  const size_t at = call.find(" " + prefix);
  EXPECT_NE(std::string::npos, at) << call;
  if (at == std::string::npos)
    return std::string();
  const size_t begin = at + 1 + prefix.size();
  return call.substr(begin, call.find(' ', begin) - begin);
}

kestrel::Job_Definition_Fields Logical_Bench::backup_fields(const std::vector<std::string>& entries) const
{
  kestrel::Job_Definition_Fields fields;
  fields.type = JOB_DEFINITION_BACKUP;
  fields.subtype = JOB_DEFINITION_SUBTYPE_EXPORT;
  fields.id = DEFINITION_ID;
  fields.uid = "7d3a1c52-0000-4000-8000-0000000000e1";
  fields.name = "exports";
  fields.agent = "agent-1";
  fields.host_id = "host-1";
  fields.target = Job_Target(pool_id);
  oscar::Backup_Job_Source* const source = new oscar::Backup_Job_Source;
  source->id(SOURCE_ID);
  source->entries() = entries;
  fields.source = ACE_Refcounted_Auto_Ptr<Job_Source, ACE_Thread_Mutex>(source);
  return fields;
}

kestrel::Job_Definition_Fields Logical_Bench::restore_fields(const std::string& schema,
                                                             const std::string& table) const
{
  kestrel::Job_Definition_Fields fields = backup_fields({});
  fields.type = JOB_DEFINITION_RESTORE;
  fields.subtype = JOB_DEFINITION_SUBTYPE_IMPORT;
  oscar::Restore_Job_Source* const source = new oscar::Restore_Job_Source;
  source->id(SOURCE_ID);
  source->name("LOGI1");
  source->original().database = "LOGI1";
  source->original().schema = schema;
  source->original().table = table;
  fields.source = ACE_Refcounted_Auto_Ptr<Job_Source, ACE_Thread_Mutex>(source);
  return fields;
}

oscar::Restore_Job_Source& Logical_Bench::restore_source(const kestrel::Job_Definition_Fields& fields)
{
  return dynamic_cast<oscar::Restore_Job_Source&>(*fields.source);
}

Job_Ptr Logical_Bench::make_job(const kestrel::Job_Definition_Fields& fields)
{
  const ACE_Refcounted_Auto_Ptr<Job_Definition, ACE_Thread_Mutex> definition(new Job_Definition(fields));
  if (fields.type == JOB_DEFINITION_RESTORE)
    return Job_Ptr(new Controllable_Job_T<oscar::Restore_Executor>(definition), false);
  if (fields.subtype != JOB_DEFINITION_SUBTYPE_EXPORT)
    return Job_Ptr(new Controllable_Job_T<oscar::Oscar_Brcmd_Backup_Executor>(definition), false);
  return Job_Ptr(new Controllable_Job_T<oscar::Backup_Executor>(definition), false);
}

Job_State Logical_Bench::wait_end(const Job_Ptr& job)
{
  EXPECT_TRUE(job->wait_end(END_TIMEOUT_MSEC)) << "the job hangs in state " << job->state();
  // Its thread may still hold the job, and with it the definition's activity record.
  EXPECT_TRUE(Job::wait_all_runs(END_TIMEOUT_MSEC));
  return job->state();
}

Job_State Logical_Bench::run(const Job_Ptr& job)
{
  EXPECT_EQ(0, job->start());
  return wait_end(job);
}

Job_State Logical_Bench::run(const kestrel::Job_Definition_Fields& fields, Codes* codes)
{
  const Job_Ptr job = make_job(fields);
  const Job_State state = run(job);
  if (codes)
    *codes = alerts(job);
  return state;
}

Codes Logical_Bench::alerts(const Job_Ptr& job)
{
  Codes codes;
  for (const kestrel::Job_Alert& alert : job->alerts()) {
    EXPECT_EQ(7, alert.category);
    codes.push_back(alert.code);
  }
  return codes;
}

json_spirit::Object Logical_Bench::back_up(const std::vector<std::string>& entries)
{
  EXPECT_EQ(JOB_STATE_COMPLETED, run(backup_fields(entries)));
  const json_spirit::Array all = rows();
  EXPECT_FALSE(all.empty());
  return all.empty() ? json_spirit::Object() : all.back().get_obj();
}

json_spirit::Array Logical_Bench::rows() const
{
  json_spirit::Value result;
  EXPECT_TRUE(Catalog_Operator(-1, 0).get_view(
      "oscar", "catalogs", {{"resource_uuid", SOURCE_ID}, {"sort", "seq"}, {"with_files", true}}, result));
  return json_spirit::find_value(result.get_obj(), "rows").get_array();
}

bool Logical_Bench::wait_for(const std::string& path) const
{
  for (int i = 0; i < 60000 && !exists(path); ++i)
    ::usleep(1000);
  return exists(path);
}

void Logical_Bench::expect_no_dump_left() const
{
  EXPECT_FALSE(exists(dump_path()));
}

void Logical_Bench::expect_no_archive_left() const
{
  for (const auto& entry : std::filesystem::recursive_directory_iterator(pool_dir))
    EXPECT_EQ(std::string::npos, entry.path().filename().string().find("export_")) << entry.path();
}
} // namespace kestrel_test
