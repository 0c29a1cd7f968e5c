#pragma once

#include "base/descriptor.h"

#include <atomic>
#include <cstddef>
#include <deque>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

namespace kestrel_test
{
/// Passes TCP connections on 127.0.0.1 on to another port, and cuts them as planned: each plan is used up by one
/// connection, later connections pass.
/// Threads: one for the acceptance and one for each connection.
class Cutting_Relay
{
public:
  enum class Side { client, server };

  explicit Cutting_Relay(unsigned short target_port);
  ~Cutting_Relay();
  Cutting_Relay(const Cutting_Relay&) = delete;
  Cutting_Relay& operator=(const Cutting_Relay&) = delete;

  unsigned short port() const { return port_; }
  /// The next connection without a plan is cut after so many bytes that this side sent.
  void cut_after(Side side, size_t bytes);
  /// So many connections are answered with this text in place of the target.
  void say_instead(const std::string& text, unsigned connections);
  size_t planned_cuts() const;

private:
  struct Plan {
    bool cut = false;
    Side side = Side::client;
    size_t bytes = 0;
    std::string say;
  };
  void accept_all();
  void relay(int client, Plan plan);
  bool pass(int from, int to, Side side, const Plan& plan, size_t& passed) const;

  const unsigned short target_port_;
  unsigned short port_ = 0;
  kestrel::Auto_Fd listener_;
  std::atomic<bool> stop_{false};
  mutable std::mutex mutex_;
  std::deque<Plan> plans_;
  std::vector<std::thread> relays_; ///< the acceptor's until it has ended
  std::thread acceptor_;
};
} // namespace kestrel_test
