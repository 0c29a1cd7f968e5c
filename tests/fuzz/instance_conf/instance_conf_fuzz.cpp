#include "oscar/instance_info.h"
#include "oscar/utils.h"
#include "support/corpus.h"
#include "support/temp_dir.h"

#include <cctype>
#include <cstdlib>
#include <string>
#include <unistd.h>

namespace
{
void check(bool holds)
{
  if (!holds)
    ::abort();
}

bool blank(char letter)
{
  return letter == ' ' || (letter >= '\t' && letter <= '\r');
}

bool digit(char letter)
{
  return letter >= '0' && letter <= '9';
}

/// The rule for a port line, written out: blanks, "port" in any case, blanks, "=", blanks, digits, anything.
bool port_line(const std::string& line, unsigned long& port)
{
  size_t at = 0;
  const auto skip_blanks = [&] {
    while (at < line.size() && blank(line[at]))
      ++at;
  };
  skip_blanks();
  for (const char letter : std::string("port")) {
    if (at == line.size() || ::tolower(static_cast<unsigned char>(line[at])) != letter)
      return false;
    ++at;
  }
  skip_blanks();
  if (at == line.size() || line[at] != '=')
    return false;
  ++at;
  skip_blanks();
  if (at == line.size() || !digit(line[at]))
    return false;
  for (port = 0; at < line.size() && digit(line[at]); ++at)
    port = std::min(65535ul, port * 10 + static_cast<unsigned long>(line[at] - '0'));
  return true;
}

/// What get_instance_port must say about this content.
bool expected_port(const std::string& content, unsigned long& port)
{
  port = 0;
  for (size_t begin = 0; begin < content.size();) {
    const size_t end = content.find('\n', begin);
    if (port_line(content.substr(begin, end == std::string::npos ? end : end - begin), port))
      return end != std::string::npos && port != 0;
    port = 0;
    if (end == std::string::npos)
      return false;
    begin = end + 1;
  }
  return false;
}

bool dotted(const std::string& address)
{
  unsigned dots = 0;
  for (const char letter : address) {
    dots += letter == '.';
    if (letter != '.' && !digit(letter))
      return false;
  }
  return dots == 3;
}
} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
  static const kestrel_test::Temp_Dir home;
  const std::string content(reinterpret_cast<const char*>(data), size);
  // A new file each time: truncating an old one makes some file systems flush it to disk.
  ::unlink((home / "admin/DB1.conf").c_str());
  const std::string file = home.write("admin/DB1.conf", content);
  if (!kestrel_test::exists(home / "admin/DB1.db"))
    check(::symlink(file.c_str(), (home / "admin/DB1.db").c_str()) == 0);

  unsigned short port = 0;
  unsigned long expected = 0;
  const bool found = get_instance_port(home.path().c_str(), "DB1", port);
  check(found == expected_port(content, expected));
  check(port == expected);

  std::string vip;
  check(get_vip_from_conf(home.path().c_str(), "DB1", vip) ? dotted(vip) : vip.empty());

  int pid = -1;
  if (instance_running(home.path().c_str(), "DB1", pid))
    check(pid > 1 && digit(content[0]));
  else
    check(pid == -1 || pid > 1);
  return 0;
}
