#include "lab/common/server_control.h"

#include "lab/common/child.h"
#include "lab/common/text.h"

#include <cerrno>
#include <csignal>
#include <ctime>
#include <unistd.h>

namespace oscar_lab
{

namespace
{

constexpr int stop_timeout_msec = 120 * 1000;

struct Process_State {
  std::string letter; // "R", "S", "Z"..., empty when there is no such process
  std::string parent;
};

Process_State process_state(pid_t pid)
{
  try {
    const std::string text = read_file("/proc/" + std::to_string(pid) + "/stat");
    const auto end_of_name = text.rfind(')');
    if (end_of_name == std::string::npos)
      return {};
    const std::string rest = text.substr(end_of_name + 2); // "S 1234 ..."
    return {rest.substr(0, 1), rest.substr(2, rest.find(' ', 2) - 2)};
  } catch (const Failure&) {
    return {};
  }
}

std::string command_line_of(pid_t pid)
{
  try {
    return read_file("/proc/" + std::to_string(pid) + "/cmdline");
  } catch (const Failure&) {
    return {};
  }
}

bool alive(pid_t pid)
{
  const std::string state = process_state(pid).letter;
  return !state.empty() && state != "Z" && state != "X";
}

} // namespace

pid_t running_server(const Instance_Files& files)
{
  if (!is_regular_file(files.pid_file()))
    return 0;
  std::uint64_t pid = 0;
  if (!parse_number(trim(read_file(files.pid_file())), INT32_MAX, pid) || pid < 2)
    return 0;
  // Another process may have got the number since.
  const std::string program = files.bin("oscar") + std::string(1, '\0');
  if (!alive(static_cast<pid_t>(pid)) || !starts_with(command_line_of(static_cast<pid_t>(pid)), program))
    return 0;
  return static_cast<pid_t>(pid);
}

bool accepts_logins(const Instance_Files& files)
{
  try {
    // The state is in the eighth line. A killed server leaves the file with its own number in the first.
    const auto lines = split_lines(read_file(files.data() + "/postmaster.pid"));
    std::uint64_t pid = 0;
    if (lines.size() < 8 || trim(lines[7]) != "ready" || !parse_number(trim(lines[0]), INT32_MAX, pid))
      return false;
    const pid_t server = running_server(files);
    return server != 0 && process_state(static_cast<pid_t>(pid)).parent == std::to_string(server);
  } catch (const Failure&) {
    return false;
  }
}

bool wait_until(const std::function<bool()>& done, int timeout_msec)
{
  for (int waited_msec = 0; !done(); waited_msec += 20) {
    if (waited_msec >= timeout_msec)
      return false;
    const timespec pause{0, 20 * 1000 * 1000};
    ::nanosleep(&pause, nullptr);
  }
  return true;
}

bool start_server(const Instance_Files& files)
{
  const Child_Result result =
      run_child({files.bin("oscar"), "--start", files.name}, Owner{::geteuid(), ::getegid()});
  if (result.status != 0) {
    const std::string text = trim(result.output);
    throw Failure(starts_with(text, "oscar: ERROR, ") ? text.substr(14)
                                                      : "the server did not start: " + text);
  }
  return trim(result.output) == "instance " + files.name + " started";
}

bool stop_server(const Instance_Files& files)
{
  const pid_t pid = running_server(files);
  if (pid == 0)
    return false;
  if (::kill(pid, SIGTERM) != 0 && errno != ESRCH)
    fail_errno("cannot stop the server process " + std::to_string(pid));
  if (!wait_until([pid] { return !alive(pid); }, stop_timeout_msec))
    throw Failure("the server process " + std::to_string(pid) + " does not end");
  return true;
}

} // namespace oscar_lab
