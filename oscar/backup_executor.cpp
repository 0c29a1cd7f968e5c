#include "oscar/backup_executor.h"

#include "archive/mtf.h"
#include "base/clock.h"
#include "base/files.h"
#include "base/ignore_result.h"
#include "base/string_sprintf.h"
#include "base/uuid.h"
#include "catalog/catalog_operator.h"
#include "instances/instance_manager.h"
#include "jobs/job_mutex.h"
#include "oscar/backup_action_handler.h"
#include "oscar/backup_event_handler.h"
#include "oscar/brcmd_common.h"
#include "oscar/cluster_gate.h"
#include "oscar/dump_directory.h"
#include "oscar/logical_job.h"
#include "oscar/storage_options.h"
#include "oscar/utils.h"

#include <ace/Log_Msg.h>

#include <algorithm>
#include <cerrno>
#include <map>
#include <set>

namespace oscar
{
namespace
{
const char CATALOG_TYPE[] = "oscar_backup_set";

std::string utc_time_text(time_t time)
{
  struct tm parts = {};
  ::gmtime_r(&time, &parts);
  char text[32];
  return std::string(text, std::strftime(text, sizeof text, "%Y-%m-%d-%H-%M-%S", &parts));
}

/// A name that cannot leave its directory.
std::string directory_name(const std::string& prefix, const std::string& database)
{
  std::string name = prefix + "_" + database;
  std::replace_if(
      name.begin(), name.end(), [](char c) { return c == ' ' || c == ':' || c == '/' || c == '\\'; }, '_');
  return name;
}

std::string file_name(const Backup_Source_Collector::Source& source, const char* level,
                      const std::string& time, unsigned seq)
{
  const int number = static_cast<int>(seq);
  std::string name;
  if (!source.schema.empty() && !source.table.empty())
    string_sprintf(name, "/%s.%s.%s_%s_%s_%d.dump", source.dbname.c_str(), source.schema.c_str(),
                   source.table.c_str(), level, time.c_str(), number);
  else if (!source.schema.empty())
    string_sprintf(name, "/%s.%s_%s_%s_%d.dump", source.dbname.c_str(), source.schema.c_str(), level,
                   time.c_str(), number);
  else
    string_sprintf(name, "/%s_%s_%s_%d.dump", source.dbname.c_str(), level, time.c_str(), number);
  return name;
}

/// The file names take the objects' names as they are: one with "/../" in it would name a file elsewhere.
bool inside(const std::vector<Backup_File>& files)
{
  for (const Backup_File& file : files)
    if (file.file.find("/../") != std::string::npos) {
      ACE_ERROR((LM_ERROR,
                 "(%P|%t) Backup_Executor: the name of %C would put its dump file outside of the dump "
                 "directory; nothing is exported\n",
                 object_text(file.database, file.schema, file.table).c_str()));
      return false;
    }
  return true;
}
/// Dots join the parts of a file's name and may stand in them, too: the table B of the schema A and the
/// schema "A.B" have one name. The later export would take the place of the earlier one in a set that seems
/// to be whole.
bool distinct(const std::vector<Backup_File>& files)
{
  std::map<std::string, std::string> objects;
  for (const Backup_File& file : files) {
    const std::string table = file.schema.empty() ? std::string() : file.table;
    const std::string object = object_text(file.database, file.schema, table);
    const std::string& other = objects.emplace(file.file, object).first->second;
    if (other == object)
      continue;
    ACE_ERROR(
        (LM_ERROR,
         "(%P|%t) Backup_Executor: %C and %C would have the same dump file; nothing is exported. Export "
         "them with two jobs\n",
         other.c_str(), object.c_str()));
    return false;
  }
  return true;
}
} // namespace

/// What one run makes up on its way.
struct Backup_Executor::Run {
  explicit Run(const std::string& definition_id) : dump(definition_id) {}

