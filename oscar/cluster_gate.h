#pragma once

#include "jobs/job_definition.h"

#include <string>

namespace oscar
{
/// Every node of a cluster runs the same job: this asks whether this one does the work. True for a job that
/// does not address a cluster resource; then nobody is asked. Otherwise it may block for as long as
/// Oscar_Cluster_Node_Manager::is_selected_node() does.
/// Threads: job threads, several at once.
/// Errors:  false when the job is another node's or nobody's, after one line that tells which.
[[nodiscard]] bool cluster_lets_backup_run(const Job_Definition& definition, const std::string& instance,
                                           bool select_master);
/// A restore is the master's.
[[nodiscard]] bool cluster_lets_restore_run(const Job_Definition& definition, const std::string& instance);
} // namespace oscar
