#pragma once

#include "cli/console.h"

#include <string>
#include <vector>

namespace kestrel
{
/// What one host made of a control request.
struct Control_Result {
  std::string host_uuid;
  std::string run_id;
  std::string problem;      ///< empty: done
  bool unknown_job = false; ///< the host does not know the definition (yet)
};

/// Asks hosts (empty: all of the job's) for "run", "pause", "resume", "cancel", "abort", "switch", "enable"
/// or "disable". A host that does not know a definition yet, because it has just been made, is asked again
/// for a few seconds.
[[nodiscard]] bool control_job(Console& console, const std::string& job_id, const std::string& action,
                               const std::vector<std::string>& host_uuids,
                               std::vector<Control_Result>& results, REST_Problem& problem);

/// What a definition must have: made whole by define_job().
struct Job_To_Define {
  json_spirit::Object document;
  std::vector<std::string> host_uuids;
  bool enabled = true;
};

/// Creates the definition, or updates the one with the document's id. `created` tells which.
[[nodiscard]] bool define_job(Console& console, const Job_To_Define& job, bool& created,
                              json_spirit::Object& reply, REST_Problem& problem);

/// The job that `reference` means: an id, a unique beginning of one, or a name that only one has. The whole
/// entry in `job`. False after fail(), which lists the candidates when there are several.
[[nodiscard]] bool find_job(Console& console, const std::string& reference, json_spirit::Object& job);
/// The same for a run; `quiet_when_missing` returns false without a word when nothing fits.
[[nodiscard]] bool find_run(Console& console, const std::string& reference, bool quiet_when_missing,
                            json_spirit::Object& run);

/// Name of a job's entry.
std::string job_name(const json_spirit::Object& job);
/// "backup full", "restore", "export" ...: what a document says it does.
std::string job_kind(const json_spirit::Object& document);
/// What a host told last of the job, as a word: "running", "idle", ...; "-" when nothing.
std::string state_on_host(const json_spirit::Object& job, const std::string& host_uuid);

/// Every definition, by name.
[[nodiscard]] bool list_jobs(Console& console, std::vector<json_spirit::Object>& jobs);
} // namespace kestrel
