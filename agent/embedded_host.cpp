#include "agent/embedded_host.h"

#include "agent/agent_config.h"
#include "agent/failure_text.h"
#include "agent/run_lock.h"
#include "base/clock.h"
#include "base/file_lock.h"
#include "base/log.h"
#include "base/path_conf.h"
#include "base/scope_guard.h"
#include "instances/instance_handler.h"
#include "jobs/job.h"
#include "jobs/job_creator.h"
#include "jobs/job_event.h"

#include <cerrno>
#include <clocale>
#include <csignal>
#include <cstring>
#include <unistd.h>

namespace kestrel
{
namespace
{
constexpr int64_t poll_msec = 100;

/// Hands the events of one definition to the hooks of its run.
class Run_Listener : public Job_Event_Listener
{
public:
  Run_Listener(const Job_Run_Hooks& hooks, const std::string& definition_id)
      : hooks_(hooks), definition_id_(definition_id)
  {
    Job_Event_Manager::instance()->add_listener(this);
  }
  ~Run_Listener() override { Job_Event_Manager::instance()->remove_listener(this); }

  void handle_start(const Job_Start_Event& event) override
  {
    if (hooks_.started && event.definition_id() == definition_id_)
      hooks_.started();
  }
  void handle_progress(const Job_Progress_Event& event) override
  {
    if (hooks_.progress && event.definition_id() == definition_id_)
      hooks_.progress(event.b(), event.a());
  }

  void handle_item(const Job_Item_Event& event) override
  {
    if (hooks_.item && event.definition_id() == definition_id_)
      hooks_.item(event.item(), event.number(), event.total());
  }

private:
  const Job_Run_Hooks& hooks_;
  const std::string definition_id_;
};

/// Waits for the runs of other processes with the same lock. False when a cancel came first.
bool lock_runs(const std::string& path, const Job_Run_Hooks& hooks, File_Lock& lock, std::string& error)
{
  bool noted = false;
  while (!lock.try_lock(path)) {
    if (errno != EWOULDBLOCK) {
      error = "cannot lock " + path + ": " + std::strerror(errno);
      return false;
    }
    if (!noted && hooks.note)
      hooks.note("waiting for another job on the same instance to end");
    noted = true;
    if (hooks.cancel_requested && hooks.cancel_requested()) {
      error.clear();
      return false;
    }
    clock().sleep_msec(poll_msec);
  }
  return true;
}

const char* refusal_reason(int error_number)
{
  switch (error_number) {
  case ENOMEM:
    return "out of memory";
  default:
    return "the module knows no jobs of this type";
  }
}
} // namespace

Embedded_Host::Embedded_Host() = default;

Embedded_Host::~Embedded_Host()
{
  // Code of the module may run until here; after it the module can be unloaded.
  const bool all_ended = Job::wait_all_runs(-1);
  if (!all_ended)
    ::abort();
  Job_Event_Manager::instance()->flush();
}

bool Embedded_Host::start(const Options& options, std::string& error)
{
  ::setlocale(LC_ALL, "");
  ::signal(SIGPIPE, SIG_IGN);
  Log_Options log;
  log.file = Path_Conf("/var/log/kestrel3").path("kestrel.log");
  log.to_stderr = options.stderr_log;
  if (!open_process_log(log, error))
    return false;
  if (!load_host_identity(identity_, error))
    return false;

  std::vector<Module_Config> modules = default_agent_config().modules;
  // Nobody asks this process through JSON-RPC.
  modules.front().rpc.clear();
  if (!options.module_path.empty())
    modules.front().path = options.module_path;
  if (!modules_.open(modules, error))
    return false;
  instances_ = std::make_unique<Instance_Registry>(identity_.host_id);
  pools_ = std::make_unique<Pool_Registry>();
  return true;
}

bool Embedded_Host::run(const Job_Definition_Ptr& definition, const Job_Run_Hooks& hooks,
                        Job_Run_Result& result, std::string& error)
{
  if (!present_ && !presence_.enter(error))
    return false;
  present_ = true;

  errno = 0;
  Job_Creator* const creator = modules_.job_creator(definition->type(), definition->subtype());
  ACE_Intrusive_Auto_Ptr<Job> job;
  if (creator)
    job = creator->create(definition);
  if (!job.get()) {
    error = refusal_reason(errno);
    return false;
  }
  File_Lock source_lock;
  if (!lock_runs(run_lock_path(*definition), hooks, source_lock, error)) {
    if (!error.empty())
      return false;
    result.state = JOB_STATE_CANCELED;
    return true;
  }

  Job_Run_Result ran;
  {
    const Run_Listener listener(hooks, definition->id());
    if (job->start() != 0) {
      error = std::string("the job did not start: ") + std::strerror(errno);
      return false;
    }
    bool stopped = false;
    while (!job->wait_end(poll_msec)) {
      if (!stopped && hooks.cancel_requested && hooks.cancel_requested())
        stopped = job->stop() == 0;
    }
    Job_Event_Manager::instance()->flush();
  }
  ran.state = job->state();
  ran.alerts = job->alerts();
  ran.log_path = job->log_path();
  ran.reason = reason_from_job_log(ran.log_path);
  result = ran;
  return true;
}
} // namespace kestrel
