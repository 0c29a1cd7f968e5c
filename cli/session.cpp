#include "cli/session.h"

#include "agent/backup_deletion.h"
#include "agent/backup_verifier.h"
#include "agent/failure_text.h"
#include "agent/run_lock.h"
#include "agent/server_key.h"
#include "base/file_lock.h"
#include "catalog/catalog_back_end.h"
#include "cli/job_command.h"

#include <boost/algorithm/string/case_conv.hpp>

#include <cerrno>
#include <cstring>
#include <set>
#include <unistd.h>

namespace kestrel
{
namespace
{
/// How long a catalog that another process keeps busy is asked again.
const int CATALOG_SECONDS = 10;
} // namespace

bool Session::start()
{
  Embedded_Host::Options options;
  options.stderr_log = line().verbose;
  std::string error;
  Server_Key key;
  if (!host_.start(options, error) || !load_server_key(key, error)) {
    fail("kestrel cannot start: " + error +
         (::geteuid() != 0 && line().root.empty()
              ? "; run it as root, or give --root DIR for a tree of your own"
              : ""));
    return false;
  }
  return line().local || !key.enrolled() || allowed_beside_server(key.url);
}

bool Session::allowed_beside_server(const std::string& url)
{
  const std::string& command = line().command;
  const std::set<std::string> adding = {"backup", "export", "run", "pool add", "pool remove"};
  const std::set<std::string> unconcerned = {"instances", "login"};
  if (adding.count(command) != 0) {
    fail("this host is enrolled at " + url + ", which keeps its backups and pools: give --server " + url +
         ", or --local to use the catalog and the pools of this host alone");
    return false;
  }
  if (unconcerned.count(command) == 0)
    note("this host is enrolled at " + url + "; this is about what it keeps itself, see --server");
  return true;
}

bool Session::find_registered(const std::string& name, Known_Instance& instance, std::string& error)
{
  std::vector<Instance_Registry::Entry> entries;
  if (host_.instances().list(entries, error) != 0)
    return false;
  for (const std::string& wanted : {name, boost::to_upper_copy(name)}) {
    for (const Instance_Registry::Entry& candidate : entries) {
      if (candidate.instance.name == wanted) {
        instance = {candidate.instance.name, candidate.instance.uuid, host_.identity().host_id, "",
                    !candidate.accounts.empty()};
        return true;
      }
    }
  }
  error.clear();
  return false;
}

bool Session::find_instance(const std::string& name, Known_Instance& instance)
{
  std::string error;
  if (find_registered(name, instance, error))
    return true;
  if (error.empty() && host_.instances().probe(host_.instance_handler(), error) == 0 &&
      find_registered(name, instance, error))
    return true;
  fail(error.empty()
           ? "there is no instance " + name + " on this host; start it and look at 'kestrel instances'"
           : error);
  return false;
}

bool Session::find_instance_of(const std::string& resource_uuid, Known_Instance& instance)
{
  std::string name;
  if (knows_instance(resource_uuid, name))
    return find_instance(name, instance);
  fail("this host does not know the instance that was backed up (" + resource_uuid.substr(0, 8) +
           "); say where to with --instance NAME",
       EXIT_CODE_USAGE);
  return false;
}

bool Session::knows_instance(const std::string& resource_uuid, std::string& name)
{
  std::vector<Instance_Registry::Entry> entries;
  std::string error;
  if (host_.instances().list(entries, error) != 0)
    return false;
  for (const Instance_Registry::Entry& entry : entries) {
    if (entry.instance.uuid == resource_uuid) {
      name = entry.instance.name;
      return true;
    }
  }
  return false;
}

std::string Session::instance_name(const std::string& resource_uuid)
{
  std::string name;
  return knows_instance(resource_uuid, name) ? name : resource_uuid.substr(0, 8);
}

bool Session::find_pool(const std::string& id_or_name, Pool_Info& pool, std::string& error)
{
  return id_or_name.empty() ? host_.pools().default_pool(pool, error)
                            : host_.pools().find(id_or_name, pool, error);
}

Host_Identity Session::identity_for(const Known_Instance&)
{
  return host_.identity();
}

bool Session::check_stored(const Backup_Entry& backup, const std::string& pool_id, std::string& problem)
{
  const Verification file = probe_backup(backup, pool_id);
  if (file.outcome == Verification::Outcome::good)
    return true;
  problem = file.problem;
  return false;
}

bool Session::delete_stored(const Stored_Reference& backup, bool keep_file, std::string& problem)
{
  // An import reads one file that it has opened; a restore goes from file to file.
  File_Lock lock;
  if (!backup.exported && !lock.try_lock(run_lock_path(backup.resource_uuid))) {
    problem = errno == EWOULDBLOCK
                  ? "a job of " + instance_name(backup.resource_uuid) +
                        " is under way and may need the backup; try again when it has ended"
                  : "the lock of the instance's jobs cannot be used: " + std::string(::strerror(errno));
    return false;
  }
  Backup_Deletion deletion(catalog_back_end(), host_.pools(), CATALOG_SECONDS);
  Deleted_Backup deleted;
  Deletion_Problem found;
  if (deletion.run(backup.id, keep_file, deleted, found))
    return true;
  problem = found.text;
  return false;
}

Job_Report Session::run_document(const Known_Instance&, const std::string& document, const Job_Words& words)
{
  Job_Definition_Ptr definition;
  std::string error;
  if (host_.loader().load(document, definition, error))
    return run_job(*this, definition, words);
  Job_Report report;
  report.exit_code = fail("the " + words.what + " cannot be defined: " + error);
  return report;
}

std::string Session::fallback_reason(const Job_Run_Result& run)
{
  return fallback_from_job_log(run.log_path);
}
} // namespace kestrel
