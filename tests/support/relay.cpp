#include "support/relay.h"

#include <algorithm>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

namespace kestrel_test
{
namespace
{
bool send_all(int fd, const char* data, uint64_t n)
{
  while (n > 0) {
    const ssize_t count = ::send(fd, data, n, MSG_NOSIGNAL);
    if (count <= 0)
      return false;
    data += count;
    n -= static_cast<size_t>(count);
  }
  return true;
}
} // namespace

Relay::Relay(unsigned short target) : target_(target), listener_(64)
{
  acceptor_ = std::thread([this] { accept_all(); });
}

Relay::~Relay()
{
  stopped_ = true;
  ::shutdown(listener_.fd(), SHUT_RDWR);
  acceptor_.join();
  cut();
  for (Pair& pair : pairs_) {
    if (pair.up.joinable())
      pair.up.join();
    if (pair.down.joinable())
      pair.down.join();
  }
}

void Relay::babble(const std::string& bytes, unsigned connections)
{
  std::lock_guard<std::mutex> guard(lock_);
  babble_ = bytes;
  babbles_ = connections;
}

std::string Relay::next_babble()
{
  std::lock_guard<std::mutex> guard(lock_);
  if (babbles_ == 0)
    return "";
  --babbles_;
  return babble_;
}

void Relay::plan_cut(Side sender, uint64_t bytes)
{
  std::lock_guard<std::mutex> guard(lock_);
  plans_.emplace_back(sender, bytes);
}

size_t Relay::planned_cuts() const
{
  std::lock_guard<std::mutex> guard(lock_);
  return plans_.size();
}

void Relay::cut_after(uint64_t bytes)
{
  up_.cut_at = up_.total + bytes;
}

void Relay::cut_after_answer(uint64_t bytes)
{
  down_.cut_at = down_.total + bytes;
}

void Relay::cut()
{
  std::lock_guard<std::mutex> guard(lock_);
  ++cuts_;
  for (Pair& pair : pairs_) {
    // A reset, as when a machine is gone.
    const linger hard = {1, 0};
    ::setsockopt(pair.client.get(), SOL_SOCKET, SO_LINGER, &hard, sizeof hard);
    ::shutdown(pair.client.get(), SHUT_RDWR);
    ::shutdown(pair.server.get(), SHUT_RDWR);
  }
}

void Relay::swallow(bool up, bool down)
{
  up_.swallow = up;
  down_.swallow = down;
}

void Relay::accept_all()
{
  while (!stopped_) {
    kestrel::Auto_Fd client(::accept4(listener_.fd(), nullptr, nullptr, SOCK_CLOEXEC));
    if (client.get() < 0 || refuse_)
      continue;
    ++connections_;
    const std::string words = next_babble();
    if (!words.empty()) {
      send_all(client.get(), words.data(), words.size());
      continue;
    }
    kestrel::Auto_Fd server(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    const sockaddr_in address = loopback_address(target_);
    if (::connect(server.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0)
      continue;
    join(client, server);
  }
}

void Relay::join(kestrel::Auto_Fd& client, kestrel::Auto_Fd& server)
{
  std::lock_guard<std::mutex> guard(lock_);
  pairs_.emplace_back();
  Pair& pair = pairs_.back();
  pair.client.reset(client.release());
  pair.server.reset(server.release());
  if (!plans_.empty()) {
    (plans_.front().first == Side::client ? pair.most_up : pair.most_down) = plans_.front().second;
    plans_.pop_front();
  }
  pair.up = std::thread([this, &pair] { pass(pair.client.get(), pair.server.get(), up_, pair.most_up); });
  pair.down =
      std::thread([this, &pair] { pass(pair.server.get(), pair.client.get(), down_, pair.most_down); });
}

void Relay::pass(int from, int to, Direction& direction, uint64_t most)
{
  char buffer[16384];
  bool ends = false;
  while (!ends) {
    const ssize_t count = ::recv(from, buffer, sizeof buffer, 0);
    if (count <= 0)
      break;
    uint64_t bytes = static_cast<uint64_t>(count);
    const uint64_t before = direction.total.fetch_add(bytes);
    if (const int msec = delay_msec_)
      ::poll(nullptr, 0, msec);
    if (direction.swallow)
      continue;
    uint64_t cut_at = direction.cut_at;
    const bool cuts = before + bytes >= cut_at;
    if (cuts)
      bytes = cut_at > before ? cut_at - before : 0;
    ends = bytes >= most;
    bytes = std::min<uint64_t>(bytes, most);
    most -= bytes;
    if (!send_all(to, buffer, bytes))
      break;
    if (cuts && direction.cut_at.compare_exchange_strong(cut_at, UINT64_MAX))
      cut();
  }
  ::shutdown(from, SHUT_RDWR);
  ::shutdown(to, SHUT_RDWR);
}
} // namespace kestrel_test
