#include "oscar/restore_executor.h"

#include "archive/archive_format.h"
#include "archive/mtf.h"
#include "base/ignore_result.h"
#include "base/snprintf_t.h"
#include "base/string_sprintf.h"
#include "catalog/catalog_operator.h"
#include "instances/instance_manager.h"
#include "oscar/brcmd_common.h"
#include "oscar/cluster_gate.h"
#include "oscar/dump_directory.h"
#include "oscar/logical_job.h"
#include "oscar/oscar_catalog_queries.h"
#include "oscar/restore_action_handler.h"
#include "oscar/restore_event_handler.h"
#include "oscar/storage_options.h"
#include "oscar/utils.h"

#include <ace/Log_Msg.h>

#include <algorithm>

namespace oscar
{
namespace
{
const char CATALOG_TYPE[] = "oscar_backup_set";
// This build of the import tool expects the default user tablespace to be there.
const char OSRIMP_WITHOUT_USERS[] = "2.5.6x20230817132129";
const char DEFAULT_TABLESPACE[] = "USERS";

bool contains(const std::vector<std::string>& names, const std::string& name)
{
  return std::find(names.begin(), names.end(), name) != names.end();
}
} // namespace

Restore_Executor::Restore_Executor(Job& job) : Job_Executor_T(job), tools_(job, "Importing") {}

Restore_Executor::~Restore_Executor() = default;

bool Restore_Executor::is_active(const Values*)
{
  return cluster_lets_restore_run(def_, target_instance());
}

bool Restore_Executor::execute_i(const Values*)
{
  if (!get_latest_info_from_catalog())
    return fail(ALERT_LATEST_INFO, "Failed to get latest info from catalog\n");
  if (!find_instance())
    return false;
  Dump_Directory dump(def_.id());
  if (!dump.clear())
    return failed_step();
  dump.remove_at_end();
  if (!set_dump_file(dump.path()) || !create_tablespaces() || !dump.create())
    return failed_step();
  return fetch_and_import(dump.path());
}

bool Restore_Executor::failed_step()
{
  // A cancel is what was asked for.
  if (!job_is_canceled(*act_))
    raise_logical_alert(job_, ALERT_STEP);
  return false;
}

bool Restore_Executor::fail(int alert, const char* message)
{
  raise_logical_alert(job_, alert);
  ACE_ERROR((LM_ERROR, "%s", message));
  return false;
}

bool Restore_Executor::get_latest_info_from_catalog()
{
  using namespace json_spirit;
  const Values query = {{"resource_uuid", src_->id()},
                        {"database", src_->original().database},
                        {"grade", object_grade(src_->original())},
                        {"with_files", true},
                        {"sort", "backup_start_time"},
                        {"order", "desc"}};
  Value result;
  if (!Catalog_Operator(-1, static_cast<int>(def_.max_seconds_retry()))
           .get_view("oscar", "catalogs", query, result) ||
      result.type() != obj_type)
    return false;
  const Value& rows = find_value(result.get_obj(), "rows");
  if (rows.type() != array_type)
    return false;
  const Object* const row = choose_logical_row(rows.get_array(), *src_);
  if (!row) {
    ACE_ERROR(
        (LM_ERROR,
         "(%P|%t) Restore_Executor: the catalog has no such backup of the %C %C; kestrel backups lists "
         "what there is\n",
         object_grade(src_->original()),
         object_text(src_->original().database, src_->original().schema, src_->original().table).c_str()));
    return false;
  }
  try {
    backup_ = read_logical_backup(*row);
    return true;
  } catch (const std::exception& error) {
    ACE_ERROR((LM_ERROR, "Invalid catalog data: %s\n", error.what()));
    return false;
  }
}

std::string Restore_Executor::target_instance() const
{
  if (!src_->restore_as().database.empty())
    return src_->restore_as().database;
  return src_->name().empty() ? src_->original().database : src_->name();
}

void Restore_Executor::set_target()
{
  const bool elsewhere = !src_->restore_as().database.empty();
  input_.original_database = src_->original().database;
  input_.restore_as_database = target_instance();
  input_.restore_as_schema = elsewhere ? src_->restore_as().schema : src_->original().schema;
  input_.restore_as_table = elsewhere ? src_->restore_as().table : src_->original().table;
  input_.log_msg_callback = job_.log_msg_callback();
}

bool Restore_Executor::find_instance()
{
  Instance_Manager* const manager = Instance_Manager::instance();
  if (!manager) {
    raise_logical_alert(job_, ALERT_STEP);
    ACE_ERROR((LM_EMERGENCY, "Unexpected error in %N:%l, manager is NULL:\n%?\n"));
    return false;
  }
  set_target();
  const std::string& instance = input_.restore_as_database;
  if (instance.empty())
    return fail(ALERT_INSTANCE, "Failed to get oscar_home.\n");
  if (manager->get_account("oscar", instance, def_.uid(), input_.username, input_.password, nullptr) < 0)
    return fail(ALERT_ACCOUNT, "Fail to get login info.\n");
  const std::shared_ptr<Instance> found = manager->find("oscar", instance);
  if (!get_from_instance_options(found, "oscar_home", input_.oscar_home))
    return fail(found ? ALERT_OSCAR_HOME : ALERT_INSTANCE, "Failed to get oscar_home.\n");
  if (!get_instance_port(input_.oscar_home.c_str(), instance.c_str(), input_.port))
    return fail(ALERT_STEP, "Failed to get port.\n");
  return true;
}

bool Restore_Executor::set_dump_file(const std::string& dump_directory)
{
  const Oscar_Backup_File* const file = choose_backup_file(backup_, src_->original());
  const std::string name = file ? kestrel::archive_member_name(file->file) : std::string();
  std::string reason = "no dump file holds the object";
  if (!file || !kestrel::is_archive_member_name(name, reason)) {
    ACE_ERROR((LM_ERROR, "Invalid catalog data: %s\n", reason.c_str()));
    return false;
  }
  recorded_file_ = file->file;
  input_.backup_file = dump_directory + "/" + name;
  return true;
}

bool Restore_Executor::read_recorded_tablespaces(std::vector<std::string>& names)
{
  using namespace json_spirit;
  const Values query = {{"uuid", backup_.uuid}, {"sort", "backup_start_time"}, {"order", "desc"}};
  Value result;
  const bool answered = Catalog_Operator(-1, static_cast<int>(def_.max_seconds_retry()))
                            .get_view("oscar", "catalogs", query, result);
  const Value none;
  const Value& rows = answered && result.type() == obj_type ? find_value(result.get_obj(), "rows") : none;
  if (rows.type() != array_type || rows.get_array().empty() || rows.get_array().front().type() != obj_type) {
    ACE_ERROR((LM_ERROR, "Failed to get tablespace info.\n"));
    return false;
  }
  try {
    for (const Value& name : find_value(rows.get_array().front().get_obj(), "tablespaces").get_array())
      if (name.type() == str_type)
        names.push_back(name.get_str());
    return true;
  } catch (const std::exception& error) {
    ACE_ERROR((LM_ERROR, "Invalid catalog, exception: %s\n", error.what()));
    return false;
  }
}

void Restore_Executor::add_default_tablespace(std::vector<std::string>& names)
{
  std::string version;
  if (get_osrimp_version(input_.oscar_home.c_str(), version) && version == OSRIMP_WITHOUT_USERS &&
      !contains(names, DEFAULT_TABLESPACE))
    names.push_back(DEFAULT_TABLESPACE);
}

bool Restore_Executor::create_tablespaces()
{
  std::vector<std::string> names;
  if (!read_recorded_tablespaces(names))
    return false;
  add_default_tablespace(names);
  std::vector<std::string> existing;
  if (!read_tablespaces(job_, input_.oscar_home, input_.restore_as_database, input_.username, input_.password,
                        input_.port, existing))
    return false;
  const std::string time = name_time_text(act_->start_time);
  for (const std::string& name : names) {
    if (contains(existing, name))
      continue;
    if (!create_tablespace(name, time))
      return false;
    existing.push_back(name);
  }
  return true;
}

bool Restore_Executor::create_tablespace(const std::string& name, const std::string& time)
{
  std::string file;
  string_sprintf(file, "%s_%s.dbf", name.c_str(), time.c_str());
  const std::string path = input_.oscar_home + "/odbs/" + input_.restore_as_database + "/" + file;
  const snprintf_t<4096> sql("create tablespace %s datafile '%s'", name.c_str(), path.c_str());
  snprintf_t<4096> command("%s/bin/isql -U%s/%s -d%s -p%hu -c \"%s\"", input_.oscar_home.c_str(),
                           input_.username.c_str(), input_.password.c_str(),
                           input_.restore_as_database.c_str(), input_.port, sql.c_str());
  Oscar_Cmd_Login login;
  login.username = input_.username.c_str();
  login.password = input_.password.c_str();
  const int result =
      tools_.run_tool(input_.oscar_home.c_str(), command.c_str(), login, job_.log_msg_callback());
  ::explicit_bzero(&command, sizeof command);
  if (result == 0)
    return true;
  if (job_is_canceled(*act_))
    return false;
  ACE_ERROR((LM_ERROR, "Failed to create tablespace %s.\n", name.c_str()));
  return false;
}

void Restore_Executor::set_archive(MTF_Restore& archive)
{
  archive.pool_uuid(src_->pool_uuid().empty() ? backup_.pool_uuid : src_->pool_uuid());
  archive.definition_uuid(backup_.definition_uuid);
  archive.backup_host_uuid(src_->backup_host_id().empty() ? backup_.host_uuid : src_->backup_host_id());
  archive.backup_minor_resource_id(backup_.minor_resource_id);
  archive.seq(backup_.seq);
  archive.backup_uuid(backup_.uuid);
  set_options_by_job_def(archive.extra_client_io_opts(), def_, 1);
  set_options_by_host(archive.extra_client_io_opts());
}

bool Restore_Executor::fetch_and_import(const std::string& dump_directory)
{
  if (backup_.minor_resource_id.empty() &&
      !compute_minor_resource_id(src_->id(), CATALOG_TYPE, backup_.minor_resource_id)) {
    ACE_ERROR((LM_ERROR, "Failed to compute minor resource id for resource '%s' and backup type '%s'\n",
               src_->id().c_str(), CATALOG_TYPE));
    return failed_step();
  }
  Restore_Event_Handler events(&def_, act_);
  MTF_Restore archive(&events, job_.log_msg_callback());
  input_.host = &tools_;
  // Without it the file would be fetched, and nothing imported.
  const Action_Handler_Ptr importer = make_action_handler(&input_);
  if (importer.null())
    return fail(ALERT_STEP, "No memory for the import of the dump file.\n");
  archive.action_handler(importer);
  Pool_Info pool;
  if (!find_pool(job_, src_->pool_uuid().empty() ? backup_.pool_uuid : src_->pool_uuid(), tgt_.device_id(),
                 pool))
    return false;
  set_archive(archive);
  json_spirit::Object file;
  file.emplace_back("dir", recorded_file_);
  if (!archive.restore_select({file}) || !archive.restore(dump_directory))
    return failed_step();
  act_->original_size = archive.size();
  act_->processed_size = archive.size();
  act_->storage_size = archive.set_size();
  return true;
}
} // namespace oscar
