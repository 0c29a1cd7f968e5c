#pragma once

#include "rpc/http_server.h"

#include <string>

namespace kestrel
{
/// The settings of the backup server (server.toml).
/// Errors: false with `error` naming the file, the line and the key; a key that is not known is an error.
struct Server_Config {
  std::string address = "0.0.0.0";
  unsigned short port = 7480;
  /// How agents reach the server; stands in enrollment files. Empty: https://<name of this host>:<port>.
  std::string url;
  /// Without TLS; only on a loopback address.
  bool plain = false;
  std::string certificate_file; ///< empty: tls/server.crt of the state directory
  std::string key_file;         ///< empty: tls/server.key
  unsigned workers = 16; ///< half of them may wait for agents
  HTTP_Limits limits;
  int session_hours = 12;
  /// Requests of one definition within this time share one choice of a node.
  int cluster_window_seconds = 3;
  int keep_audit_days = 365;
  int keep_run_days = 90;

  [[nodiscard]] bool read(const std::string& path, std::string& error);
  [[nodiscard]] bool parse(const std::string& text, const std::string& path, std::string& error);
};
} // namespace kestrel
