#pragma once

#include "rpc/message_channel.h"

#include <memory>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

namespace kestrel_test
{
/// One end of a connection inside the process. What one end sends reaches the receiver of the other before
/// send() returns, on the sender's thread; without a receiver there it waits for start(). An end without
/// another keeps what it is given.
/// Threads: any.
class Memory_Channel : public kestrel::Message_Channel
{
public:
  typedef std::pair<std::shared_ptr<Memory_Channel>, std::shared_ptr<Memory_Channel>> Ends;

  explicit Memory_Channel(std::string address = "memory:1") : address_(std::move(address)) {}
  ~Memory_Channel() override;
  static Ends pair();

  void start(const std::weak_ptr<kestrel::Message_Receiver>& receiver) override;
  bool send(const std::string& text) override;
  /// Both ends are closed and told, on this thread.
  void close(const std::string& why) override;
  bool open() const override;
  std::string address() const override { return address_; }
  std::size_t message_limit_bytes() const override { return limit_bytes_; }

  void limit_bytes(std::size_t bytes) { limit_bytes_ = bytes; }
  /// From now on this end swallows what it is asked to send, as a network does that has gone silent.
  void swallow();
  /// What was sent by this end so far, delivered or not.
  std::vector<std::string> sent() const;
  /// Waits until it has sent so many texts, and gives them.
  std::vector<std::string> wait_sent(std::size_t count) const;
  /// As if the other side had sent this.
  void deliver(const std::string& text);

private:
  void end(const std::string& why);

  const std::string address_;
  std::size_t limit_bytes_ = std::size_t(16) << 20;
  mutable std::mutex mutex_;
  std::weak_ptr<Memory_Channel> other_;
  std::weak_ptr<kestrel::Message_Receiver> receiver_;
  std::vector<std::string> sent_;
  std::vector<std::string> waiting_; ///< for start()
  bool started_ = false;
  bool swallows_ = false;
  bool open_ = true;
  std::string why_;
};
} // namespace kestrel_test
