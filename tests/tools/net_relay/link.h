/// One relayed connection: two sockets, and for each direction the bytes that are on their way.
/// Threads:   one, the relay's. Ownership: owns both sockets.
/// Units:     monotonic milliseconds. Errors: a socket that fails ends the link with a reset of both.
#pragma once

#include "base/descriptor.h"
#include "tools/net_relay/control.h"

#include <cstdint>
#include <deque>
#include <poll.h>
#include <string>
#include <vector>

namespace net_relay
{

/// One direction: reads from one socket, writes to the other when it is time.
class Flow
{
public:
  /// False when the connection is broken.
  bool read_some(int fd, std::uint64_t now_msec, const Direction_Rule& rule);
  bool write_some(int fd, std::uint64_t now_msec, const Direction_Rule& rule,
                  std::uint64_t rate_bytes_per_second);
  bool wants_input() const { return !ended_ && queued_bytes_ < max_queued_bytes; }
  /// Whether bytes are due and only the socket may not take them.
  bool wants_output(std::uint64_t now_msec, const Direction_Rule& rule) const;
  bool finished() const { return ended_ && queue_.empty(); }
  std::uint64_t bytes() const { return bytes_; }

private:
  static constexpr std::uint64_t max_queued_bytes = 4 * 1024 * 1024;
  struct Piece {
    std::uint64_t due_msec;
    std::string bytes; // empty: the sender has said that nothing follows
  };
  std::uint64_t allowance(std::uint64_t now_msec, std::uint64_t rate_bytes_per_second);

  std::deque<Piece> queue_;
  std::uint64_t queued_bytes_ = 0;
  std::uint64_t bytes_ = 0;
  std::uint64_t credit_bytes_ = 0;
  std::uint64_t credit_msec_ = 0;
  bool ended_ = false;
};

class Link
{
public:
  Link(unsigned number, int client, int target, std::uint64_t rules_version)
      : number_(number), rules_version_(rules_version), client_(client), target_(target)
  {
  }
  void add_polls(std::vector<pollfd>& polls, std::uint64_t now_msec, const Rules& rules) const;
  /// False when the link is over: both directions have ended, or one socket is broken.
  bool step(std::uint64_t now_msec, const Rules& rules);
  /// Both sides see a reset, not an orderly end.
  void reset();
  unsigned number() const { return number_; }
  /// The version of the rules at the time when the link was made.
  std::uint64_t rules_version() const { return rules_version_; }
  std::uint64_t up_bytes() const { return up_.bytes(); }
  std::uint64_t down_bytes() const { return down_.bytes(); }

private:
  unsigned number_;
  std::uint64_t rules_version_;
  kestrel::Auto_Fd client_;
  kestrel::Auto_Fd target_;
  Flow up_;
  Flow down_;
};

} // namespace net_relay
