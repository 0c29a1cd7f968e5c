#pragma once

#include "remote/rest_client.h"

#include <deque>
#include <functional>
#include <mutex>
#include <string>
#include <vector>

namespace kestrel_test
{
/// A server in a list: each request takes the next step, which answers it or makes it fail.
/// Threads: any.
class Scripted_Transport : public kestrel::REST_Transport
{
public:
  struct Seen {
    std::string method;
    std::string path;
    std::string body;
    std::vector<std::pair<std::string, std::string>> headers;
  };

  void answer(int status, const std::string& body)
  {
    steps_.push_back([=](kestrel::REST_Answer& answer, kestrel::REST_Problem&) {
      answer.status = status;
      answer.body = body;
      return true;
    });
  }

  void fail(kestrel::REST_Problem::Kind kind, const std::string& text)
  {
    steps_.push_back([=](kestrel::REST_Answer&, kestrel::REST_Problem& problem) {
      problem.kind = kind;
      problem.text = text;
      return false;
    });
  }

  /// The attempt takes all its time; `waits` gets the seconds.
  void late(kestrel::REST_Problem::Kind kind, const std::function<void(unsigned seconds)>& waits)
  {
    steps_.push_back([=](kestrel::REST_Answer&, kestrel::REST_Problem& problem) {
      waits(seconds_);
      problem.kind = kind;
      problem.text = "no answer came in time";
      return false;
    });
  }

  bool perform(const kestrel::REST_Call& call, kestrel::REST_Answer& answer,
               kestrel::REST_Problem& problem) override
  {
    std::lock_guard<std::mutex> guard(lock_);
    seen.push_back({call.method, call.path,
                    std::string(static_cast<const char*>(call.body), static_cast<size_t>(call.body_bytes)),
                    call.headers});
    if (steps_.empty()) {
      problem.kind = kestrel::REST_Problem::unreachable;
      problem.text = "the script is over";
      return false;
    }
    seconds_ = call.seconds;
    const auto step = steps_.front();
    steps_.pop_front();
    return step(answer, problem);
  }

  std::vector<Seen> seen;

private:
  unsigned seconds_ = 0; // of the present attempt
  std::mutex lock_;
  std::deque<std::function<bool(kestrel::REST_Answer&, kestrel::REST_Problem&)>> steps_;
};
} // namespace kestrel_test
