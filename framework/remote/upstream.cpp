#include "remote/upstream.h"

#include "rpc/http_session.h"
#include "rpc/json_restful_client.h"
#include "storage/host_manager.h"

#include <mutex>

namespace kestrel
{
namespace
{
/// A selection may wait for the answers of other nodes.
const unsigned REQUEST_SECONDS = 30;

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
    call.seconds = REQUEST_SECONDS;
    REST_Answer got;
    REST_Problem problem;
    if (!client_->exchange(call, got, problem)) {
      error = problem.text;
      return false;
    }
    status = got.status;
    answer = std::move(got.body);
    return true;
  }

private:
  const std::shared_ptr<REST_Client> client_;
};
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
  REST_Client_Options connection;
  connection.url = options.url;
  connection.ca_pem = options.ca_pem;
  connection.ca_file = options.ca_file;
  connection.access_key = options.access_key;
  const auto client = std::make_shared<REST_Client>(connection);

  const std::lock_guard<std::mutex> guard(registration_lock);
  const char* key = options.access_key.c_str();
  Host_Manager::instance()->configure(options.on_server_machine, key, key);
  WebSocket_Options::set(server);
  set_upstream_transport(std::make_shared<REST_Upstream_Transport>(client));
  return true;
}

bool register_console_upstream(const REST_Client_Options& connection, std::string& error)
{
  std::string host;
  unsigned short port = 0;
  if (!parse_server_url(connection.url, host, port, error))
    return false;
  return true;
}

void unregister_upstream()
{
  const std::lock_guard<std::mutex> guard(registration_lock);
  set_upstream_transport(nullptr);
  WebSocket_Options::set(WebSocket_Options());
  Host_Manager::instance()->configure(false, nullptr, nullptr);
}
} // namespace kestrel
