#pragma once

#include "cli/command_line.h"

#include <cstdint>
#include <string>
#include <vector>

namespace kestrel
{
/// Options of the server's commands that no other command has.
struct Server_Arguments {
  std::string config;                 ///< of the running server
  std::vector<std::string> names;     ///< init
  std::vector<std::string> addresses; ///< init
  unsigned short port = 7480;         ///< init
  std::string name;                   ///< of the admin, the user or the host
  std::string role;
  std::string file; ///< enroll --out, save DIR
  int64_t limit = 50;
};

/// `kestrel server`: the backup server itself, until SIGTERM or SIGINT.
int run_server(const Command_Line& line, const Server_Arguments& arguments);

/// Commands on the state of this machine's server. Each returns the exit code of the process.
int run_server_init(const Command_Line& line, const Server_Arguments& arguments);
int run_server_renew(const Command_Line& line);
int run_server_enroll(const Command_Line& line, const Server_Arguments& arguments);
int run_server_revoke(const Command_Line& line, const Server_Arguments& arguments);
int run_server_hosts(const Command_Line& line);
int run_server_save(const Command_Line& line, const Server_Arguments& arguments);
int run_server_audit(const Command_Line& line, const Server_Arguments& arguments);
int run_server_user_add(const Command_Line& line, const Server_Arguments& arguments);
int run_server_user_list(const Command_Line& line);
int run_server_user_remove(const Command_Line& line, const Server_Arguments& arguments);
int run_server_user_password(const Command_Line& line, const Server_Arguments& arguments);
} // namespace kestrel
