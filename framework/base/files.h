#pragma once

#include "base/ace_ifstream.h"

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
/// Looks for a listening socket in the text of a /proc/net/tcp or tcp6 table. For check_port_listening and
/// its tests.
bool has_listening_port(const std::string& table, unsigned short port);
} // namespace kestrel
