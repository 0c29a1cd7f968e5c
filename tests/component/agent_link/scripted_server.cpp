#include "scripted_server.h"

#include "base/ignore_result.h"
#include "rpc/websocket_server.h"
#include "support/waiting.h"

#include <gtest/gtest.h>

#include <chrono>
#include <condition_variable>
#include <thread>

using namespace kestrel;

namespace kestrel_test
{
/// One agent's connection. Its requests are answered here, on the network's thread, in the order in which they come;
/// answers to the server's own calls go through the peer.
class Agent_Server::Connection : public Message_Receiver, public std::enable_shared_from_this<Connection>
{
public:
  Connection(Agent_Server& server, std::shared_ptr<WebSocket_Channel> channel, size_t number)
      : server_(server), channel_(std::move(channel)), number_(number)
  {
  }

  void start() { channel_->start(weak_from_this()); }
  void close() { channel_->close("The test hangs up."); }
  std::shared_ptr<WebSocket_Channel> channel() const { return channel_; }

  void message(const std::string& text) override
  {
    json_spirit::Value value;
    std::string error;
    ASSERT_TRUE(read_json(text, value, error)) << error;
    const json_spirit::Object& object = value.get_obj();
    const json_spirit::Value& method = json_spirit::find_value(object, "method");
    if (method.is_null()) {
      take_answer(object);
      return;
    }
    const json_spirit::Value& id = json_spirit::find_value(object, "id");
    {
      const std::lock_guard<std::mutex> guard(server_.mutex_);
      methods.push_back(method.get_str());
    }
    const json_spirit::Object params = json_spirit::find_value(object, "params").get_obj();
    if (method.get_str() == "agent.hello")
      greet(id, params);
    else {
      const std::lock_guard<std::mutex> guard(server_.mutex_);
      server_.notices_.emplace_back(method.get_str(), params);
    }
    for (int turn = 0; server_.hold && turn < 6000; ++turn)
      std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  void closed(const std::string&) override {}

  /// One call to the agent; false when no answer came within the time.
  bool call(const std::string& method, const json_spirit::Object& params, int seconds, json_spirit::Object& answer)
  {
    std::unique_lock<std::mutex> lock(answers_mutex_);
    const int id = ++last_id_;
    json_spirit::Object request;
    set_value(request, "jsonrpc", "2.0");
    set_value(request, "id", id);
    set_value(request, "method", method);
    set_value(request, "params", params);
    if (!channel_->send(write_json(request)))
      return false;
    const bool came = answered_.wait_for(lock, std::chrono::seconds(seconds), [&] { return answers_.count(id) != 0; });
    if (came)
      answer = answers_[id];
    return came;
  }

  std::vector<std::string> methods; ///< guarded by the server's mutex

private:
  void take_answer(const json_spirit::Object& answer)
  {
    const json_spirit::Value& id = json_spirit::find_value(answer, "id");
    if (id.type() != json_spirit::int_type)
      return; // about something that was no call
    const std::lock_guard<std::mutex> guard(answers_mutex_);
    answers_[id.get_int()] = answer;
    answered_.notify_all();
  }

  void greet(const json_spirit::Value& id, const json_spirit::Object& params)
  {
    json_spirit::Object answer;
    set_value(answer, "jsonrpc", "2.0");
    set_value(answer, "id", id);
    switch (server_.greeting.load()) {
    case Greeting::ignore:
      return;
    case Greeting::hang_up:
      close();
      return;
    case Greeting::refuse: {
      json_spirit::Object error;
      set_value(error, "code", -32603);
      set_value(error, "message", "no room");
      set_value(answer, "error", error);
      break;
    }
    case Greeting::accept: {
      json_spirit::Object result;
      set_value(result, "server_time", 1700000000);
      set_value(answer, "result", result);
      const std::lock_guard<std::mutex> guard(server_.mutex_);
      server_.greetings_.push_back(params);
      server_.greeted_.push_back(number_);
    }
    }
    ignore_result(channel_->send(write_json(answer)), "the test may have hung up");
  }

  Agent_Server& server_;
  const std::shared_ptr<WebSocket_Channel> channel_;
  const size_t number_;
  std::mutex answers_mutex_;
  std::condition_variable answered_;
  std::map<int, json_spirit::Object> answers_;
  int last_id_ = 0;
};

Agent_Server::Agent_Server(WebSocket_Limits limits)
{
  const Certificate certificate = ca_.issue();
  HTTP_Server_Options options;
  options.address = "127.0.0.1";
  options.certificate_file = files_.write("server.crt", certificate.certificate_pem);
  options.key_file = files_.write("server.key", certificate.key_pem, 0600);
  server_.add_upgrade(
      "/k2/w/agent",
      [this](REST_Request& request) {
        REST_Reply reply;
        reply.status = upgrade_status;
        const std::lock_guard<std::mutex> guard(mutex_);
        keys_.push_back(request.headers["x-access-key"]);
        return reply;
      },
      [this, limits](Upgraded_Connection connection, const REST_Request&) {
        websocket_accept(std::move(connection), limits,
                         [this](std::shared_ptr<WebSocket_Channel> channel, const std::string&) {
                           if (channel)
                             add_connection(std::move(channel));
                         });
      });
  std::string error;
  EXPECT_TRUE(server_.start(
      options, [this](REST_Request& request, const std::string& target) { return answer(request, target); }, error))
      << error;
}

Agent_Server::~Agent_Server()
{
  hold = false;
  server_.stop(1000, [this] {
    const std::lock_guard<std::mutex> guard(mutex_);
    for (const std::shared_ptr<Connection>& connection : connections_)
      connection->close();
  });
}

std::string Agent_Server::enrollment(unsigned short other_port) const
{
  json_spirit::Object object;
  set_value(object, "format", 1);
  set_value(object, "server", "https://127.0.0.1:" + std::to_string(other_port == 0 ? port() : other_port));
  set_value(object, "host_uuid", host_uuid());
  set_value(object, "name", "db1");
  set_value(object, "access_key", access_key());
  set_value(object, "ca_pem", ca_pem());
  return write_json(object);
}

void Agent_Server::add_connection(std::shared_ptr<WebSocket_Channel> channel)
{
  std::shared_ptr<Connection> connection;
  {
    const std::lock_guard<std::mutex> guard(mutex_);
    connection = std::make_shared<Connection>(*this, std::move(channel), connections_.size());
    connections_.push_back(connection);
  }
  connection->start();
}

REST_Reply Agent_Server::answer(REST_Request& request, const std::string& target)
{
  REST_Reply reply;
  json_spirit::Value body;
  std::string error;
  if (target != "/k2/r/runs" || request.method != "POST" || !read_json(request.body, body, error))
    return rest_error(404, "not_found", target + " is not scripted");
  json_spirit::Array stored;
  const std::lock_guard<std::mutex> guard(mutex_);
  for (const json_spirit::Value& record : required<json_spirit::Array>(body.get_obj(), "runs")) {
    posted_.push_back(record.get_obj());
    if (!store_nothing)
      stored.push_back(json_spirit::find_value(record.get_obj(), "run_id"));
  }
  if (runs_status != 200)
    return rest_error(runs_status, "scripted", "the test wants it so");
  json_spirit::Object result;
  set_value(result, "stored", stored);
  reply.json = result;
  return reply;
}

std::vector<std::string> Agent_Server::keys() const
{
  const std::lock_guard<std::mutex> guard(mutex_);
  return keys_;
}

std::vector<std::string> Agent_Server::methods(size_t connection) const
{
  const std::lock_guard<std::mutex> guard(mutex_);
  return connection < connections_.size() ? connections_[connection]->methods : std::vector<std::string>();
}

size_t Agent_Server::greetings() const
{
  const std::lock_guard<std::mutex> guard(mutex_);
  return greetings_.size();
}

json_spirit::Object Agent_Server::greeting_at(size_t number) const
{
  const std::lock_guard<std::mutex> guard(mutex_);
  return greetings_.at(number);
}

std::vector<json_spirit::Object> Agent_Server::notices(const std::string& method) const
{
  const std::lock_guard<std::mutex> guard(mutex_);
  std::vector<json_spirit::Object> found;
  for (const auto& [name, params] : notices_)
    if (name == method)
      found.push_back(params);
  return found;
}

std::vector<std::string> Agent_Server::posted() const
{
  std::vector<std::string> ids;
  for (const json_spirit::Object& record : posted_records())
    ids.push_back(json_spirit::find_value(record, "run_id").get_str());
  return ids;
}

std::vector<json_spirit::Object> Agent_Server::posted_records() const
{
  const std::lock_guard<std::mutex> guard(mutex_);
  return posted_;
}

bool Agent_Server::wait_greeting(size_t number) const
{
  return eventually([&] { return greetings() > number; });
}

std::shared_ptr<Agent_Server::Connection> Agent_Server::latest_greeted() const
{
  const std::lock_guard<std::mutex> guard(mutex_);
  return greeted_.empty() ? nullptr : connections_[greeted_.back()];
}

json_spirit::Object Agent_Server::call(const std::string& method, const json_spirit::Object& params)
{
  const std::shared_ptr<Connection> latest = latest_greeted();
  json_spirit::Object answer;
  EXPECT_TRUE(latest && latest->call(method, params, 60, answer)) << method << " was not answered";
  return answer;
}

bool Agent_Server::try_call(const std::string& method, const json_spirit::Object& params, json_spirit::Object& answer)
{
  const std::shared_ptr<Connection> latest = latest_greeted();
  return latest && latest->call(method, params, 1, answer);
}

void Agent_Server::say(const std::string& text)
{
  const std::lock_guard<std::mutex> guard(mutex_);
  EXPECT_TRUE(connections_.back()->channel()->send(text));
}

void Agent_Server::hang_up()
{
  const std::lock_guard<std::mutex> guard(mutex_);
  if (!connections_.empty())
    connections_.back()->close();
}
} // namespace kestrel_test
