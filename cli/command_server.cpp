#include "cli/command_server.h"

#include "agent/systemd_notify.h"
#include "base/log.h"
#include "base/path_conf.h"
#include "cli/command_output.h"
#include "server/server_host.h"
#include "server/server_setup.h"

#include <ace/Log_Msg.h>

#include <cerrno>
#include <clocale>
#include <csignal>
#include <ctime>
#include <sys/stat.h>

namespace kestrel
{
namespace
{
const int STOP_GRACE_MSEC = 10000;
const int64_t TURN_MSEC = 5000;
/// Reading the certificate again waits for the disk.
const int64_t STUCK_MSEC = 120 * 1000;

/// The next of the signals, 0 when the time is over.
int wait_for_signal(const sigset_t& signals, int64_t msec)
{
  struct timespec time;
  time.tv_sec = static_cast<time_t>(msec / 1000);
  time.tv_nsec = static_cast<long>(msec % 1000) * 1000000;
  const int signal = ::sigtimedwait(&signals, nullptr, &time);
  return signal > 0 ? signal : 0;
}

void reload(Server_Host& host, const Service_Notifier& notifier)
{
  std::string error;
  if (!notifier.reloading())
    ACE_DEBUG((LM_NOTICE, "(%P|%t) server: the service manager does not hear of the reload\n"));
  if (host.reload(error))
    ACE_DEBUG((LM_NOTICE, "(%P|%t) server: the certificate was read again\n"));
  else
    ACE_ERROR((LM_ERROR, "(%P|%t) server: the former certificate stays in use: %s\n", error.c_str()));
  if (!notifier.ready("serving"))
    ACE_DEBUG((LM_NOTICE, "(%P|%t) server: the service manager does not hear of the end of the reload\n"));
}

void serve(Server_Host& host, const Service_Notifier& notifier, Heartbeats& heartbeats,
           const sigset_t& signals)
{
  Heartbeat heartbeat(&heartbeats, "main loop", STUCK_MSEC);
  bool heard = notifier.ready("serving");
  for (;;) {
    const int signal = wait_for_signal(signals, TURN_MSEC);
    heartbeat.beat();
    if (signal == SIGHUP)
      reload(host, notifier);
    else if (signal != 0)
      break;
  }
  heard = notifier.stopping("ending running requests") && heard;
  if (!heard)
    ACE_DEBUG((LM_NOTICE, "(%P|%t) server: the service manager did not hear everything\n"));
}
} // namespace

int run_server(const Command_Line& line, const Server_Arguments& arguments)
{
  Command_Output output(line);
  ::setlocale(LC_ALL, "");
  ::umask(077);
  ::signal(SIGPIPE, SIG_IGN);
  set_component_name("server");
  const Service_Notifier notifier = Service_Notifier::from_environment();
  // Before the first thread, so that all of them leave these signals to this one.
  sigset_t signals;
  ::sigemptyset(&signals);
  for (const int signal : {SIGTERM, SIGINT, SIGHUP})
    ::sigaddset(&signals, signal);
  ::pthread_sigmask(SIG_BLOCK, &signals, nullptr);

  std::string error;
  Server_Config config;
  if (!load_server_config(arguments.config, config, error))
    return output.fail(error);
  Log_Options log;
  log.file = Path_Conf("/var/log/kestrel3").path("server.log");
  log.to_stderr = line.verbose;
  if (!open_process_log(log, error))
    return output.fail("the server cannot be started: " + error);
  Heartbeats heartbeats;
  Server_Host host;
  if (!host.start(config, error, &heartbeats)) {
    ACE_ERROR((LM_ERROR, "(%P|%t) server: not started: %s\n", error.c_str()));
    return output.fail("the server cannot be started: " + error);
  }
  output.note("Serving on " + config.address + " port " + std::to_string(host.port()) + ".");
  ACE_DEBUG((LM_NOTICE, "(%P|%t) server: serving on %s port %d\n", config.address.c_str(), int(host.port())));
  // Also while it stops.
  Watchdog watchdog(notifier, heartbeats);
  watchdog.start();
  serve(host, notifier, heartbeats, signals);
  host.stop(STOP_GRACE_MSEC);
  watchdog.stop();
  ACE_DEBUG((LM_NOTICE, "(%P|%t) server: ended\n"));
  close_process_log();
  return EXIT_CODE_DONE;
}
} // namespace kestrel
