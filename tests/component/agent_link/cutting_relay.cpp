#include "cutting_relay.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

namespace kestrel_test
{
namespace
{
sockaddr_in local(unsigned short port)
{
  sockaddr_in address = {};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  address.sin_port = htons(port);
  return address;
}
} // namespace

Cutting_Relay::Cutting_Relay(unsigned short target_port)
    : target_port_(target_port), listener_(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0))
{
  sockaddr_in address = local(0);
  socklen_t size = sizeof address;
  EXPECT_EQ(0, ::bind(listener_.get(), reinterpret_cast<const sockaddr*>(&address), size));
  EXPECT_EQ(0, ::listen(listener_.get(), 16));
  EXPECT_EQ(0, ::getsockname(listener_.get(), reinterpret_cast<sockaddr*>(&address), &size));
  port_ = ntohs(address.sin_port);
  acceptor_ = std::thread([this] { accept_all(); });
}

Cutting_Relay::~Cutting_Relay()
{
  stop_ = true;
  acceptor_.join(); // makes the others
  for (std::thread& relay : relays_)
    relay.join();
}

void Cutting_Relay::cut_after(Side side, size_t bytes)
{
  const std::lock_guard<std::mutex> guard(mutex_);
  plans_.push_back({true, side, bytes, ""});
}

void Cutting_Relay::say_instead(const std::string& text, unsigned connections)
{
  const std::lock_guard<std::mutex> guard(mutex_);
  for (unsigned i = 0; i < connections; ++i)
    plans_.push_back({true, Side::client, 0, text});
}

size_t Cutting_Relay::planned_cuts() const
{
  const std::lock_guard<std::mutex> guard(mutex_);
  return plans_.size();
}

void Cutting_Relay::accept_all()
{
  while (!stop_) {
    pollfd waiting = {listener_.get(), POLLIN, 0};
    if (::poll(&waiting, 1, 50) <= 0)
      continue;
    const int client = ::accept4(listener_.get(), nullptr, nullptr, SOCK_CLOEXEC);
    if (client < 0)
      continue;
    Plan plan;
    {
      const std::lock_guard<std::mutex> guard(mutex_);
      if (!plans_.empty()) {
        plan = plans_.front();
        plans_.pop_front();
      }
    }
    relays_.emplace_back([this, client, plan] { relay(client, plan); });
  }
}

bool Cutting_Relay::pass(int from, int to, Side side, const Plan& plan, size_t& passed) const
{
  char buffer[4096];
  const bool planned = plan.cut && plan.side == side;
  if (planned && passed >= plan.bytes)
    return false;
  const size_t most = planned ? std::min(sizeof buffer, plan.bytes - passed) : sizeof buffer;
  const ssize_t count = read_write_trait::read(from, buffer, most);
  if (count <= 0 || ::send(to, buffer, static_cast<size_t>(count), MSG_NOSIGNAL) != count)
    return false;
  passed += static_cast<size_t>(count);
  return true;
}

void Cutting_Relay::relay(int client, Plan plan)
{
  const kestrel::Auto_Fd near_end(client);
  if (!plan.say.empty()) {
    EXPECT_GT(::send(client, plan.say.data(), plan.say.size(), MSG_NOSIGNAL), 0);
    return;
  }
  const kestrel::Auto_Fd far_end(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
  const sockaddr_in target = local(target_port_);
  if (::connect(far_end.get(), reinterpret_cast<const sockaddr*>(&target), sizeof target) != 0)
    return;
  size_t from_client = 0;
  size_t from_server = 0;
  while (!stop_) {
    pollfd waiting[2] = {{client, POLLIN, 0}, {far_end.get(), POLLIN, 0}};
    if (::poll(waiting, 2, 50) < 0)
      return;
    if (waiting[0].revents != 0 && !pass(client, far_end.get(), Side::client, plan, from_client))
      return;
    if (waiting[1].revents != 0 && !pass(far_end.get(), client, Side::server, plan, from_server))
      return;
  }
}
} // namespace kestrel_test
