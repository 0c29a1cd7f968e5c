#include "tools/net_relay/link.h"

#include <algorithm>
#include <cerrno>
#include <sys/socket.h>
#include <unistd.h>

namespace net_relay
{

namespace
{

constexpr std::size_t piece_bytes = 16 * 1024;

bool only_later(int error)
{
  return error == EAGAIN || error == EWOULDBLOCK || error == EINTR || error == ENOTCONN ||
         error == EINPROGRESS;
}

} // namespace

bool Flow::read_some(int fd, std::uint64_t now_msec, const Direction_Rule& rule)
{
  while (wants_input()) {
    char buffer[piece_bytes];
    const ssize_t count = ::recv(fd, buffer, sizeof buffer, MSG_DONTWAIT);
    if (count < 0)
      return only_later(errno);
    ended_ = count == 0;
    queue_.push_back({now_msec + rule.delay_msec, std::string(buffer, static_cast<std::size_t>(count))});
    queued_bytes_ += static_cast<std::uint64_t>(count);
  }
  return true;
}

std::uint64_t Flow::allowance(std::uint64_t now_msec, std::uint64_t rate_bytes_per_second)
{
  if (rate_bytes_per_second == 0)
    return UINT64_MAX;
  const std::uint64_t earned = (now_msec - credit_msec_) * rate_bytes_per_second / 1000;
  if (earned > 0) {
    // Never more than a tenth of a second's worth, so that a pause is not made good at once.
    credit_bytes_ = std::min(credit_bytes_ + earned, rate_bytes_per_second / 10 + 1);
    credit_msec_ = now_msec;
  }
  return credit_bytes_;
}

bool Flow::wants_output(std::uint64_t now_msec, const Direction_Rule& rule) const
{
  return !rule.held && !queue_.empty() && queue_.front().due_msec <= now_msec;
}

bool Flow::write_some(int fd, std::uint64_t now_msec, const Direction_Rule& rule,
                      std::uint64_t rate_bytes_per_second)
{
  while (wants_output(now_msec, rule)) {
    Piece& piece = queue_.front();
    if (piece.bytes.empty()) {
      queue_.pop_front();
      return ::shutdown(fd, SHUT_WR) == 0 || only_later(errno);
    }
    const std::uint64_t most = allowance(now_msec, rate_bytes_per_second);
    if (most == 0)
      return true;
    const ssize_t count = ::send(fd, piece.bytes.data(),
                                 static_cast<std::size_t>(std::min<std::uint64_t>(piece.bytes.size(), most)),
                                 MSG_DONTWAIT | MSG_NOSIGNAL);
    if (count < 0)
      return only_later(errno);
    const std::uint64_t sent = static_cast<std::uint64_t>(count);
    credit_bytes_ -= std::min(credit_bytes_, sent);
    queued_bytes_ -= sent;
    bytes_ += sent;
    piece.bytes.erase(0, sent);
    if (piece.bytes.empty())
      queue_.pop_front();
  }
  return true;
}

void Link::add_polls(std::vector<pollfd>& polls, std::uint64_t now_msec, const Rules& rules) const
{
  const auto events = [now_msec](const Flow& in, const Flow& out, const Direction_Rule& rule) {
    return static_cast<short>((in.wants_input() ? POLLIN : 0) |
                              (out.wants_output(now_msec, rule) ? POLLOUT : 0));
  };
  // With a limit on the rate the loop's own beat decides when to write.
  const bool limited = rules.rate_bytes_per_second != 0;
  const Direction_Rule never{0, true};
  const short at_client = events(up_, down_, limited ? never : rules.down);
  const short at_target = events(down_, up_, limited ? never : rules.up);
  // Without events a socket whose other side is gone would wake the loop for ever.
  if (at_client != 0)
    polls.push_back({client_.get(), at_client, 0});
  if (at_target != 0)
    polls.push_back({target_.get(), at_target, 0});
}

bool Link::step(std::uint64_t now_msec, const Rules& rules)
{
  if (!up_.read_some(client_.get(), now_msec, rules.up) ||
      !down_.read_some(target_.get(), now_msec, rules.down) ||
      !up_.write_some(target_.get(), now_msec, rules.up, rules.rate_bytes_per_second) ||
      !down_.write_some(client_.get(), now_msec, rules.down, rules.rate_bytes_per_second)) {
    reset();
    return false;
  }
  return !up_.finished() || !down_.finished();
}

void Link::reset()
{
  const linger at_once{1, 0};
  ::setsockopt(client_.get(), SOL_SOCKET, SO_LINGER, &at_once, sizeof at_once);
  ::setsockopt(target_.get(), SOL_SOCKET, SO_LINGER, &at_once, sizeof at_once);
}

} // namespace net_relay
