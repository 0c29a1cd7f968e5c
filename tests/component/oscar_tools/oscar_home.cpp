#include "oscar_home.h"

#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <fstream>
#include <sys/socket.h>
#include <unistd.h>

namespace kestrel_test
{
namespace
{
std::string quoted(const std::string& text)
{
  std::string result = "\"";
  for (const char letter : text) {
    if (letter == '"' || letter == '\\' || letter == '$')
      result += '\\';
    result += letter;
  }
  return result + "\"";
}
} // namespace

Oscar_Home::Oscar_Home()
{
  dir_.make_dir("bin");
  dir_.write("admin/DB1.conf", "# settings\nport = 2010\n");
}

std::string Oscar_Home::tool(const std::string& name, const std::string& script) const
{
  return make_fake_tool(dir_, "bin/" + name, script);
}

void Oscar_Home::isql_prints(const std::vector<std::string>& lines) const
{
  std::string script;
  for (const std::string& line : lines)
    script += out(line);
  tool("isql", script);
}

void Oscar_Home::isql_answers(const std::vector<std::string>& rows) const
{
  std::vector<std::string> lines = {" HEADING ", "---------"};
  lines.insert(lines.end(), rows.begin(), rows.end());
  lines.push_back("(" + std::to_string(rows.size()) + (rows.size() == 1 ? " row)" : " rows)"));
  isql_prints(lines);
}

std::string Oscar_Home::out(const std::string& line)
{
  return "out " + quoted(line) + "\n";
}

std::string Oscar_Home::err(const std::string& line)
{
  return "err " + quoted(line) + "\n";
}

Listener::Listener() : socket_(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0))
{
  sockaddr_in address = {};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t length = sizeof address;
  const bool listening = ::bind(socket_, reinterpret_cast<sockaddr*>(&address), length) == 0 &&
                         ::listen(socket_, 1) == 0 &&
                         ::getsockname(socket_, reinterpret_cast<sockaddr*>(&address), &length) == 0;
  EXPECT_TRUE(listening);
  port_ = ntohs(address.sin_port);
}

Listener::~Listener()
{
  ::close(socket_);
}

std::vector<std::string> lines_of(const std::string& path)
{
  std::ifstream file(path);
  EXPECT_TRUE(file.good()) << path;
  std::vector<std::string> lines;
  for (std::string line; std::getline(file, line);)
    lines.push_back(line);
  return lines;
}

std::string value_of(const std::vector<std::string>& lines, const std::string& name)
{
  std::string value = "-";
  unsigned found = 0;
  for (const std::string& line : lines) {
    if (line.compare(0, name.size() + 1, name + "=") == 0) {
      value = line.substr(name.size() + 1);
      ++found;
    }
  }
  EXPECT_LE(found, 1u) << name << " occurs more than once";
  return value;
}
} // namespace kestrel_test
