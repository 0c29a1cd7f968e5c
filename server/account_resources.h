#pragma once

#include "rpc/rest_router.h"
#include "server/accounts.h"
#include "server/audit.h"
#include "server/server_metrics.h"

#include <functional>

namespace kestrel
{
/// The resources of people who use the server: sessions, users, audit, status, metrics.
/// Threads:   add_to() before the server starts; what it adds is called from any thread.
/// Ownership: nothing is owned; all of it must outlive the router.
class Account_Resources
{
public:
  /// Adds what the other parts know to the answer of GET status.
  typedef std::function<void(json_spirit::Object&)> Status;

  Account_Resources(Accounts& accounts, Audit& audit, Server_Metrics& metrics, Status status);
  void add_to(REST_Router& router);

private:
  REST_Reply sign_in(REST_Request& request);
  REST_Reply sessions();
  REST_Reply sign_out(REST_Request& request);
  REST_Reply status();
  REST_Reply users();
  REST_Reply add_user(REST_Request& request);
  REST_Reply remove_user(REST_Request& request);
  REST_Reply audit(REST_Request& request);
  REST_Reply metrics();

  Accounts& accounts_;
  Audit& audit_;
  Server_Metrics& metrics_;
  const Status status_;
};
} // namespace kestrel
