#pragma once

#include "rpc/json_rpc_dispatcher.h"

#include "support/log_capture.h"
#include "support/memory_channel.h"
#include "support/waiting.h"
#include "json/json_util.h"

#include <gtest/gtest.h>

#include <chrono>
#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

namespace kestrel_test
{
using json_spirit::Value;
using kestrel::JSON_RPC_Dispatcher;
using kestrel::JSON_RPC_Error;
using kestrel::JSON_RPC_Order;

/// Holds whoever comes until it is opened.
class Gate
{
public:
  void pass()
  {
    std::unique_lock<std::mutex> lock(mutex_);
    ++waiting_;
    changed_.notify_all();
    changed_.wait(lock, [this] { return open_; });
  }
  void wait_for(unsigned count)
  {
    std::unique_lock<std::mutex> lock(mutex_);
    EXPECT_TRUE(changed_.wait_for(lock, std::chrono::minutes(1), [&] { return waiting_ >= count; }));
  }
  void open()
  {
    const std::lock_guard<std::mutex> guard(mutex_);
    open_ = true;
    changed_.notify_all();
  }

private:
  std::mutex mutex_;
  std::condition_variable changed_;
  unsigned waiting_ = 0;
  bool open_ = false;
};

typedef ACE_Weak_Bound_Ptr<JSON_RPC_Channel, ACE_Thread_Mutex> Weak_Channel;
typedef ACE_Strong_Bound_Ptr<JSON_RPC_Channel, ACE_Thread_Mutex> Strong_Channel;

/// A handler as modules have them; what it does is given by the test.
class Handler : public JSON_RPC_Handler
{
public:
  std::function<int(Weak_Channel, JSON_RPC_Object_Ptr)> work;
  int handle_object(Weak_Channel channel, JSON_RPC_Object_Ptr object) override
  {
    return work(channel, object);
  }
};

inline int answer_params(Weak_Channel channel, JSON_RPC_Object_Ptr object)
{
  const Strong_Channel strong(channel);
  if (strong.null())
    return -1;
  JSON_RPC_Response* response = new JSON_RPC_Response(*object->request());
  const JSON_RPC_Object_Ptr answer(response);
  response->result() = object->request()->params();
  return strong->send(answer);
}

class Dispatcher_Test : public testing::Test
{
protected:
  Dispatcher_Test()
  {
    handler_.work = answer_params;
    bind("echo", [](const Value& params, Value& result, JSON_RPC_Error&) {
      result = params;
      return true;
    });
    bind("refuse", [](const Value&, Value&, JSON_RPC_Error& error) {
      error.code = kestrel::JSON_RPC_WRONG_STATE;
      error.message = "not now";
      error.data = 7;
      return false;
    });
    bind("throw", [](const Value& params, Value&, JSON_RPC_Error&) { return params.get_bool(); });
    bind("wait", [this](const Value&, Value&, JSON_RPC_Error&) {
      gate_.pass();
      return true;
    });
    EXPECT_TRUE(dispatcher_.bind("handler", &handler_));
  }
  ~Dispatcher_Test() override { gate_.open(); }

  void bind(const char* name, JSON_RPC_Dispatcher::Method method)
  {
    EXPECT_TRUE(dispatcher_.bind(name, method));
  }
  void start(unsigned threads = 2, unsigned queue_limit = 256)
  {
    JSON_RPC_Dispatcher::Options options;
    options.threads = threads;
    options.queue_limit = queue_limit;
    EXPECT_TRUE(dispatcher_.start(options));
  }
  void send(const std::string& text) { dispatcher_.receive(channel_, text); }
  /// The answer to one message.
  std::string ask(const std::string& text)
  {
    const std::size_t before = channel_->sent().size();
    send(text);
    const std::vector<std::string> sent = channel_->wait_sent(before + 1);
    return sent.size() > before ? sent[before] : "nothing";
  }
  /// After this everything that was received before has been handled.
  void settle()
  {
    EXPECT_TRUE(eventually([&] {
      const JSON_RPC_Dispatcher::Statistics now = dispatcher_.statistics();
      return now.queued == 0 && now.running == 0;
    }));
  }

  Gate gate_;
  Handler handler_;
  JSON_RPC_Dispatcher dispatcher_;
  const std::shared_ptr<Memory_Channel> channel_ = std::make_shared<Memory_Channel>();
};
} // namespace kestrel_test
