// Small JSON-RPC requests over one WebSocket with TLS, between a server as the product runs it and a client
// in the same process, over 127.0.0.1. At least 2,000 a second are wanted.

#include "rpc/http_server.h"
#include "rpc/json_rpc_peer.h"
#include "rpc/websocket_client.h"
#include "rpc/websocket_server.h"
#include "server/tls_setup.h"

#include <benchmark/benchmark.h>

#include <chrono>
#include <condition_variable>
#include <cstdlib>
#include <deque>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <memory>
#include <mutex>
#include <stdlib.h>

namespace
{
using json_spirit::Value;
using kestrel::JSON_RPC_Peer;

void need(bool done, const std::string& what)
{
  if (done)
    return;
  std::cerr << "rpc_bench: " << what << "\n";
  std::exit(1);
}

class Private_Dir
{
public:
  Private_Dir()
  {
    char path[] = "/tmp/rpc_bench.XXXXXX";
    need(::mkdtemp(path) != nullptr, "no directory for the certificate");
    path_ = path;
  }
  ~Private_Dir()
  {
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
  }
  std::string write(const std::string& name, const std::string& text) const
  {
    const std::string path = path_ + "/" + name;
    std::ofstream(path) << text;
    return path;
  }

private:
  std::string path_;
};

/// A server and its one client, connected.
class Connection
{
public:
  Connection()
  {
    for (kestrel::JSON_RPC_Dispatcher* dispatcher : {&at_server_, &at_client_}) {
      need(dispatcher->bind("echo",
                            [](const Value& params, Value& result, kestrel::JSON_RPC_Error&) {
                              result = params;
                              return true;
                            }),
           "bind");
      need(dispatcher->start_with_defaults(), "start");
    }
    kestrel::TLS_Pair ca, certificate;
    std::string error;
    need(kestrel::make_ca(ca, error) &&
             kestrel::make_server_certificate(ca, {{"localhost"}, {"127.0.0.1"}}, certificate, error),
         error);
    kestrel::HTTP_Server_Options options;
    options.address = "127.0.0.1";
    options.certificate_file = files_.write("server.crt", certificate.certificate);
    options.key_file = files_.write("server.key", certificate.key);
    server_.add_upgrade(
        "/k2/w/agent",
        [](kestrel::REST_Request&) {
          kestrel::REST_Reply reply;
          reply.status = 101;
          return reply;
        },
        [this](kestrel::Upgraded_Connection connection, const kestrel::REST_Request&) {
          kestrel::websocket_accept(std::move(connection), kestrel::WebSocket_Limits(),
                                    [this](std::shared_ptr<kestrel::WebSocket_Channel> channel,
                                           const std::string& error) { accepted(channel, error); });
        });
    need(
        server_.start(
            options, [](kestrel::REST_Request&, const std::string&) { return kestrel::REST_Reply(); }, error),
        error);
    need(threads_.start(), "network threads");
    dial(ca.certificate);
  }
  ~Connection()
  {
    client_->close();
    wait_for_server();
    server_peer_->close();
    client_.reset();
    server_peer_.reset();
    at_server_.stop();
    at_client_.stop();
    threads_.stop();
    server_.stop(0);
  }

  JSON_RPC_Peer& client() { return *client_; }
  JSON_RPC_Peer& server() { return *server_peer_; }

private:
  void dial(const std::string& ca_pem)
  {
    kestrel::WebSocket_Dial dial;
    dial.url = "https://127.0.0.1:" + std::to_string(server_.port()) + "/k2/w/agent";
    dial.tls.ca_pem = ca_pem;
    kestrel::WebSocket_Failure failure;
    const auto channel = kestrel::WebSocket_Client(threads_).dial(dial, failure);
    need(channel != nullptr, failure.message);
    client_ = JSON_RPC_Peer::start(channel, &at_client_);
    wait_for_server();
  }
  void accepted(const std::shared_ptr<kestrel::WebSocket_Channel>& channel, const std::string& error)
  {
    need(channel != nullptr, error);
    const std::lock_guard<std::mutex> guard(mutex_);
    server_peer_ = JSON_RPC_Peer::start(channel, &at_server_);
    changed_.notify_all();
  }
  void wait_for_server()
  {
    std::unique_lock<std::mutex> lock(mutex_);
    changed_.wait(lock, [this] { return server_peer_ != nullptr; });
  }

  Private_Dir files_;
  kestrel::JSON_RPC_Dispatcher at_server_, at_client_;
  kestrel::HTTP_Server server_;
  kestrel::Network_Threads threads_;
  std::mutex mutex_;
  std::condition_variable changed_;
  std::shared_ptr<JSON_RPC_Peer> client_, server_peer_;
};

void finish(const std::shared_ptr<JSON_RPC_Peer::Call>& call)
{
  Value result;
  kestrel::JSON_RPC_Error error;
  need(JSON_RPC_Peer::finish_call(call, std::chrono::steady_clock::now() + std::chrono::minutes(1), result,
                                  error),
       error.message);
}

const Value& small_params()
{
  static const Value params =
      json_spirit::Object{{"instance", "ORCL"}, {"uid", "1000"}, {"virtual_address", "192.0.2.17"}};
  return params;
}

void report(benchmark::State& state)
{
  state.SetItemsProcessed(state.iterations());
}

/// Each request waits for the answer to the one before.
void rpc_one_at_a_time(benchmark::State& state)
{
  Connection connection;
  for (auto _ : state)
    finish(connection.client().begin_call("echo", small_params()));
  report(state);
}

/// Up to `depth` requests are under way.
void rpc_pipelined(benchmark::State& state)
{
  Connection connection;
  std::deque<std::shared_ptr<JSON_RPC_Peer::Call>> calls;
  for (auto _ : state) {
    calls.push_back(connection.client().begin_call("echo", small_params()));
    if (calls.size() == static_cast<std::size_t>(state.range(0))) {
      finish(calls.front());
      calls.pop_front();
    }
  }
  for (const auto& call : calls)
    finish(call);
  report(state);
}

/// The same from the server to its client and back at the same time.
void rpc_pipelined_both_ways(benchmark::State& state)
{
  Connection connection;
  std::deque<std::shared_ptr<JSON_RPC_Peer::Call>> calls;
  bool from_client = false;
  for (auto _ : state) {
    from_client = !from_client;
    calls.push_back(
        (from_client ? connection.client() : connection.server()).begin_call("echo", small_params()));
    if (calls.size() == static_cast<std::size_t>(state.range(0))) {
      finish(calls.front());
      calls.pop_front();
    }
  }
  for (const auto& call : calls)
    finish(call);
  report(state);
}

BENCHMARK(rpc_one_at_a_time)->UseRealTime()->Repetitions(6);
BENCHMARK(rpc_pipelined)->Arg(64)->UseRealTime()->Repetitions(6);
BENCHMARK(rpc_pipelined_both_ways)->Arg(64)->UseRealTime()->Repetitions(6);
} // namespace
