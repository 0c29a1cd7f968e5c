#pragma once

#include "jobs/job_document.h"
#include "jobs/job_schedule.h"
#include "jobs/job_types.h"
#include "storage/rate_limits.h"

#include <ace/Refcounted_Auto_Ptr.h>
#include <ace/Thread_Mutex.h>

#include <string>
#include <vector>

/// Where a job's data goes: a pool, and a device in it when the pool has several.
class Job_Target
{
public:
  Job_Target() = default;
  explicit Job_Target(std::string id, std::string device_id = std::string())
      : id_(std::move(id)), device_id_(std::move(device_id))
  {
  }

  const std::string& id() const { return id_; }
  const std::string& device_id() const { return device_id_; }

private:
  std::string id_;
  std::string device_id_;
};

namespace kestrel
{
/// Everything a job definition holds. Filled by the loader or by code, then handed to Job_Definition.
struct Job_Definition_Fields {
  Job_Definition_Type type = JOB_DEFINITION_NONE;
  Job_Definition_Subtype subtype = JOB_DEFINITION_SUBTYPE_NONE;
  std::string id;  // uuid of the definition
  std::string uid; // uuid of the user who owns it
  std::string name;
  std::string agent;
  std::string host_id;
  std::string rsrc_form; // not empty: the source is a cluster resource
  Job_Target target;
  ACE_Refcounted_Auto_Ptr<Job_Source, ACE_Thread_Mutex> source;
  ACE_Refcounted_Auto_Ptr<Job_Options, ACE_Thread_Mutex> options;
  std::vector<Job_Schedule_Ptr> schedules;
  bool periodic = false;
  unsigned max_seconds_retry = 0;
  unsigned resumption_buffer_size = 0; // bytes
  Rate_Limits rate_limits;
  bool server_side_dedup = false;
  std::string backup_protection_password; // only its emptiness is tested
  std::string precondition;
  std::string pre_action;
  std::string post_action;
  bool ignore_pre_action_failure = false;
  bool ignore_post_action_failure = false;
  bool run_post_action_always = false;
};
} // namespace kestrel

/// What a job is to do, shared by everyone who drives or runs it.
/// Threads:   immutable after construction (but for what a module stores into its own source document).
/// Ownership: owns its documents; references handed out live as long as the definition.
class Job_Definition
{
public:
  explicit Job_Definition(kestrel::Job_Definition_Fields fields);
  ~Job_Definition();
  Job_Definition(const Job_Definition&) = delete;
  Job_Definition& operator=(const Job_Definition&) = delete;

  Job_Definition_Type type() const { return fields_.type; }
  Job_Definition_Subtype subtype() const { return fields_.subtype; }
  const std::string& id() const { return fields_.id; }
  const std::string& uid() const { return fields_.uid; }
  const std::string& name() const { return fields_.name; }
  const std::string& agent() const { return fields_.agent; }
  const std::string& host_id() const { return fields_.host_id; }
  const std::string& rsrc_form() const { return fields_.rsrc_form; }
  const Job_Target& target() const { return fields_.target; }
  /// The parsed documents, or null when the definition has none.
  const Job_Source* source() const { return fields_.source.get(); }
  const Job_Options* options() const { return fields_.options.get(); }
  const std::vector<Job_Schedule_Ptr>& schedules() const { return fields_.schedules; }
  bool periodic() const { return fields_.periodic; }
  unsigned max_seconds_retry() const { return fields_.max_seconds_retry; }
  unsigned resumption_buffer_size() const { return fields_.resumption_buffer_size; }
  const Rate_Limits& rate_limits() const { return fields_.rate_limits; }
  bool server_side_dedup() const { return fields_.server_side_dedup; }
  const std::string& backup_protection_password() const { return fields_.backup_protection_password; }
  const std::string& precondition() const { return fields_.precondition; }
  const std::string& pre_action() const { return fields_.pre_action; }
  const std::string& post_action() const { return fields_.post_action; }
  bool ignore_pre_action_failure() const { return fields_.ignore_pre_action_failure; }
  bool ignore_post_action_failure() const { return fields_.ignore_post_action_failure; }
  bool run_post_action_always() const { return fields_.run_post_action_always; }

  const kestrel::Job_Definition_Fields& fields() const { return fields_; }

private:
  kestrel::Job_Definition_Fields fields_;
};

typedef ACE_Refcounted_Auto_Ptr<Job_Definition, ACE_Thread_Mutex> Job_Definition_Ptr;
