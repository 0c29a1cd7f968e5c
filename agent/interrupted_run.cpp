#include "agent/interrupted_run.h"

#include "agent/run_history.h"
#include "base/clock.h"
#include "base/durable_file.h"
#include "jobs/job_activity.h"
#include "storage/pool_registry.h"
#include "json/json_util.h"

#include <boost/algorithm/string/predicate.hpp>

#include <cstring>
#include <filesystem>
#include <sys/stat.h>

namespace kestrel
{
namespace
{
constexpr std::size_t max_named_files = 10;

/// The job's own record, which may still be that of the run before. False when there is none.
bool read_activity(const std::string& definition_id, Job_Activity& activity)
{
  std::string bytes;
  std::string unreadable;
  if (!read_whole_file(Job_Activity_Path_Conf::path(definition_id), bytes, unreadable, 64 * 1024) ||
      bytes.size() < sizeof activity)
    return false;
  std::memcpy(static_cast<void*>(&activity), bytes.data(), sizeof activity);
  return activity.magic == Job_Activity::MAGIC;
}

/// In what state a restore that was killed leaves what it restored; empty for other jobs.
std::string restore_remark(const std::string& document)
{
  json_spirit::Value value;
  std::string unreadable;
  if (!read_json(document, value, unreadable) || value.type() != json_spirit::obj_type)
    return std::string();
  const auto is = [&value](const char* key, const char* name, int number) {
    const json_spirit::Value& member = json_spirit::find_value(value.get_obj(), key);
    return member == json_spirit::Value(name) || member == json_spirit::Value(number);
  };
  if (!is("type", "restore", JOB_DEFINITION_RESTORE))
    return std::string();
  if (is("subtype", "import", JOB_DEFINITION_SUBTYPE_IMPORT))
    return "; what was imported until then stays in the database";
  return "; the instance may not be usable until it is restored again: "
         "the job's log names the sets that were applied";
}

/// The directory of the definition's files in its pool, where that is a directory of this host.
std::string storage_directory(const std::string& document)
{
  json_spirit::Value value;
  std::string unreadable;
  if (!read_json(document, value, unreadable))
    return std::string();
  try {
    const std::string source_id =
        required<std::string>(required<json_spirit::Object>(value.get_obj(), "source"), "id");
    const std::string pool =
        required<std::string>(required<json_spirit::Object>(value.get_obj(), "target"), "id");
    Pool_Info info;
    if (source_id.find('/') != std::string::npos || !Pool_Registry().find(pool, info, unreadable) ||
        info.storage_path.empty())
      return std::string();
    return info.storage_path + "/" + source_id;
  } catch (const std::exception&) {
    return std::string();
  }
}

std::vector<std::string> unfinished_files(const std::string& directory, time_t since)
{
  std::vector<std::string> files;
  std::error_code failure;
  if (directory.empty())
    return files;
  for (std::filesystem::directory_iterator entry(directory, failure), end; !failure && entry != end;
       entry.increment(failure)) {
    const std::filesystem::path& path = entry->path();
    struct stat status;
    if (boost::ends_with(path.string(), ".partial") && ::stat(path.c_str(), &status) == 0 &&
        status.st_mtime >= since)
      files.push_back(path);
  }
  return files;
}

std::string list_of(const std::vector<std::string>& paths)
{
  std::string text;
  for (std::size_t index = 0; index < paths.size() && index < max_named_files; ++index)
    text += (index ? ", " : "") + paths[index];
  if (paths.size() > max_named_files)
    text += " and " + std::to_string(paths.size() - max_named_files) + " more";
  return text;
}
} // namespace

time_t last_start_of(const std::string& definition_id)
{
  Job_Activity activity;
  return read_activity(definition_id, activity) ? static_cast<time_t>(activity.start_time) : 0;
}

void end_interrupted_run(Run_Record& record, const std::string& document,
                         const std::vector<std::string>& removed)
{
  Job_Activity activity;
  const bool told = read_activity(record.definition_id, activity);
  // Within one second a run may end and the next be asked for: times alone do not tell them apart.
  const bool begun = told && (record.former_start < 0 ? activity.start_time >= record.queued_at
                                                      : activity.start_time != 0 &&
                                                            activity.start_time != record.former_start);
  record.ended_at = clock().now();
  // A store that failed has no note of a start; the job's own record is a file of its own.
  if (record.started_at == 0 && !begun) {
    record.state = JOB_STATE_CANCELED;
    record.reason = "the agent ended before the run began";
    return;
  }
  record.state = JOB_STATE_ERROR;
  if (record.started_at == 0)
    record.started_at = activity.start_time;
  record.reason = told && !begun ? "the agent ended while the job was starting"
                                 : "the agent ended while the job was running";
  if (begun)
    record.reason += std::string(" (its record says ") + job_state_text(activity.state) + ", " +
                     std::to_string(activity.progress) + "%)";
  const std::vector<std::string> files = unfinished_files(storage_directory(document), record.started_at);
  if (!files.empty())
    record.reason += "; unfinished in the pool: " + list_of(files);
  if (!removed.empty())
    record.reason += "; cleared away: " + list_of(removed);
  if (begun)
    record.reason += restore_remark(document);
}
} // namespace kestrel
