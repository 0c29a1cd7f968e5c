#pragma once

#include <memory>

namespace boost
{
namespace asio
{
class io_context;
}
} // namespace boost

namespace kestrel
{
/// The threads on which connections read, write and keep their time. One is enough for hundreds of
/// connections, for no handler of requests runs here.
/// Threads:   start() and stop() by the owner. stop() on one of these threads is a mistake and aborts.
/// Ownership: must outlive whatever dials or accepts with it.
/// Errors:    start(): false after one line at LM_ERROR.
class Network_Threads
{
public:
  Network_Threads();
  ~Network_Threads();
  Network_Threads(const Network_Threads&) = delete;
  Network_Threads& operator=(const Network_Threads&) = delete;

  [[nodiscard]] bool start(unsigned threads = 1);
  /// Cuts what is still open and waits for the threads; receivers get their closed() before it returns. Not
  /// to be started again.
  void stop();
  /// For the files that know the networking library.
  boost::asio::io_context& context();

private:
  struct State;
  const std::unique_ptr<State> state_;
};
} // namespace kestrel
