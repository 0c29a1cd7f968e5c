#pragma once

#include <condition_variable>
#include <mutex>

namespace kestrel
{
/// Limits how many requests wait for agents at the same time. They hold threads that all requests share: without a
/// limit a few hosts that hang would stop the whole server, the announcements of nodes included.
/// Threads: any. Must outlive its passes.
class Host_Gate
{
public:
  explicit Host_Gate(unsigned limit) : free_(limit) {}

  /// One request's right to wait for agents, for as long as it lives.
  class Pass
  {
  public:
    /// Waits a moment for others to end. Errors: throws REST_Error 503.
    explicit Pass(Host_Gate& gate);
    ~Pass();
    Pass(const Pass&) = delete;
    Pass& operator=(const Pass&) = delete;

  private:
    Host_Gate& gate_;
  };

private:
  std::mutex mutex_;
  std::condition_variable left_;
  unsigned free_;
};
} // namespace kestrel
