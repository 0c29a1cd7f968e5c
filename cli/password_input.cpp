#include "cli/password_input.h"

#include "cli/exit_code.h"

#include "base/ignore_result.h"
#include "base/scope_guard.h"

#include <cerrno>
#include <cstring>
#include <csignal>
#include <fcntl.h>
#include <strings.h>
#include <termios.h>
#include <unistd.h>

namespace kestrel
{
namespace
{
constexpr size_t longest_password_bytes = 1023;
const char interrupted[] = "interrupted while asking for the password";

/// Reads up to the line end or the end of the input, one byte a time: what follows the line belongs to
/// others.
bool read_first_line(int descriptor, const std::string& source, secure_string& line, std::string& error)
{
  char byte = 0;
  Scope_Guard wipe([&byte] { ::explicit_bzero(&byte, sizeof byte); });
  line.reserve(longest_password_bytes + 1);
  for (;;) {
    const ssize_t count = ::read(descriptor, &byte, 1);
    if (count < 0 && errno == EINTR) {
      error = interrupted;
      return false;
    }
    if (count < 0) {
      error = "cannot read " + source + ": " + std::strerror(errno);
      return false;
    }
    if (count == 0 || byte == '\n')
      break;
    if (line.size() == longest_password_bytes) {
      error = "the password is longer than 1023 bytes";
      return false;
    }
    line.push_back(byte);
  }
  if (!line.empty() && line.back() == '\r')
    line.pop_back();
  return true;
}

void write_text(int descriptor, const char* text)
{
  ignore_result(::write(descriptor, text, std::strlen(text)), "a prompt that cannot be shown changes nothing");
}

void note_signal(int) {}

/// Lets SIGINT and SIGTERM interrupt a read instead of ending the process with the terminal still silent.
class Interruptible_Read
{
public:
  Interruptible_Read()
  {
    struct sigaction action = {};
    action.sa_handler = note_signal; // without SA_RESTART: the read returns with EINTR
    ::sigaction(SIGINT, &action, &interrupt_);
    ::sigaction(SIGTERM, &action, &terminate_);
  }
  ~Interruptible_Read()
  {
    ::sigaction(SIGINT, &interrupt_, nullptr);
    ::sigaction(SIGTERM, &terminate_, nullptr);
  }
  Interruptible_Read(const Interruptible_Read&) = delete;
  Interruptible_Read& operator=(const Interruptible_Read&) = delete;

private:
  struct sigaction interrupt_;
  struct sigaction terminate_;
};

bool read_from_terminal(const std::string& prompt, secure_string& line, std::string& error)
{
  const int terminal = ::open("/dev/tty", O_RDWR | O_CLOEXEC | O_NOCTTY);
  if (terminal < 0) {
    error = "no terminal to ask for the password; use --password-file FILE, or --password-file - to read it from "
            "standard input";
    return false;
  }
  Scope_Guard close_terminal([terminal] { ::close(terminal); });

  struct termios before;
  if (::tcgetattr(terminal, &before) != 0) {
    error = std::string("cannot read the terminal's mode: ") + std::strerror(errno);
    return false;
  }
  struct termios silent = before;
  silent.c_lflag &= ~static_cast<tcflag_t>(ECHO);
  silent.c_lflag |= ECHONL;
  const Interruptible_Read interruptible;
  write_text(terminal, prompt.c_str());
  if (::tcsetattr(terminal, TCSAFLUSH, &silent) != 0) {
    error = std::string("cannot switch the terminal's echo off: ") + std::strerror(errno);
    return false;
  }
  Scope_Guard restore_mode([terminal, &before] { ::tcsetattr(terminal, TCSAFLUSH, &before); });
  if (read_first_line(terminal, "the password", line, error))
    return true;
  write_text(terminal, "\n"); // the message stands on a line of its own
  return false;
}

bool read_from_file(const std::string& file, secure_string& line, std::string& error)
{
  const int descriptor = ::open(file.c_str(), O_RDONLY | O_CLOEXEC);
  if (descriptor < 0) {
    error = "cannot open the password file " + file + ": " + std::strerror(errno);
    return false;
  }
  Scope_Guard close_file([descriptor] { ::close(descriptor); });
  return read_first_line(descriptor, "the password file " + file, line, error);
}
} // namespace

int password_exit_code(const std::string& error)
{
  return error == interrupted ? EXIT_CODE_CANCELED : EXIT_CODE_FAILED;
}

bool read_password(const std::string& file, const std::string& prompt, secure_string& password, std::string& error)
{
  secure_string line;
  const bool done = file.empty()  ? read_from_terminal(prompt, line, error)
                    : file == "-" ? read_first_line(STDIN_FILENO, "the password", line, error)
                                  : read_from_file(file, line, error);
  if (!done)
    return false;
  if (line.empty()) {
    error = "the password is empty";
    return false;
  }
  if (line.find('\0') != secure_string::npos) {
    error = "the password holds a NUL byte; the first line of the input must be the password as text";
    return false;
  }
  password.swap(line);
  return true;
}
} // namespace kestrel
