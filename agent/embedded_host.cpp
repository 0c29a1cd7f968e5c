#include "agent/embedded_host.h"

#include "agent/failure_text.h"
#include "base/clock.h"
#include "base/file_lock.h"
#include "base/log.h"
#include "base/path_conf.h"
#include "base/scope_guard.h"
#include "base/uuid.h"
#include "instances/instance_handler.h"
#include "jobs/job.h"
#include "jobs/job_creator.h"
#include "jobs/job_event.h"

#include <cerrno>
#include <climits>
#include <clocale>
#include <csignal>
#include <cstring>
#include <unistd.h>

namespace kestrel
{
namespace
{
constexpr int64_t poll_msec = 100;

std::string default_module_path()
{
  char path[PATH_MAX];
  const ssize_t length = ::readlink("/proc/self/exe", path, sizeof path);
  std::string program(path, length > 0 ? static_cast<size_t>(length) : 0);
  program.erase(program.find_last_of('/') == std::string::npos ? 0 : program.find_last_of('/'));
  for (const char* place : {"/../lib/oscar.so", "/../lib/kestrel/oscar.so", "/oscar.so"})
    if (::access((program + place).c_str(), R_OK) == 0)
      return program + place;
  return program + "/../lib/oscar.so";
}

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

/// Runs with the same key exclude each other. An import may run beside everything else on its source, but two
/// runs of one definition would share the directory of their files.
std::string lock_key(const Job_Definition& definition)
{
  const bool import =
      definition.type() == JOB_DEFINITION_RESTORE && definition.subtype() == JOB_DEFINITION_SUBTYPE_IMPORT;
  return definition.source() && !import ? definition.source()->id() : definition.id();
}

/// Waits for the runs of other processes with the same key. False when a cancel came first.
bool lock_runs(const std::string& key, const Job_Run_Hooks& hooks, File_Lock& lock, std::string& error)
{
  const std::string path =
      Path_Conf("/var/opt/tarnvik/kestrel3/$COMPONENT", "locks").path((name_uuid(key) + ".lock").c_str());
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

  auto module = std::make_unique<Oscar_Module>();
  if (!module->open(options.module_path.empty() ? default_module_path() : options.module_path, error))
    return false;
  module->add_parsers_to(loader_);
  instances_ = std::make_unique<Instance_Registry>(identity_.host_id);
  pools_ = std::make_unique<Pool_Registry>();
  module_ = std::move(module);
  return true;
}

bool Embedded_Host::run(const Job_Definition_Ptr& definition, const Job_Run_Hooks& hooks, Job_Run_Result& result,
                        std::string& error)
{
  if (!present_ && !presence_.enter(error))
    return false;
  present_ = true;

  errno = 0;
  ACE_Intrusive_Auto_Ptr<Job> job = module_->job_creator().create(definition);
  if (!job.get()) {
    error = refusal_reason(errno);
    return false;
  }
  File_Lock source_lock;
  if (!lock_runs(lock_key(*definition), hooks, source_lock, error)) {
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
