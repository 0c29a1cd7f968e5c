#include "oscar/utils.h"

#include "base/ace_ifstream.h"
#include "base/clock.h"
#include "base/files.h"
#include "base/ignore_result.h"
#include "base/natoi.h"
#include "base/snprintf_t.h"
#include "oscar/guarded_regex.h"
#include "oscar/instance_file.h"
#include "oscar/oscar_argument_check.h"
#include "oscar/oscar_cmd_handler.h"
#include "process/subprocess.h"

#include <ace/ACE.h>
#include <ace/Log_Msg.h>
#include <ace/OS_NS_unistd.h>

#include <cerrno>
#include <fcntl.h>

namespace
{
const unsigned short Default_Port = 2003;
const int Start_Polls = 5;
const int Init_Pid = 1;

const boost::regex Port_Line("\\s*port\\s*=\\s*(\\d+).*", boost::regex::perl | boost::regex::icase);
const boost::regex Pid_Line("(\\d+).*");

bool read_port_line(const std::string& line, unsigned short& port)
{
  boost::smatch groups;
  if (!oscar::guarded_regex_match(line, groups, Port_Line))
    return false;
  const std::string digits = groups[1].str();
  port = natoi<unsigned short>(digits.c_str(), digits.size(), nullptr);
  return true;
}

// False also when the line with the port ended at the end of the file: a half-written file looks like that.
bool read_port(const std::string& path, unsigned short& port)
{
  ACE_ifstream file(8192);
  if (file.open(path.c_str(), O_RDONLY | O_CLOEXEC) != 0) {
    errno = file.last_error();
    ACE_ERROR((LM_ERROR, "Failed to open %s for reading, errno=%d, %m\n", path.c_str(), errno));
    return false;
  }
  std::string line;
  while (file.getline(line)) {
    if (read_port_line(line, port))
      return !file.eof() && port != 0;
  }
  if (file.last_error() != 0) {
    errno = file.last_error();
    ACE_ERROR((LM_ERROR, "Failed to read %s, errno=%d, %m\n", path.c_str(), errno));
  }
  return false;
}

// Gives the server time to come up; its success is not the start's.
void wait_online(const char* oscar_home, const char* instance)
{
  for (int poll = 1; poll <= Start_Polls; ++poll) {
    std::string state;
    if (get_instance_state(oscar_home, instance, state))
      return;
    kestrel::clock().sleep_msec(poll * 1000);
  }
}
} // namespace

bool test_login_instance(const char* oscar_home, const char* instance, const char* username,
                         const char* password, std::string* error)
{
  if (!OSCAR_TEXT_GIVEN(oscar_home) || !OSCAR_TEXT_GIVEN(instance) || !OSCAR_TEXT_GIVEN(username) ||
      !OSCAR_TEXT_GIVEN(password))
    return false;
  unsigned short port = 0;
  if (!get_instance_port(oscar_home, instance, port)) {
    ACE_ERROR((LM_ERROR, "Failed to get port.\n"));
    return false;
  }
  const std::string program = std::string(oscar_home) + "/bin/isql";
  const snprintf_t<4096> command("\"%s\" -U%s/%s -d%s -p%hu -l", program.c_str(), username, password,
                                 instance, port);
  const Oscar_Cmd_Login login = {username, password};
  return execute_oscar_cmd(oscar_home, command.c_str(), login, false, false, nullptr, error) == 0;
}

bool get_instance_port(const char* oscar_home, const char* instance, unsigned short& port)
{
  port = 0;
  if (!OSCAR_TEXT_GIVEN(oscar_home) || !OSCAR_TEXT_GIVEN(instance))
    return false;
  const std::string path = oscar::instance_conf_file(oscar_home, instance);
  if (!is_regular_file(path.c_str())) {
    port = Default_Port;
    ACE_DEBUG(
        (LM_INFO, "Instance config file %s does not exist, use default port %hu\n", path.c_str(), port));
    return true;
  }
  return read_port(path, port);
}

bool get_instance_state(const char* oscar_home, const char* instance, std::string& state)
{
  state = "offline";
  if (!OSCAR_TEXT_GIVEN(oscar_home) || !OSCAR_TEXT_GIVEN(instance))
    return false;
  unsigned short port = 0;
  if (get_instance_port(oscar_home, instance, port) && check_port_listening(port))
    state = "online";
  return state == "online";
}

bool get_from_instance_options(std::shared_ptr<Instance> instance, const char* key, std::string& value)
{
  if (!OSCAR_TEXT_GIVEN(key))
    return false;
  if (!instance) {
    ACE_ERROR((LM_ERROR, "Failed to invoke get_from_instance_options, can't find instance.\n"));
    return false;
  }
  const auto it = instance->options.find(key);
  if (it == instance->options.end())
    return false;
  if (it->second.type() != json_spirit::str_type) {
    ACE_ERROR((LM_EMERGENCY,
               "Unexpected error in /builds/7/rpm/src/backup/oscar/utils:%d, it->second is not string!\n",
               __LINE__));
    return false;
  }
  value = it->second.get_str();
  return true;
}

bool instance_running(const char* oscar_home, const char* instance, int& pid)
{
  if (!OSCAR_POINTER_GIVEN(oscar_home) || !OSCAR_POINTER_GIVEN(instance))
    return false;
  const std::string path = oscar::instance_db_file(oscar_home, instance);
  if (ACE_OS::access(path.c_str(), R_OK) != 0)
    return false;
  std::string line;
  if (!read_line(path.c_str(), line, true))
    return false;

  boost::smatch groups;
  const bool matched = oscar::guarded_regex_match(line, groups, Pid_Line);
  const std::string digits = matched ? groups[1].str() : std::string();
  const int id = natoi<int>(digits.c_str(), digits.size(), nullptr);
  // No server is process 0 or 1, and signals to these would reach our own group or init.
  if (!matched || id <= Init_Pid) {
    ACE_ERROR((LM_ERROR, "Failed to find pid.\n"));
    return false;
  }
  pid = id;
  return ACE::process_active(pid) != 0;
}

bool start_instance(const char* oscar_home, const char* instance)
{
  if (!OSCAR_POINTER_GIVEN(oscar_home) || !OSCAR_POINTER_GIVEN(instance))
    return false;
  int pid = 0;
  if (instance_running(oscar_home, instance, pid)) {
    ACE_DEBUG((LM_INFO, "Instance %s is already running.\n", instance));
    return true;
  }
  const snprintf_t<4096> script("/etc/init.d/oscardb_%sd", instance);
  snprintf_t<4096> command;
  if (is_regular_file(script.c_str()))
    kestrel::ignore_result(command.set("/bin/sh -c \"%s start\"", script.c_str()),
                           "too long a line is refused below");
  else
    kestrel::ignore_result(command.set("systemctl start oscard@%s", instance),
                           "too long a line is refused below");

  ACE_Process_Options opts(true, 1024, 16384, 512, 128);
  opts.setgroup(0);
  kestrel::ignore_result(set_process_opts(oscar_home, command.c_str(), opts),
                         "without a command line the call fails");
  const bool started = subprocess::call(opts, nullptr) == 0;
  wait_online(oscar_home, instance);
  return started;
}
