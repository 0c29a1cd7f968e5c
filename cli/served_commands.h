#pragma once

#include "cli/console.h"

namespace kestrel
{
/// The commands over a backup server. Each returns the exit code of the process.
int served_sign_in(const Command_Line& line); ///< needs no session: makes one
int served_sign_out(const Command_Line& line);
int served_whoami(Console& console);
int served_status(Console& console);
int served_hosts(Console& console);
int served_instances(Console& console);
int served_login(Console& console);
int served_browse(Console& console);
int served_nodes(Console& console);

int served_jobs(Console& console);
int served_job_define(Console& console);
int served_job_show(Console& console);
int served_job_run(Console& console);
int served_job_pause(Console& console);
int served_job_resume(Console& console);
int served_job_cancel(Console& console);
int served_job_abort(Console& console);
int served_job_switch(Console& console);
int served_job_enable(Console& console);
int served_job_disable(Console& console);
int served_job_remove(Console& console);
int served_job_runs(Console& console);
int served_job_log(Console& console);
int served_run_file(Console& console);

int served_pool_add(Console& console);
int served_pool_list(Console& console);
int served_pool_remove(Console& console);

int served_users(Console& console);
int served_user_add(Console& console);
int served_user_remove(Console& console);
int served_audit(Console& console);
} // namespace kestrel
