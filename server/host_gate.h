#pragma once

#include <condition_variable>
#include <cstdint>
#include <map>
#include <mutex>
#include <string>
#include <vector>

namespace kestrel
{
/// Limits how many requests wait for agents at the same time: in all, of one user, and for one host.
///
/// They hold threads that all requests share, and on the host some of those that answer the server's own
/// questions: without limits a few hosts that hang, or one impatient user, would stop the whole server, the
/// choice of nodes included. Requests that only ask leave a part of the whole to those that control jobs; for
/// these only the whole counts. A request given up before the host has answered still counts for its user and
/// its host until it must be over there. Threads: any. Must outlive its passes. Units:   milliseconds.
class Host_Gate
{
public:
  struct Limits {
    unsigned all = 8;
    unsigned user = 4;            ///< that only ask
    unsigned host = 3;            ///< that only ask; fewer than an agent's threads for what takes long
    int64_t patience_msec = 2000; ///< how long a request waits for others to end
  };

  explicit Host_Gate(const Limits& limits);

  /// One request's right to wait for agents, for as long as it lives.
  class Pass
  {
  public:
    /// For a request that controls jobs.
    /// Errors: throws REST_Error 503, here as below with the time to try again.
    explicit Pass(Host_Gate& gate);
    /// For one that asks a host. Errors: throws REST_Error 429 for too many of this user, 503 else.
    Pass(Host_Gate& gate, const std::string& user, const std::string& host_uuid);
    ~Pass();
    Pass(const Pass&) = delete;
    Pass& operator=(const Pass&) = delete;

    /// The host has not answered, and may work on it for this long after the pass has ended.
    void given_up(int64_t msec) { given_up_msec_ = msec; }

  private:
    Host_Gate& gate_;
    const bool asks_;
    const std::string user_;
    const std::string host_;
    int64_t given_up_msec_ = 0;
  };

private:
  struct Load {
    unsigned inside = 0;
    std::vector<int64_t> given_up; ///< when each is over
    unsigned count(int64_t now);
  };
  typedef std::map<std::string, Load> Loads;

  enum class Full { no, all, user, host };
  Full full_for(bool asks, const std::string& user, const std::string& host);
  void enter(bool asks, const std::string& user, const std::string& host);
  void leave(Loads& loads, const std::string& key, int64_t given_up_msec);
  void forget();

  const Limits limits_;
  const unsigned for_control_;
  std::mutex mutex_;
  std::condition_variable left_;
  unsigned inside_ = 0;
  unsigned asking_waits_ = 0;
  unsigned control_waits_ = 0;
  Loads users_;
  Loads hosts_;
};
} // namespace kestrel
