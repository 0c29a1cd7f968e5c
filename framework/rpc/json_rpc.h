#pragma once

#include "json/value.h"

#include <ace/Bound_Ptr.h>
#include <ace/Recursive_Thread_Mutex.h>
#include <ace/Refcounted_Auto_Ptr.h>
#include <ace/Thread_Mutex.h>

#include <string>

class JSON_RPC_Request;
class JSON_RPC_Response;

/// The messages of JSON-RPC 2.0 as handlers see them.
/// Threads: plain values; one owner at a time. Errors: none of these operations fails, but for memory.

/// A message of either kind.
class JSON_RPC_Object
{
public:
  virtual ~JSON_RPC_Object();
  /// This object as a request or as a response; null when it is the other kind.
  virtual const JSON_RPC_Request* request() const { return nullptr; }
  virtual const JSON_RPC_Response* response() const { return nullptr; }
};

typedef ACE_Refcounted_Auto_Ptr<JSON_RPC_Object, ACE_Recursive_Thread_Mutex> JSON_RPC_Object_Ptr;

/// A call. Without "params" in the message, params() is a null value.
class JSON_RPC_Request : public JSON_RPC_Object
{
public:
  JSON_RPC_Request(json_spirit::Value id, std::string method, json_spirit::Value params);
  /// Wipes the parameters: they may hold a password.
  ~JSON_RPC_Request() override;

  const json_spirit::Value& id() const { return id_; }
  const std::string& method() const { return method_; }
  const json_spirit::Value& params() const { return params_; }
  const JSON_RPC_Request* request() const override { return this; }

private:
  json_spirit::Value id_;
  std::string method_;
  json_spirit::Value params_;
};

/// The answer to one request: carries its id and a result, null until it is set.
class JSON_RPC_Response : public JSON_RPC_Object
{
public:
  explicit JSON_RPC_Response(const JSON_RPC_Request& request);

  const json_spirit::Value& id() const { return id_; }
  json_spirit::Value& result() { return result_; }
  const json_spirit::Value& result() const { return result_; }
  const JSON_RPC_Response* response() const override { return this; }

private:
  json_spirit::Value id_;
  json_spirit::Value result_;
};

/// Where a request came from and where its answer goes.
/// Threads:   send() and send_error() from any thread.
/// Ownership: held by its connection; handlers get a weak pointer, since the requester may go at any moment.
/// Errors:    0 when the text was handed over, -1 otherwise; no exception leaves. A message that cannot be
///            written as JSON is not sent.
class JSON_RPC_Channel
{
public:
  virtual ~JSON_RPC_Channel();

  /// `data` is left out of the message when it is null.
  int send_error(int code, const json_spirit::Value& id, const char* message, const json_spirit::Value& data);
  /// Sends a response; a request is refused.
  int send(JSON_RPC_Object_Ptr object);

protected:
  /// One message without a line end, as UTF-8. 0 or -1.
  virtual int send_text(const std::string& text) = 0;
};

namespace kestrel
{
/// An error answer as it is sent; `data` is left out when it is null. Throws as write_json() does.
std::string json_rpc_error_text(int code, const json_spirit::Value& id, const std::string& message,
                                const json_spirit::Value& data);
} // namespace kestrel

/// Serves the methods that the host binds to it.
/// Threads: handle_object() runs on several threads of the host at once.
/// Errors:  the result of the send, or -1 when nothing was sent; no exception leaves.
class JSON_RPC_Handler
{
public:
  virtual ~JSON_RPC_Handler();
  virtual int handle_object(ACE_Weak_Bound_Ptr<JSON_RPC_Channel, ACE_Thread_Mutex> channel,
                            ACE_Refcounted_Auto_Ptr<JSON_RPC_Object, ACE_Recursive_Thread_Mutex> object) = 0;
};
