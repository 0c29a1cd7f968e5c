#include "process/process_ex.h"

#include "process/process_api.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <unistd.h>

ACE_Process_Ex::ACE_Process_Ex(unsigned int flags, const char* name, std::shared_ptr<ACE_Log_Msg_Callback> cb)
    : flags_(flags), name_(name ? name : ""), name_given_(name != nullptr), callback_(std::move(cb))
{
}

ACE_Process_Ex::~ACE_Process_Ex() {}

namespace
{
std::vector<std::string> arguments_of(ACE_Process_Options& options)
{
  std::vector<std::string> arguments;
  for (char* const* argument = options.command_line_argv(); argument && *argument; ++argument)
    arguments.emplace_back(*argument);
  return arguments;
}

/// Sets one NAME=value, over an earlier one of the same name.
void put_variable(std::vector<std::string>& environment, const std::string& entry)
{
  const size_t head = entry.find('=');
  if (head == std::string::npos)
    return;
  for (std::string& present : environment) {
    if (present.compare(0, head + 1, entry, 0, head + 1) == 0) {
      present = entry;
      return;
    }
  }
  environment.push_back(entry);
}

std::vector<std::string> environment_of(ACE_Process_Options& options)
{
  std::vector<std::string> environment;
  if (options.inherit_environment())
    for (char** entry = environ; entry && *entry; ++entry)
      environment.emplace_back(*entry);
  for (char* const* entry = options.env_argv(); entry && *entry; ++entry)
    put_variable(environment, *entry);
  return environment;
}

/// The descriptor for one standard stream of the child, and what keeps it open until the child has it.
struct Child_Stream {
  kestrel::Auto_Fd owned;
  int fd = -1;

  bool open_pipe(bool child_reads, kestrel::Auto_Fd& parents_end)
  {
    kestrel::Auto_Fd reader;
    kestrel::Auto_Fd writer;
    if (kestrel::make_pipe(reader, writer) != 0)
      return false;
    parents_end.reset((child_reads ? writer : reader).release());
    owned.reset((child_reads ? reader : writer).release());
    fd = owned.get();
    return true;
  }

  bool use_handle(ACE_HANDLE handle)
  {
    fd = handle == ACE_INVALID_HANDLE ? -1 : handle;
    if (fd < 0 || fd > STDERR_FILENO)
      return true;
    // A source among 0, 1 and 2 could be overwritten before the child uses it.
    owned.reset(::fcntl(fd, F_DUPFD_CLOEXEC, STDERR_FILENO + 1));
    fd = owned.get();
    return fd >= 0;
  }
};

std::string base_name(const std::string& path)
{
  return path.substr(path.rfind('/') + 1);
}
} // namespace

pid_t ACE_Process_Ex::spawn(ACE_Process_Options& options)
{
  kestrel::Spawn_Request request;
  request.argv = arguments_.empty() ? arguments_of(options) : arguments_;
  if (request.argv.empty()) {
    errno = ENOENT;
    return -1;
  }
  request.program = request.argv[0];
  request.environment = environment_of(options);
  request.working_directory = options.working_directory() ? options.working_directory() : "";
  request.close_others = !options.handle_inheritance();
  request.process_group = options.getgroup() == ACE_INVALID_PID ? -1 : options.getgroup();
  request.die_with_parent = die_with_parent_;
  if (!name_given_)
    name_ = base_name(request.program);

  Child_Stream streams[3];
  const bool input_ready = flags_ & PROCESS_STDIN_PIPE ? streams[0].open_pipe(true, stdin_)
                                                       : streams[0].use_handle(options.get_stdin());
  const bool output_ready = flags_ & PROCESS_STDOUT_PIPE ? streams[1].open_pipe(false, stdout_)
                                                         : streams[1].use_handle(options.get_stdout());
  const bool error_ready = flags_ & PROCESS_STDERR_PIPE ? streams[2].open_pipe(false, stderr_)
                                                        : streams[2].use_handle(options.get_stderr());
  pid_t pid = -1;
  if (input_ready && output_ready && error_ready) {
    request.stdin_fd = streams[0].fd;
    request.stdout_fd = streams[1].fd;
    request.stderr_fd = streams[2].fd;
    pid = kestrel::process_api().spawn(request);
  }
  child_id_ = pid;
  if (pid < 0) {
    stdin_.reset();
    stdout_.reset();
    stderr_.reset();
  }
  return pid;
}
