#pragma once

#include "rpc/rest_router.h"
#include "server/job_definitions.h"
#include "server/run_records.h"

#include <functional>
#include <map>
#include <string>
#include <vector>

namespace kestrel
{
class Agent_Hub;
class Host_Gate;
class Job_Sync;
class Run_Records;

/// /k2/r/jobs: job definitions, and what is asked of their hosts.
/// Threads: as the router. Ownership: nothing is owned; all must outlive the router.
class Job_Resources
{
public:
  /// `new_run` is called before hosts are asked to run a job.
  Job_Resources(Agent_Hub& hub, Host_Gate& gate, Job_Definitions& definitions, Job_Sync& sync,
                Run_Records& runs, std::function<void(const std::string& definition_id)> new_run)
      : hub_(hub), gate_(gate), definitions_(definitions), sync_(sync), runs_(runs), new_run_(std::move(new_run))
  {
  }
  void add_to(REST_Router& router);

private:
  REST_Reply list(REST_Request& request);
  REST_Reply show(REST_Request& request);
  REST_Reply add(REST_Request& request);
  REST_Reply change(REST_Request& request);
  REST_Reply remove(REST_Request& request);
  REST_Reply control(REST_Request& request);
  REST_Reply set_enabled(const Server_Definition_Ptr& definition, bool enabled, const REST_Request& request);
  json_spirit::Object to_json(const Server_Definition& definition) const;
  typedef std::map<Run_Records::Node, json_spirit::Object> Newest_Runs;
  Newest_Runs newest_of(const std::vector<Server_Definition_Ptr>& definitions) const;
  /// The same with `nobody_worked`.
  json_spirit::Object to_json_with_outcome(const Server_Definition& definition, const Newest_Runs& newest) const;
  json_spirit::Object state_on(const std::string& host_uuid, const Server_Definition& definition) const;
  /// Of a cluster's job: why its last start left the work undone, else empty.
  std::string nobody_worked(const Server_Definition& definition, const Newest_Runs& newest) const;
  json_spirit::Object result_of(const std::string& host_uuid) const;
  void await_sync(const std::vector<std::string>& hosts);
  void tell_hosts(const Server_Definition_Ptr& former, const Server_Definition_Ptr& stored);

  Agent_Hub& hub_;
  Host_Gate& gate_;
  Job_Definitions& definitions_;
  Job_Sync& sync_;
  Run_Records& runs_;
  const std::function<void(const std::string&)> new_run_;
};
} // namespace kestrel
