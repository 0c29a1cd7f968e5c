#include "remote/upstream.h"

#include "base/clock.h"
#include "base/uuid.h"
#include "catalog/catalog_back_end.h"
#include "remote/record_json.h"
#include "remote/remote_catalog.h"
#include "remote/remote_storage.h"
#include "rpc/http_session.h"
#include "rpc/json_restful_client.h"
#include "storage/back_end.h"
#include "storage/host_manager.h"
#include "storage/pool.h"

#include <ace/Log_Msg.h>

#include <algorithm>
#include <mutex>

namespace kestrel
{
namespace
{
/// For a request with all its repetitions.
const unsigned REQUEST_SECONDS = 30;
/// The server answers without waiting for anybody but its disk.
const unsigned ATTEMPT_SECONDS = 10;
const unsigned ATTEMPTS = 3;
const int64_t PAUSE_MSEC = 1000;
/// A job that begins while the server restarts waits this long for its pool.
const unsigned POOL_RETRY_SECONDS = 30;

std::mutex registration_lock;

class REST_Upstream_Transport : public Upstream_Transport
{
public:
  explicit REST_Upstream_Transport(std::shared_ptr<REST_Client> client) : client_(std::move(client)) {}

  bool exchange(const HTTP_Request& request, const std::string& body, int& status, std::string& answer,
                std::string& error) override
  {
    REST_Call call;
    call.method = "POST";
    call.path = request.path();
    call.body = body.data();
    call.body_bytes = body.size();
    call.has_body = true;
    // The server knows by it that a request which comes again is the same one.
    call.headers.emplace_back("X-Request-Id", make_uuid());
    REST_Answer got;
    REST_Problem problem;
    if (!perform(call, got, problem)) {
      error = problem.text;
      return false;
    }
    status = got.status;
    answer = std::move(got.body);
    return true;
  }

private:
  /// Repeats a request that the server may have carried out although no answer came, and goes on while the
  /// server cannot be reached after that. What it answered, and what it never got, is left to the caller.
  bool perform(REST_Call& call, REST_Answer& answer, REST_Problem& problem) const
  {
    const int64_t end = clock().monotonic_msec() + int64_t(REQUEST_SECONDS) * 1000;
    bool lost = false;
    for (unsigned attempt = 1;; ++attempt) {
      const int64_t left = end - clock().monotonic_msec();
      call.seconds = static_cast<unsigned>(std::clamp<int64_t>(left / 1000, 1, ATTEMPT_SECONDS));
      problem = REST_Problem();
      if (client_->exchange(call, answer, problem))
        return true;
      lost = lost || problem.kind == REST_Problem::lost;
      const bool again =
          problem.kind == REST_Problem::lost || (lost && problem.kind == REST_Problem::unreachable);
      const int64_t pause = attempt * PAUSE_MSEC;
      if (!again || attempt == ATTEMPTS || clock().monotonic_msec() + pause >= end)
        return false;
      ACE_ERROR((LM_NOTICE, "(%P|%t) %C to the backup server: no answer came, sent again in %q ms: %C\n",
                 call.path.c_str(), static_cast<ACE_INT64>(pause), problem.text.c_str()));
      clock().sleep_msec(pause);
    }
  }

  const std::shared_ptr<REST_Client> client_;
};

/// Finds pools on the server. A directory of the same path on this host is not the server's, or not this
/// process's to write to.
class Server_Pools
{
public:
  explicit Server_Pools(std::shared_ptr<REST_Client> client) : client_(std::move(client)) {}

  bool operator()(const std::string& pool_id, Pool_Info& info, std::string& error) const
  {
    REST_Call call;
    call.path = rest_path({"pools", pool_id});
    call.retry = {POOL_RETRY_SECONDS, true};
    json_spirit::Value reply;
    REST_Problem problem;
    if (!client_->call(call, nullptr, reply, problem)) {
      error = problem.text;
      return false;
    }
    Pool_Info pool = pool_from(reply);
    pool.back_end = SERVER_STORAGE;
    pool.storage_path = "/" + pool.pool_id;
    info = pool;
    return true;
  }

private:
  const std::shared_ptr<REST_Client> client_;
};

/// What reads and what changes catalog and pools; the module's other ways to the server are the hosts' own.
void register_back_ends(const std::shared_ptr<REST_Client>& client, const Upstream_Options& options,
                        bool read_only)
{
  register_catalog_back_end(std::make_shared<Remote_Catalog>(client, read_only));
  set_pool_finder(Server_Pools(client));
  const unsigned seconds = options.transfer_seconds;
  register_storage_back_end(SERVER_STORAGE,
                            [client, seconds] { return std::make_unique<Remote_Back_End>(client, seconds); });
}
} // namespace

bool register_upstream(const Upstream_Options& options, std::string& error)
{
  WebSocket_Options server;
  if (!parse_server_url(options.url, server.host, server.port, error))
    return false;
  if (options.access_key.empty()) {
    error = "this host has no access key for the backup server; enroll it there";
    return false;
  }
  server.ssl = true;
  server.ca_pem = options.ca_pem;
  REST_Client_Options connection;
  connection.url = options.url;
  connection.ca_pem = options.ca_pem;
  connection.ca_file = options.ca_file;
  connection.access_key = options.access_key;
  const auto client = std::make_shared<REST_Client>(connection);

  const std::lock_guard<std::mutex> guard(registration_lock);
  const char* key = options.access_key.c_str();
  Host_Manager::instance()->configure(false, key, key);
  WebSocket_Options::set(server);
  set_upstream_transport(std::make_shared<REST_Upstream_Transport>(client));
  register_back_ends(client, options, false);
  return true;
}

bool register_console_upstream(const REST_Client_Options& connection, std::string& error)
{
  std::string host;
  unsigned short port = 0;
  if (!parse_server_url(connection.url, host, port, error))
    return false;
  const std::lock_guard<std::mutex> guard(registration_lock);
  register_back_ends(std::make_shared<REST_Client>(connection), Upstream_Options(), true);
  return true;
}

void unregister_upstream()
{
  const std::lock_guard<std::mutex> guard(registration_lock);
  register_storage_back_end(SERVER_STORAGE, nullptr);
  set_pool_finder(nullptr);
  register_catalog_back_end(nullptr);
  set_upstream_transport(nullptr);
  WebSocket_Options::set(WebSocket_Options());
  Host_Manager::instance()->configure(false, nullptr, nullptr);
}
} // namespace kestrel
