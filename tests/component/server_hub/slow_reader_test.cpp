#include "server_fixture.h"

#include <arpa/inet.h>
#include <atomic>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <thread>
#include <unistd.h>

using namespace kestrel_test;

namespace
{
/// A stretch of the network between one client and the server: what the server sends can be held back.
class Holding_Relay
{
public:
  explicit Holding_Relay(unsigned short server_port) : server_port_(server_port)
  {
    listener_ = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address = loopback(0);
    socklen_t length = sizeof address;
    EXPECT_EQ(::bind(listener_, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
    EXPECT_EQ(::listen(listener_, 4), 0);
    EXPECT_EQ(::getsockname(listener_, reinterpret_cast<sockaddr*>(&address), &length), 0);
    port_ = ntohs(address.sin_port);
    thread_ = std::thread([this] { run(); });
  }
  ~Holding_Relay()
  {
    ending_ = true;
    thread_.join();
    ::close(listener_);
  }

  unsigned short port() const { return port_; }
  /// The client's next bytes after this pass; the server's answer to them stays here.
  void hold_next_answer() { armed_ = true; }
  bool holds_an_answer() const { return held_bytes_ > 0; }
  void let_go() { armed_ = holding_ = false; }

private:
  static sockaddr_in loopback(unsigned short port)
  {
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.sin_port = htons(port);
    return address;
  }

  static bool readable(int fd)
  {
    pollfd polled = {fd, POLLIN, 0};
    return ::poll(&polled, 1, 5) > 0;
  }

  void run()
  {
    while (!ending_) {
      if (!readable(listener_))
        continue;
      const int client = ::accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC);
      const int server = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
      const sockaddr_in address = loopback(server_port_);
      if (client >= 0 && ::connect(server, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0)
        carry(client, server);
      ::close(client);
      ::close(server);
    }
  }

  /// One connection at a time, until either end closes it.
  void carry(int client, int server)
  {
    std::string held;
    char block[16384];
    while (!ending_) {
      if (!holding_ && !held.empty()) {
        if (::send(client, held.data(), held.size(), MSG_NOSIGNAL) != static_cast<ssize_t>(held.size()))
          return;
        held.clear();
      }
      if (readable(client)) {
        const ssize_t count = ::recv(client, block, sizeof block, 0);
        if (count <= 0)
          return;
        // Set before the request goes on, so that its answer cannot slip through.
        if (armed_)
          holding_ = true;
        if (::send(server, block, static_cast<size_t>(count), MSG_NOSIGNAL) != count)
          return;
      }
      if (readable(server)) {
        const ssize_t count = ::recv(server, block, sizeof block, 0);
        if (count <= 0)
          return;
        held.append(block, static_cast<size_t>(count));
        if (holding_)
          held_bytes_ += static_cast<int>(count);
      }
    }
  }

  const unsigned short server_port_;
  unsigned short port_ = 0;
  int listener_ = -1;
  std::atomic<bool> armed_{false}, holding_{false}, ending_{false};
  std::atomic<int> held_bytes_{0};
  std::thread thread_;
};

class Slow_Reader : public Server_Fixture
{
};
} // namespace

TEST_F(Slow_Reader, an_announcement_follows_its_reply_even_when_nobody_reads_the_reply)
{
  Holding_Relay relay(config_.port);
  Simulated_Agent& agent = add_agent("db1");
  std::atomic<bool> reply_was_on_its_way{false};
  std::atomic<int64_t> announced{0};
  agent.on("oscar.node.notify_selected",
           [&](const json_spirit::Value& params, json_spirit::Value& result, auto&) {
             reply_was_on_its_way = eventually([&] { return relay.holds_an_answer(); });
             announced = member_number(params.get_obj(), "selection_time");
             result = true;
             return true;
           });
  connect(agent);
  const std::string job = define();

  kestrel::REST_Client_Options options;
  options.url = "https://127.0.0.1:" + std::to_string(relay.port());
  options.ca_pem = agent.enrollment().ca_pem;
  options.access_key = agent.enrollment().credential();
  kestrel::REST_Client slow(options);
  json_spirit::Value reply;
  kestrel::REST_Problem problem;
  // The connection stands, with its TLS, before the answer is held back.
  ASSERT_TRUE(slow.get("/k2/r/pools", reply, problem)) << problem.text;
  relay.hold_next_answer();
  std::thread asking([&] {
    json_spirit::Object body;
    body.emplace_back("definition_uuid", job);
    body.emplace_back("uid", "");
    body.emplace_back("instance_uuid", "");
    body.emplace_back("select_master", false);
    EXPECT_TRUE(slow.post("/k2/r/oscar/cluster", body, reply, problem)) << problem.text;
  });
  EXPECT_TRUE(eventually([&] { return announced != 0; }));
  EXPECT_TRUE(reply_was_on_its_way);
  relay.let_go();
  asking.join();
  EXPECT_EQ(member_number(reply.get_obj(), "selection_time"), announced);
}
