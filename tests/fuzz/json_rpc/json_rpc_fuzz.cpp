#include "rpc/json_rpc_peer.h"
#include "support/corpus.h"
#include "support/memory_channel.h"
#include "json/json_util.h"

#include <cstdlib>
#include <string>
#include <thread>
#include <vector>

using json_spirit::Value;
using kestrel::JSON_RPC_Dispatcher;
using kestrel_test::Memory_Channel;

namespace
{
void check(bool holds)
{
  if (!holds)
    ::abort();
}

/// Whether it is one answer: an id, and a result or an error with code and text.
void check_answer(const Value& value)
{
  const json_spirit::Object& answer = value.get_obj();
  check(json_spirit::find_value(answer, "jsonrpc") == Value("2.0"));
  check(answer.size() == 3 && answer[1].name_ == "id");
  if (answer[2].name_ == "result")
    return;
  check(answer[2].name_ == "error");
  check(json_spirit::find_value(answer[2].value_.get_obj(), "code").get_int() < 0);
  check(!json_spirit::find_value(answer[2].value_.get_obj(), "message").get_str().empty());
}

void check_message(const std::string& text)
{
  Value value;
  std::string error;
  check(kestrel::read_json(text, value, error));
  if (value.type() != json_spirit::array_type) {
    check_answer(value);
    return;
  }
  check(!value.get_array().empty());
  for (const Value& answer : value.get_array())
    check_answer(answer);
}

class Service
{
public:
  Service()
  {
    check(dispatcher_.bind("echo", [](const Value& params, Value& result, kestrel::JSON_RPC_Error&) {
      result = params;
      return true;
    }));
    check(dispatcher_.bind("fail", [](const Value&, Value&, kestrel::JSON_RPC_Error& error) {
      error.message = "failed";
      return false;
    }));
    check(dispatcher_.start_with_defaults());
  }
  /// One message as a connection's only one, with a call under way that it may answer.
  void take(const std::string& text)
  {
    const auto channel = std::make_shared<Memory_Channel>();
    const auto peer = kestrel::JSON_RPC_Peer::start(channel, &dispatcher_);
    const auto call = peer->begin_call("m", Value());
    channel->deliver(text);
    for (;;) {
      const JSON_RPC_Dispatcher::Statistics now = dispatcher_.statistics();
      if (now.queued == 0 && now.running == 0)
        break;
      std::this_thread::yield();
    }
    const std::vector<std::string> sent = channel->sent();
    check(sent.size() <= 2); // the call, and one answer at most
    if (sent.size() == 2)
      check_message(sent[1]);
    check(dispatcher_.statistics().open == 0);
  }

private:
  JSON_RPC_Dispatcher dispatcher_;
};
} // namespace

// Whatever comes gets one well-formed message as its answer, or none.
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
  static Service service;
  service.take(std::string(reinterpret_cast<const char*>(data), size));
  return 0;
}
