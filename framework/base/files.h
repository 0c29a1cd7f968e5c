#pragma once

#include "base/ace_ifstream.h"

#include <set>
#include <string>
#include <sys/types.h>

/// The value of an environment variable as a copy, empty when it is unset. Any thread, as long as nobody
/// changes the environment at the same time (the product itself never does after its start).
std::string get_env_r(const char* name);

/// True when the path names a regular file, also through symbolic links. Null and "" name none.
bool is_regular_file(const char* path);

/// The first line of a file without its '\n' (a '\r' stays). False on an open or read error and for an empty
/// file; `line` is untouched then, and with log_errors one LM_ERROR line says why.
bool read_line(const char* path, std::string& line, bool log_errors);

/// True when something on this host listens on the TCP port, on any address, IPv4 or IPv6. Reads the kernel's
/// tables and makes no connection. Sees only the network namespace of this process.
bool check_port_listening(unsigned short port);

/// Removes a file or a directory with everything below it. Never follows a symbolic link: the link itself
/// goes. 0 when the path is gone, also when it never existed; else -1 with the errno of the first thing that
/// stayed, and everything that could be removed is removed. Refused with EINVAL, before anything is touched:
/// null, "", "/", ".", and any path with a ".." component.
int rm_rf(const char* path);

/// Makes a directory and its missing parents. 0 also when it exists; else -1 with errno (ENOTDIR when
/// something else has the name). `mode` is for the directories that are made, less the umask.
int make_dirs(const char* path, mode_t mode);

namespace kestrel
{
/// Adds the ports of the listening sockets in the text of a /proc/net/tcp or tcp6 table. For check_port_listening
/// and its tests.
void add_listening_ports(const std::string& table, std::set<unsigned short>& ports);

/// While it lives, check_port_listening() on the thread that made it answers from one reading of the kernel's tables,
/// for questions about many ports at one moment. Scopes may nest; the outermost one reads.
class Listening_Ports_Scope
{
public:
  Listening_Ports_Scope();
  ~Listening_Ports_Scope();
  Listening_Ports_Scope(const Listening_Ports_Scope&) = delete;
  Listening_Ports_Scope& operator=(const Listening_Ports_Scope&) = delete;

private:
  std::set<unsigned short> ports_;
  bool outermost_;
};
} // namespace kestrel
