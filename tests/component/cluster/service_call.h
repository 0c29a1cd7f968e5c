#pragma once

#include "cluster_fixture.h"

#include <sched.h>
#include <sys/mount.h>

namespace kestrel_test
{
/// Does something on a thread that sees no processes at all: it has an empty /proc of its own. False, and
/// nothing was done, when this process may not have one.
inline bool without_processes(const std::function<void()>& something)
{
  bool possible = false;
  std::thread([&] {
    possible = ::unshare(CLONE_NEWNS) == 0 &&
               ::mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0 &&
               ::mount("tmpfs", "/proc", "tmpfs", 0, nullptr) == 0;
    if (possible)
      something();
  }).join();
  return possible;
}

/// A handler's answers, as the one who asked sees them.
class Service_Call : public Cluster_Fixture
{
protected:
  typedef ACE_Strong_Bound_Ptr<JSON_RPC_Channel, ACE_Thread_Mutex> Channel_Ptr;

  Service_Call() : channel_(new Collecting_Channel), keeper_(channel_) {}

  /// The text that a handler sends for these params ("" stands for absent ones), or "" when it sends none.
  std::string ask(JSON_RPC_Handler& handler, const std::string& params)
  {
    json_spirit::Value value;
    std::string error;
    if (!params.empty()) {
      EXPECT_TRUE(kestrel::read_json(params, value, error)) << error;
    }
    return ask(handler, JSON_RPC_Object_Ptr(new JSON_RPC_Request(5, "any", value)));
  }
  std::string ask(JSON_RPC_Handler& handler, const JSON_RPC_Object_Ptr& request)
  {
    channel_->texts.clear();
    result_ = handler.handle_object(keeper_, request);
    EXPECT_LE(channel_->texts.size(), 1u);
    return channel_->texts.empty() ? "" : channel_->texts[0];
  }

  static std::string answer(const std::string& result)
  {
    return "{\"jsonrpc\":\"2.0\",\"id\":5,\"result\":" + result + "}";
  }
  static std::string refusal(int code, const std::string& message)
  {
    return "{\"jsonrpc\":\"2.0\",\"id\":5,\"error\":{\"code\":" + std::to_string(code) + ",\"message\":\"" +
           message + "\"}}";
  }

  Collecting_Channel* const channel_;
  Channel_Ptr keeper_;
  int result_ = 0;
};
} // namespace kestrel_test
