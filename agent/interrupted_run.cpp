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

/// How far the run was by the job's own record, which may still be that of the run before.
std::string how_far(const std::string& definition_id, time_t queued_at)
{
  const std::string running = "the agent ended while the job was running";
  std::string bytes;
  std::string unreadable;
  Job_Activity activity;
  if (!read_whole_file(Job_Activity_Path_Conf::path(definition_id), bytes, unreadable, 64 * 1024) ||
      bytes.size() < sizeof activity)
    return running;
  std::memcpy(static_cast<void*>(&activity), bytes.data(), sizeof activity);
  if (activity.magic != Job_Activity::MAGIC)
    return running;
  if (activity.start_time < queued_at)
    return "the agent ended while the job was starting";
  return running + " (its record says " + job_state_text(activity.state) + ", " +
         std::to_string(activity.progress) + "%)";
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

void end_interrupted_run(Run_Record& record, const std::string& document,
                         const std::vector<std::string>& removed)
{
  record.ended_at = clock().now();
  if (record.started_at == 0) {
    record.state = JOB_STATE_CANCELED;
    record.reason = "the agent ended before the run began";
    return;
  }
  record.state = JOB_STATE_ERROR;
  record.reason = how_far(record.definition_id, record.queued_at);
  const std::vector<std::string> files = unfinished_files(storage_directory(document), record.started_at);
  if (!files.empty())
    record.reason += "; unfinished in the pool: " + list_of(files);
  if (!removed.empty())
    record.reason += "; cleared away: " + list_of(removed);
}
} // namespace kestrel
