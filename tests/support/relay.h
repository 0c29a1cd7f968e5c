#pragma once

#include "base/descriptor.h"
#include "support/loopback.h"

#include <atomic>
#include <climits>
#include <cstdint>
#include <deque>
#include <list>
#include <mutex>
#include <string>
#include <thread>
#include <utility>

namespace kestrel_test
{
/// A bad network between a client and a server on this host: it listens on a port of its own, passes every
/// byte on, and breaks the connections as it is told.
/// Threads: the controls from any thread.
class Relay
{
public:
  enum class Side { client, server };

  explicit Relay(unsigned short target);
  ~Relay();
  Relay(const Relay&) = delete;
  Relay& operator=(const Relay&) = delete;

  unsigned short port() const { return listener_.port(); }
  std::string url() const { return "https://127.0.0.1:" + std::to_string(port()); }

  /// Once that many further bytes went from the client to the server, all connections are cut.
  void cut_after(uint64_t bytes_up);
  /// The same for bytes from the server.
  void cut_after_answer(uint64_t bytes_down);
  /// Cuts all connections now.
  void cut();
  /// One connection that is still to come is cut once that many bytes went through it in one direction. Each
  /// plan is for one connection, in this order; connections for which none is left pass.
  void plan_cut(Side sender, uint64_t bytes);
  size_t planned_cuts() const;
  /// Swallows everything, in the named directions, until both are false again; connections stay open.
  void swallow(bool up, bool down);
  /// Waits this long before each piece is passed on.
  void delay_msec(int msec) { delay_msec_ = msec; }
  /// New connections are closed at once.
  void refuse(bool refuse) { refuse_ = refuse; }
  /// Answers that many connections with these bytes instead of passing anything on.
  void babble(const std::string& bytes, unsigned connections = UINT_MAX);

  uint64_t bytes_up() const { return up_.total; }
  uint64_t bytes_down() const { return down_.total; }
  unsigned cuts() const { return cuts_; }
  unsigned connections() const { return connections_; }

private:
  struct Direction {
    std::atomic<uint64_t> total{0};
    std::atomic<uint64_t> cut_at{UINT64_MAX};
    std::atomic<bool> swallow{false};
  };
  struct Pair {
    kestrel::Auto_Fd client;
    kestrel::Auto_Fd server;
    uint64_t most_up = UINT64_MAX; ///< bytes that this connection carries before it is cut
    uint64_t most_down = UINT64_MAX;
    std::thread up;
    std::thread down;
  };
  void accept_all();
  /// What to say in place of the server; "" passes the connection on.
  std::string next_babble();
  /// Takes the two over.
  void join(kestrel::Auto_Fd& client, kestrel::Auto_Fd& server);
  void pass(int from, int to, Direction& direction, uint64_t most);

  const unsigned short target_;
  Loopback_Listener listener_;
  Direction up_;
  Direction down_;
  std::atomic<int> delay_msec_{0};
  std::atomic<bool> refuse_{false};
  std::atomic<bool> stopped_{false};
  std::atomic<unsigned> cuts_{0};
  std::atomic<unsigned> connections_{0};
  mutable std::mutex lock_;
  std::list<Pair> pairs_;
  std::deque<std::pair<Side, uint64_t>> plans_;
  std::string babble_;
  unsigned babbles_ = 0;
  std::thread acceptor_;
};
} // namespace kestrel_test