  Dump_Directory dump;
  std::vector<Backup_File> files;
  Backup_Input input; // holds the password
  Pool_Info pool;
  Oscar_Metadata metadata;
};

Backup_Executor::Backup_Executor(Job& job) : Job_Executor_T(job) {}

Backup_Executor::~Backup_Executor() = default;

bool Backup_Executor::is_active(const Values*)
{
  kestrel::ignore_result(sources_.collect(src_->entries()),
                         "it has logged the entry; those before it still count");
  if (sources_.sources().empty())
    return fail(ALERT_NO_SOURCE, "No oscar database to backup.\n");
  return cluster_lets_backup_run(def_, sources_.sources().back().servername, false);
}

bool Backup_Executor::execute_i(const Values*)
{
  const kestrel::Source_Lock one_job_a_source(src_->id());
  if (!one_job_a_source.held())
    return false;

  Run run(def_.id());
  if (!run.dump.clear()) {
    raise_logical_alert(job_, ALERT_STEP);
    return false;
  }
  if (!init_session())
    return false;
  run.dump.remove_at_end();
  reset_activity();
  const unsigned seq = last_seq();
  init_destination_files(server_name(), seq, run.dump.path(), sources_.sources(), run.files);
  Instance_Manager* const manager = Instance_Manager::instance();
  if (!manager) {
    ACE_ERROR((LM_EMERGENCY, "Unexpected error in %N:%l, manager is NULL:\n%?\n"));
    return false;
  }
  if (!distinct(run.files)) {
    raise_logical_alert(job_, ALERT_STEP);
    return false;
  }
  if (!inside(run.files) || !find_login(*manager, run))
    return false;
  if (!init_metadata(server_name(), run.metadata))
    return fail(ALERT_STEP, "Failed to init oscar metadata\n");

  Backup_Event_Handler events(&def_, act_);
  MTF_Backup archive(&events, run.metadata, job_.log_msg_callback());
  for (const Backup_File& file : run.files)
    archive.add_source(file.file);
  if (!find_home(*manager, run) || !find_pool(job_, tgt_.id(), tgt_.device_id(), run.pool))
    return false;
  Job_Tool_Host tools(job_, "Exporting");
  run.input.host = &tools;
  const Action_Handler_Ptr exporter = make_action_handler(&run.input);
  if (exporter.null())
    return fail(ALERT_STEP, "No memory for the export of the dump files.\n");
  archive.action_handler(exporter);
  archive.seq(seq);
  set_archive(archive);
  if (!back_up(run, archive))
    return false;
  if (put_tablespaces(run))
    return record(run, archive);
  kestrel::ignore_result(archive.withdraw(), "it has been logged; without a record it is never listed");
  return false;
}

bool Backup_Executor::fail(int alert, const char* message)
{
  raise_logical_alert(job_, alert);
  ACE_ERROR((LM_ERROR, "%s", message));
  return false;
}

std::string Backup_Executor::server_name() const
{
  return sources_.sources().empty() ? std::string() : sources_.sources().back().servername;
}

unsigned Backup_Executor::last_seq()
{
  using namespace json_spirit;
  const Values query = {{"definition_uuid", def_.id()}, {"sort", "seq"}, {"order", "desc"}, {"limit", 1}};
  Value result;
  if (!Catalog_Operator(-1, static_cast<int>(def_.max_seconds_retry()))
           .get_view("oscar", "catalogs", query, result) ||
      result.type() != obj_type)
    return 0;
  const Value& rows = find_value(result.get_obj(), "rows");
  if (rows.type() != array_type || rows.get_array().empty() || rows.get_array().front().type() != obj_type)
    return 0;
  try {
    return static_cast<unsigned>(find_value(rows.get_array().front().get_obj(), "seq").get_uint64());
  } catch (const std::exception&) {
    return 0;
  }
}

bool Backup_Executor::init_session()
{
  const WebSocket_Options server = WebSocket_Options::instance();
  std::unique_ptr<HTTP_Session> session = HTTP_Session_Factory::create(server.host, server.port, server.ssl);
  if (!session) {
    raise_logical_alert(job_, ALERT_BACKUP_SERVER);
    ACE_ERROR((LM_ERROR, "Failed to create session, host: '%s', port: %d\n", server.host.c_str(),
               static_cast<int>(server.port)));
    return false;
  }
  session_.session(std::move(session));
  request_.cookie(server.cookie);
  return true;
}

void Backup_Executor::reset_activity()
{
  act_->progress = 0;
  act_->progress_total = 0;
  act_->progress_done = 0;
  act_->original_size = 0;
  act_->processed_size = 0;
  act_->storage_size = 0;
  uuid_ = uuid_binary_to_string(act_->uuid);
}

void Backup_Executor::init_destination_files(const std::string& prefix, unsigned seq, const std::string& root,
                                             const Sources& sources, std::vector<Backup_File>& files)
{
  const char* const level = job_def_subtype_to_string(def_.subtype());
  const std::string time = utc_time_text(act_->start_time);
  for (const Backup_Source_Collector::Source& source : sources) {
    std::string directory;
    string_sprintf(directory, "%s/%s", root.c_str(), directory_name(prefix, source.dbname).c_str());
    if (make_dirs(directory.c_str(), Dump_Directory::MODE) != 0)
      ACE_ERROR((LM_ERROR, "Failed to create directory %s, errno=%d, %m\n", directory.c_str(), errno));
    files.push_back(
        {source.dbname, source.schema, source.table, directory + file_name(source, level, time, seq)});
  }
}

bool Backup_Executor::find_login(Instance_Manager& manager, Run& run)
{
  if (manager.get_account("oscar", server_name(), def_.uid(), run.input.username, run.input.password,
                          nullptr) < 0)
    return fail(ALERT_ACCOUNT, "Fail to get oscar login info.\n");
  if (run.input.username.empty() || run.input.password.empty())
    return fail(ALERT_ACCOUNT, "The username or password of oscar is empty.\n");
  return true;
}

bool Backup_Executor::init_metadata(const std::string& instance, Oscar_Metadata& metadata)
{
  metadata.metadata(json_spirit::Object());
  return metadata.set_dbinstance(instance);
}

bool Backup_Executor::find_home(Instance_Manager& manager, Run& run)
{
  run.input.instance = server_name();
  run.input.files = run.files;
  run.input.log_msg_callback = job_.log_msg_callback();
  if (get_from_instance_options(manager.find("oscar", server_name()), "oscar_home", run.input.oscar_home))
    return true;
  return fail(ALERT_OSCAR_HOME, "Failed to get oscar_home.\n");
}

void Backup_Executor::set_archive(MTF_Backup& archive)
{
  std::string minor_id;
  if (compute_minor_resource_id(src_->id(), CATALOG_TYPE, minor_id))
    archive.minor_resource_id(minor_id);
  archive.pool_uuid(tgt_.id());
  archive.device_uuid(tgt_.device_id());
  archive.host_uuid(def_.host_id());
  archive.definition_uuid(def_.id());
  archive.uuid(uuid_);
  archive.compression(compression_to_mtf(opts_ ? opts_->compression() : COMPRESSION_NONE));
  if (opts_)
    archive.compression_level(opts_->compression_level());
  archive.incremental(false);
  set_options_by_job_def(archive.extra_client_io_opts(), def_, 1);
  set_options_by_host(archive.extra_client_io_opts());
}

bool Backup_Executor::back_up(Run& run, MTF_Backup& archive)
{
  if (!archive.backup(run.pool)) {
    if (!job_is_canceled(*act_))
      raise_logical_alert(job_, ALERT_STEP);
    return false;
  }
  members_ = archive.members();
  run.metadata.source_size(archive.source_size());
  run.metadata.set_size(archive.set_size());
  run.metadata.set_storage_size(archive.set_storage_size());
  act_->original_size = archive.source_size();
  act_->processed_size = archive.source_size();
  act_->storage_size = archive.set_storage_size();
  return true;
}

bool Backup_Executor::put_tablespaces(Run& run)
{
  const Backup_Input& input = run.input;
  unsigned short port = 0;
  if (!get_instance_port(input.oscar_home.c_str(), input.instance.c_str(), port))
    return fail(ALERT_STEP, "Failed to get port\n");
  std::vector<std::string> names;
  if (!read_tablespaces(job_, input.oscar_home, input.instance, input.username, input.password, port,
                        names)) {
    // Logged there. Without the list the set could not be restored.
    if (!job_is_canceled(*act_))
      raise_logical_alert(job_, ALERT_STEP);
    return false;
  }
  return run.metadata.set_tablespaces(std::vector<json_spirit::Value>(names.begin(), names.end()));
}

bool Backup_Executor::record(const Run& run, const MTF_Backup& archive)
{
  Oscar_Backup_Set set;
  build_oscar_backup_set(run.metadata, run.files, set);
  set.set_seq(archive.seq());
  set.add_piece(archive.backup_file(), archive.set_storage_size());
  set.set_original_checksum(archive.original_checksum());
  set.set_storage_checksum(archive.storage_checksum());
  if (Catalog_Operator(-1, -1).commit(set, true))
    return true;
  return fail(ALERT_STEP, "Failed to write catalog to backupd\n");
}

void Backup_Executor::add_file(const Backup_File& file, Oscar_Backup_Set& set) const
{
  const auto member = std::find_if(members_.begin(), members_.end(),
                                   [&file](const MTF::Stored_Member& m) { return m.path == file.file; });
  const bool stored = member != members_.end();
  // A whole server is found again by the server's name, and a table without a schema is a whole database, as
  // it was exported.
  set.add_file(file.database.empty() ? server_name() : file.database, file.schema,
               file.schema.empty() ? std::string() : file.table, file.file, stored ? member->size : 0,
               stored ? member->checksum : std::string());
}

void Backup_Executor::build_oscar_backup_set(const Oscar_Metadata& metadata,
                                             const std::vector<Backup_File>& files, Oscar_Backup_Set& set)
{
  set.set_catalog_type(CATALOG_TYPE);
  set.set_type(job_def_subtype_to_string(def_.subtype()));
  set.set_uuid(uuid_);
  set.set_uid(def_.uid());
  set.set_definition_uuid(def_.id());
  set.set_name(def_.name());
  set.set_agent(def_.agent());
  set.set_host_uuid(def_.host_id());
  set.set_resource_uuid(src_->id());
  std::string minor_id;
  if (compute_minor_resource_id(src_->id(), CATALOG_TYPE, minor_id))
    set.set_minor_resource_id(minor_id);
  else
    ACE_ERROR((LM_ERROR, "Failed to compute minor resource id for resource '%s' and backup type '%s'\n",
               src_->id().c_str(), CATALOG_TYPE));
  set.set_start_time(act_->start_time);
  set.set_end_time(kestrel::clock().now());
  set.set_backup_set_size(metadata.set_size());
  set.set_total_size(metadata.source_size());
  set.add_storage(Backup_Set_Storage(tgt_.id(), metadata.set_storage_size()));
  set.set_compression(compression_value_to_name(opts_ ? opts_->compression() : COMPRESSION_NONE));

  std::string instance;
  if (metadata.get_dbinstance(instance))
    set.set_dbinstance(instance);
  std::vector<json_spirit::Value> tablespaces;
  if (metadata.get_tablespaces(tablespaces))
    set.set_tablespaces(tablespaces);
  std::set<std::string> added;
  for (const Backup_File& file : files)
    if (added.insert(file.file).second)
      add_file(file, set);
}
} // namespace oscar
