#pragma once

#include "rpc/rest_router.h"

namespace kestrel
{
class Agent_Hub;
class Cluster_Coordinator;
class Cluster_History;
class Job_Definitions;

/// /k2/r/oscar/cluster: agents ask for the choice of a node; people see what was chosen, and why.
/// Threads: as the router. Ownership: nothing is owned; all must outlive the router.
class Cluster_Resources
{
public:
  Cluster_Resources(Cluster_Coordinator& coordinator, Cluster_History& history, Job_Definitions& definitions)
      : coordinator_(coordinator), history_(history), definitions_(definitions)
  {
  }
  void add_to(REST_Router& router);

private:
  REST_Reply request(REST_Request& request);
  REST_Reply list(REST_Request& request);

  Cluster_Coordinator& coordinator_;
  Cluster_History& history_;
  Job_Definitions& definitions_;
};
} // namespace kestrel
