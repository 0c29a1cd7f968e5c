#pragma once

#include <condition_variable>
#include <mutex>

namespace kestrel
{
/// Limits how many requests wait for agents at the same time. They hold threads that all requests share: without a
/// limit a few hosts that hang would stop the whole server, the announcements of nodes included. Those that only ask
/// leave a part of it to those that control jobs.
/// Threads: any. Must outlive its passes.
class Host_Gate
{
public:
  enum class Purpose { asking, control };

  explicit Host_Gate(unsigned limit) : for_control_(limit > 1 ? (limit + 3) / 4 : 0), free_(limit) {}

  /// One request's right to wait for agents, for as long as it lives.
  class Pass
  {
  public:
    /// Waits a moment for others to end. Errors: throws REST_Error 503.
    Pass(Host_Gate& gate, Purpose purpose);
    ~Pass();
    Pass(const Pass&) = delete;
    Pass& operator=(const Pass&) = delete;

  private:
    Host_Gate& gate_;
  };

private:
  const unsigned for_control_;
  std::mutex mutex_;
  std::condition_variable left_;
  unsigned free_;
};
} // namespace kestrel
