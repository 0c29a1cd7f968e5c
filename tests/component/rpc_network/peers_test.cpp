#include "network_test.h"
#include "wire.h"

#include <atomic>
#include <chrono>
#include <map>
#include <thread>

using json_spirit::Array;
using json_spirit::Value;
using kestrel::JSON_RPC_Dispatcher;
using kestrel::JSON_RPC_Error;
using kestrel::JSON_RPC_Peer;
using kestrel_test::eventually;
using kestrel_test::WebSocket_Listener;

namespace
{
constexpr int LONG_MSEC = 60 * 1000;

/// A server and a client that serve and call each other over TLS.
class Peers : public Network_Test
{
protected:
  Peers()
  {
    for (JSON_RPC_Dispatcher* dispatcher : {&at_server_, &at_client_}) {
      EXPECT_TRUE(dispatcher->bind("echo", [](const Value& params, Value& result, JSON_RPC_Error&) {
        result = params;
        return true;
      }));
      EXPECT_TRUE(dispatcher->bind(
          "note",
          [this](kestrel::Message_Channel& from, const Value& params, Value&, JSON_RPC_Error&) {
            const std::lock_guard<std::mutex> guard(mutex_);
            notes_[from.who()].push_back(params.get_array()[0].get_int());
            return true;
          },
          kestrel::JSON_RPC_Order::as_received));
      EXPECT_TRUE(dispatcher->bind("wait", [this](const Value&, Value&, JSON_RPC_Error&) {
        ++waiting_;
        EXPECT_TRUE(eventually([this] { return released_.load(); }));
        return true;
      }));
      JSON_RPC_Dispatcher::Options options;
      options.queue_limit = 10000;
      EXPECT_TRUE(dispatcher->start(options));
    }
    const auto dialled = connect(to(listener_.url()));
    const auto accepted = listener_.channel();
    dialled->identify("server");
    accepted->identify("client");
    client_peer_ = JSON_RPC_Peer::start(dialled, &at_client_);
    server_peer_ = JSON_RPC_Peer::start(accepted, &at_server_);
  }
  ~Peers() override
  {
    released_ = true;
    client_peer_->close();
    server_peer_->close();
    EXPECT_TRUE(at_server_.stop());
    EXPECT_TRUE(at_client_.stop());
  }

  std::atomic<bool> released_{false};
  std::atomic<int> waiting_{0};
  std::mutex mutex_;
  std::map<std::string, std::vector<int>> notes_;
  JSON_RPC_Dispatcher at_server_, at_client_;
  WebSocket_Listener listener_{listener_options()};
  std::shared_ptr<JSON_RPC_Peer> client_peer_, server_peer_;
};
} // namespace

TEST_F(Peers, call_each_other_in_parallel_while_notes_go_by)
{
  constexpr int THREADS = 8, CALLS = 100;
  std::vector<std::thread> threads;
  for (int i = 0; i < THREADS; ++i)
    threads.emplace_back([&, i] {
      JSON_RPC_Peer& peer = i % 2 ? *client_peer_ : *server_peer_;
      for (int n = 0; n < CALLS; ++n) {
        const Value params = Array{i, n, std::string(static_cast<std::size_t>(n) * 50, 'x')};
        Value result;
        JSON_RPC_Error error;
        EXPECT_TRUE(peer.call("echo", params, LONG_MSEC, result, error)) << error.message;
        EXPECT_EQ(params, result);
        if (i < 2) {
          EXPECT_TRUE(peer.notify("note", Array{n}));
        }
      }
    });
  for (std::thread& thread : threads)
    thread.join();
  std::vector<int> expected(CALLS);
  for (int n = 0; n < CALLS; ++n)
    expected[static_cast<std::size_t>(n)] = n;
  for (const char* from : {"client", "server"}) {
    EXPECT_TRUE(eventually([&] {
      const std::lock_guard<std::mutex> guard(mutex_);
      return notes_[from].size() == expected.size();
    }));
    const std::lock_guard<std::mutex> guard(mutex_);
    EXPECT_EQ(expected, notes_[from]) << "in the order in which they were sent";
  }
}

TEST_F(Peers, answer_while_handlers_wait)
{
  const auto slow = server_peer_->begin_call("wait", Value());
  EXPECT_TRUE(eventually([&] { return waiting_ == 1; }));
  Value result;
  JSON_RPC_Error error;
  EXPECT_TRUE(server_peer_->call("echo", Array{1}, LONG_MSEC, result, error)) << error.message;
  released_ = true;
  EXPECT_TRUE(JSON_RPC_Peer::finish_call(slow, std::chrono::steady_clock::now() + std::chrono::minutes(1),
                                         result, error));
}

TEST_F(Peers, fail_their_calls_at_once_when_the_other_side_goes)
{
  std::vector<std::shared_ptr<JSON_RPC_Peer::Call>> calls;
  for (int i = 0; i < 4; ++i)
    calls.push_back(server_peer_->begin_call("wait", Value()));
  EXPECT_TRUE(eventually([&] { return waiting_ == 4; }));
  client_peer_->close();
  for (const auto& call : calls) {
    Value result;
    JSON_RPC_Error error;
    EXPECT_FALSE(JSON_RPC_Peer::finish_call(call, std::chrono::steady_clock::now() + std::chrono::minutes(10),
                                            result, error));
    EXPECT_EQ(kestrel::JSON_RPC_CLOSED, error.code);
    EXPECT_NE(std::string::npos, error.message.find("closed the connection")) << error.message;
  }
  EXPECT_FALSE(server_peer_->open());
}

TEST_F(Peers, do_not_send_more_than_a_message_may_have)
{
  Value result;
  JSON_RPC_Error error;
  const std::string text(std::size_t(16) << 20, 'x');
  EXPECT_FALSE(client_peer_->call("echo", Array{text}, LONG_MSEC, result, error));
  EXPECT_EQ(kestrel::JSON_RPC_NOT_SENT, error.code) << error.message;
  EXPECT_TRUE(client_peer_->call("echo", Array{1}, LONG_MSEC, result, error))
      << "the connection is as good as before";
}

TEST_F(Network_Test, a_call_gets_its_answer_past_garbage_and_foreign_answers)
{
  const Wire_Server server([&](Wire& wire) {
    EXPECT_TRUE(wire.serve_tls(authority_.issue()));
    EXPECT_TRUE(wire.accept_upgrade("kestrel-rpc"));
    EXPECT_FALSE(wire.read_some().empty());
    for (const char* text :
         {"garbage", "{\"id\":99,\"result\":1}", "[]", "{\"jsonrpc\":\"2.0\",\"id\":1,\"result\":7}"}) {
      Frame frame;
      frame.masked = false;
      frame.payload = text;
      wire.write(frame.bytes());
    }
    wire.read_to_end();
  });
  kestrel::WebSocket_Dial dial = to(server.url());
  dial.limits.close_msec = 50;
  const auto channel = connect(dial);
  const auto peer = JSON_RPC_Peer::start(channel, nullptr);
  Value result;
  JSON_RPC_Error error;
  EXPECT_TRUE(peer->call("m", Value(), LONG_MSEC, result, error)) << error.message;
  EXPECT_EQ(Value(7), result);
  EXPECT_TRUE(peer->open());
}
