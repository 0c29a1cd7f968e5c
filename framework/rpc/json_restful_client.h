#pragma once

#include "json/value.h"

#include <memory>
#include <string>

/// One request to the backup server, without its body.
class HTTP_Request
{
public:
  static constexpr int JSON_POST = 9; ///< POST with a JSON body

  /// `path` is absolute and without a host; `identified` adds the headers that tell the server which agent
  /// asks.
  HTTP_Request(int kind, const char* path, bool identified);

  int kind() const { return kind_; }
  const std::string& path() const { return path_; }
  bool identified() const { return identified_; }

private:
  int kind_;
  std::string path_;
  bool identified_;
};

/// Sends JSON to the backup server and reads its JSON answer.
/// Threads: any, several at once.
/// Errors:  true only for a 2xx status and an answer that is one JSON document within the network limits;
///          else false after one line at LM_ERROR with path and cause, and the reply is untouched. No
///          exception leaves. The transport bounds the time.
class JSON_RESTful_Client
{
public:
  virtual ~JSON_RESTful_Client();
  /// A null `body` sends none.
  [[nodiscard]] virtual bool post(HTTP_Request& request, const json_spirit::Value* body,
                                  json_spirit::Value* reply);

protected:
  struct Exchange_Result {
    int status = 0;
    std::string body;
  };
  /// One exchange with the server. False with a sentence in `error` when no whole answer came.
  virtual bool exchange(const HTTP_Request& request, const std::string& body, Exchange_Result& result,
                        std::string& error) = 0;
};

namespace kestrel
{
/// Carries a request to the backup server and brings its answer: what a host that has a server registers.
/// Threads: several calls at once. Errors: false with a sentence in `error`. Must end within bounded time.
class Upstream_Transport
{
public:
  virtual ~Upstream_Transport();
  virtual bool exchange(const HTTP_Request& request, const std::string& body, int& status,
                        std::string& answer, std::string& error) = 0;
};

/// Null takes the transport away; exchanges under way keep the one that they began with.
void set_upstream_transport(std::shared_ptr<Upstream_Transport> transport);
} // namespace kestrel

/// The host's client for its backup server. Without a transport every post fails and says so.
class Upstream_JSON_RESTful_Client : public JSON_RESTful_Client
{
public:
  /// Process-wide; do not delete it.
  static JSON_RESTful_Client* instance();

protected:
  bool exchange(const HTTP_Request& request, const std::string& body, Exchange_Result& result,
                std::string& error) override;
};
