#pragma once

#include <memory>
#include <string>

namespace kestrel
{
/// Takes what one connection delivers.
/// Threads: a network thread of the connection calls, one call at a time. A slow receiver stops the reading
///          of its connection, so hand work over to other threads, and never wait for another message in
///          here.
class Message_Receiver
{
public:
  virtual ~Message_Receiver();
  virtual void message(const std::string& text) = 0;
  /// Once, as the last call. `why` is a sentence for the user: what ended, where, and what to do.
  virtual void closed(const std::string& why) = 0;
};

/// One connection that carries whole texts both ways.
/// Not for:   streams of bytes, or anything that must survive the connection.
/// Threads:   any, several at once; identify() only before start().
/// Ownership: shared; its last owner closes it. The receiver is not kept.
/// Errors:    false = not accepted for sending. True does not mean that the other side has got it.
class Message_Channel
{
public:
  virtual ~Message_Channel();

  /// Begins to deliver. Once. What came before is not lost. When the connection is closed already, closed()
  /// is called before this returns.
  virtual void start(const std::weak_ptr<Message_Receiver>& receiver) = 0;
  /// Queues one text and returns at once. False: the connection is closed, or the text is larger than
  /// message_limit_bytes(). A queue that is full closes the connection: its peer reads too slowly.
  [[nodiscard]] virtual bool send(const std::string& text) = 0;
  /// Sends what is queued and says good-bye, within a bounded time, and returns at once. `why` goes to the
  /// receiver's closed(). Does nothing when the connection is closed.
  virtual void close(const std::string& why) = 0;
  virtual bool open() const = 0;
  /// The other end as "address:port".
  virtual std::string address() const = 0;
  /// How many texts wait to be written: lets a sender that can thin out what it has to say wait for a slow
  /// reader.
  virtual std::size_t unsent() const { return 0; }
  virtual std::size_t message_limit_bytes() const { return std::size_t(16) << 20; }

  /// A name for the other end, given by whoever knows it (a host's uuid, say). Empty at first.
  void identify(const std::string& who) { who_ = who; }
  const std::string& who() const { return who_; }

private:
  std::string who_;
};
} // namespace kestrel
