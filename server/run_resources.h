#pragma once

#include "rpc/rest_router.h"

namespace kestrel
{
class Agent_Hub;
class Host_Gate;
class Job_Definitions;
class Run_Records;

/// /k2/r/runs and /k2/r/jobs/{id}/runs: what became of runs.
/// Threads: as the router. Ownership: nothing is owned; all must outlive the router.
class Run_Resources
{
public:
  Run_Resources(Agent_Hub& hub, Host_Gate& gate, Run_Records& runs, Job_Definitions& definitions)
      : hub_(hub), gate_(gate), runs_(runs), definitions_(definitions)
  {
  }
  void add_to(REST_Router& router);

private:
  REST_Reply report(REST_Request& request);
  REST_Reply list(REST_Request& request, const std::string& definition_id);
  REST_Reply list_of_job(REST_Request& request);
  REST_Reply show(REST_Request& request);
  REST_Reply log(REST_Request& request);

  Agent_Hub& hub_;
  Host_Gate& gate_;
  Run_Records& runs_;
  Job_Definitions& definitions_;
};
} // namespace kestrel
