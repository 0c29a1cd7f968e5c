#pragma once

#include "base/secure_allocator.h"
#include "server/server_config.h"
#include "server/tls_setup.h"

#include <functional>
#include <string>
#include <vector>

namespace kestrel
{
class Accounts;
class Audit;
class Server_Database;

/// What is done to a backup server on its own machine, on its state directory. Whoever may write there may do
/// it; all of it is audited as "local:USER" and works while the server runs.
/// Threads:   main thread.
/// Errors:    false with `error` for the user, and nothing done unless stated.

struct Server_Init {
  TLS_Names names; ///< what clients call the server; this host's name and the loopback addresses are added
  unsigned short port = 7480;
  std::string admin;
  std::string password;
};

/// Makes tls/ with CA and server certificate, server.db with the first admin, and server.toml. Refuses when
/// any of them exists. A failure leaves none of them. Crash: server.toml comes last. What a killed attempt
/// left is named by the next one, and must be removed.
[[nodiscard]] bool init_server(const Server_Init& init, std::string& error);

/// A new server certificate for the same names. The running server takes it over at SIGHUP or its next start.
[[nodiscard]] bool renew_certificate(int64_t& not_after, std::string& error);

/// The text of the enrollment file for a new or known host. Holds a secret.
[[nodiscard]] bool enroll_host(const std::string& name, std::string& enrollment, bool& replaced,
                               std::string& error);

/// Opens the database and does `work`; what it throws is the error. When it is done the audit gets `command`
/// and `what`.
[[nodiscard]] bool with_accounts(const std::string& command, const std::string& what,
                                 const std::function<void(Accounts&, Audit&)>& work, std::string& error);

/// A copy of everything that brings the server back: server.db, catalog.db, pools.json, server.toml and tls/.
/// `directory` is made (mode 0700) and must not exist. The file "complete" is written last. `notes` says what
/// could not be a part of it.
/// Crash: leaves a directory without "complete".
[[nodiscard]] bool save_server(const std::string& directory, std::vector<std::string>& notes,
                               std::string& error);

/// Reads server.toml; an empty path means the one in the state directory.
[[nodiscard]] bool load_server_config(const std::string& path, Server_Config& config, std::string& error);
} // namespace kestrel
