#include "cli/password_input.h"

#include "base/ignore_result.h"
#include "base/scope_guard.h"
#include "cli/interruptible_read.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <strings.h>
#include <termios.h>
#include <unistd.h>

namespace kestrel
{
namespace
{
constexpr size_t longest_password_bytes = 1023;

/// Reads up to the line end or the end of the input, one byte a time: what follows the line belongs to
/// others. `terminal` is null for a file.
Exit_Code read_first_line(int descriptor, Interruptible_Read* terminal, const std::string& source,
                          secure_string& line, std::string& error)
{
  char byte = 0;
  Scope_Guard wipe([&byte] { ::explicit_bzero(&byte, sizeof byte); });
  line.reserve(longest_password_bytes + 1);
  for (;;) {
    const ssize_t count = terminal ? terminal->read(descriptor, &byte, 1) : ::read(descriptor, &byte, 1);
    if (count < 0 && errno == EINTR && !terminal)
      continue;
    if (count < 0 && errno == EINTR) {
      error = "interrupted while asking for the password";
      return EXIT_CODE_CANCELED;
    }
    if (count < 0) {
      error = "cannot read " + source + ": " + std::strerror(errno);
      return EXIT_CODE_FAILED;
    }
    if (count == 0 || byte == '\n')
      break;
    if (line.size() == longest_password_bytes) {
      error = "the password is longer than 1023 bytes";
      return EXIT_CODE_FAILED;
    }
    line.push_back(byte);
  }
  if (!line.empty() && line.back() == '\r')
    line.pop_back();
  return EXIT_CODE_DONE;
}

void write_text(int descriptor, const char* text)
{
  ignore_result(::write(descriptor, text, std::strlen(text)),
                "a prompt that cannot be shown changes nothing");
}

Exit_Code read_from_terminal(const std::string& prompt, secure_string& line, std::string& error)
{
  const int terminal = ::open("/dev/tty", O_RDWR | O_CLOEXEC | O_NOCTTY);
  if (terminal < 0) {
    error =
        "no terminal to ask for the password; use --password-file FILE, or --password-file - to read it from "
        "standard input";
    return EXIT_CODE_FAILED;
  }
  Scope_Guard close_terminal([terminal] { ::close(terminal); });

  struct termios before;
  if (::tcgetattr(terminal, &before) != 0) {
    error = std::string("cannot read the terminal's mode: ") + std::strerror(errno);
    return EXIT_CODE_FAILED;
  }
  struct termios silent = before;
  silent.c_lflag &= ~static_cast<tcflag_t>(ECHO);
  silent.c_lflag |= ECHONL;
  Interruptible_Read input;
  write_text(terminal, prompt.c_str());
  if (::tcsetattr(terminal, TCSAFLUSH, &silent) != 0) {
    error = std::string("cannot switch the terminal's echo off: ") + std::strerror(errno);
    return EXIT_CODE_FAILED;
  }
  Scope_Guard restore_mode([terminal, &before] { ::tcsetattr(terminal, TCSAFLUSH, &before); });
  const Exit_Code code = read_first_line(terminal, &input, "the password", line, error);
  if (code != EXIT_CODE_DONE)
    write_text(terminal, "\n"); // the message stands on a line of its own
  return code;
}

Exit_Code read_from_file(const std::string& file, secure_string& line, std::string& error)
{
  const int descriptor = ::open(file.c_str(), O_RDONLY | O_CLOEXEC);
  if (descriptor < 0) {
    error = "cannot open the password file " + file + ": " + std::strerror(errno);
    return EXIT_CODE_FAILED;
  }
  Scope_Guard close_file([descriptor] { ::close(descriptor); });
  return read_first_line(descriptor, nullptr, "the password file " + file, line, error);
}
} // namespace

Exit_Code read_password(const std::string& file, const std::string& prompt, secure_string& password,
                        std::string& error)
{
  secure_string line;
  const Exit_Code code = file.empty()  ? read_from_terminal(prompt, line, error)
                         : file == "-" ? read_first_line(STDIN_FILENO, nullptr, "the password", line, error)
                                       : read_from_file(file, line, error);
  if (code != EXIT_CODE_DONE)
    return code;
  if (line.empty()) {
    error = "the password is empty";
    return EXIT_CODE_FAILED;
  }
  if (line.find('\0') != secure_string::npos) {
    error = "the password holds a NUL byte; the first line of the input must be the password as text";
    return EXIT_CODE_FAILED;
  }
  password.swap(line);
  return EXIT_CODE_DONE;
}
} // namespace kestrel
