#pragma once

#include "json/value.h"

#include <functional>
#include <map>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

namespace kestrel
{
/// Who sent a request, as the authentication found out.
struct REST_Caller {
  enum Kind { nobody, user, agent };
  Kind kind = nobody;
  std::string name;    ///< of the user or of the host
  std::string uuid;    ///< of the host, for an agent
  std::string role;    ///< "viewer", "operator" or "admin" for a user, "agent" for an agent
  std::string address; ///< numeric address of the client, without the port
  std::string key_hash; ///< of the access key that an agent showed
};

/// Who may use a resource. A role includes the ones below it: viewer < operator < admin.
enum class REST_Access {
  anyone, ///< also without signing in
  viewer,
  operator_,
  admin,
  agent, ///< agents only; no user, whatever the role
  agent_or_viewer,
  agent_or_operator
};

/// Whether the caller may use what needs `least`.
bool rest_access_allowed(REST_Access least, const REST_Caller& caller);

/// One request. The server fills method, headers, body and caller.address; the router everything else.
struct REST_Request {
  std::string method;
  std::string path;                           ///< percent-decoded, without the query
  std::vector<std::string> parts;             ///< the path's segments, each percent-decoded: may hold a '/'
  std::map<std::string, std::string> query;   ///< decoded; of a name that occurs twice, the last
  std::map<std::string, std::string> vars;    ///< what stood for each {name} of the pattern, never empty
  std::map<std::string, std::string> headers; ///< names in lower case
  std::string body;
  REST_Caller caller;
  json_spirit::Value json; ///< the parsed body; null when there is none or the resource takes raw bytes

  /// A whole number of the query. Errors: throws REST_Error 400 when it is none or outside of the limits.
  int64_t query_number(const std::string& name, int64_t otherwise, int64_t least, int64_t most) const;
  /// The text of the query, `otherwise` when it is not there.
  std::string query_text(const std::string& name, const std::string& otherwise = std::string()) const;
};

/// The answer. Without `json` and `raw` the body is empty. With `content_type` the body is `raw`, else
/// `json`.
struct REST_Reply {
  int status = 200;
  json_spirit::Value json;
  std::string content_type;
  std::string raw;
  std::map<std::string, std::string> headers;
  /// Called once on a worker thread when the reply was written to the connection, or with false when it could
  /// not be: a client that never saw its answer waits for nothing that was to follow.
  std::function<void(bool written)> after_sent;
  /// What the audit says about the request: short, without secrets. Method and path stand there anyway.
  std::string audit;
  bool changed = true; ///< false: this request changed nothing, though others of its kind do; not audited
};

/// Thrown by handlers to end a request with an error that is complete for the user.
class REST_Error : public std::runtime_error
{
public:
  /// `retry_seconds`: when to try again, told to the client unless 0.
  REST_Error(int status, std::string code, const std::string& message, int retry_seconds = 0)
      : std::runtime_error(message), status_(status), retry_seconds_(retry_seconds), code_(std::move(code))
  {
  }
  int retry_seconds() const { return retry_seconds_; }
  int status() const { return status_; }
  const std::string& code() const { return code_; }

private:
  int status_;
  int retry_seconds_;
  std::string code_;
};

/// {"error":{"code":...,"message":...}}. The message says what, where, and what to do.
REST_Reply rest_error(int status, const std::string& code, const std::string& message);

/// Leads requests to the handlers of their resources: checks path, method, role and body before the handler
/// sees them, and turns what a handler throws into a reply.
/// Threads:   add() and the setters before the first request; handle() from any number of threads.
/// Ownership: owns the handlers; what they refer to must outlive the router.
/// Errors:    handle() never throws. A REST_Error of a handler becomes its reply; a plain std::runtime_error
///            400 with its text (the accessors of JSON values throw it); what the translator knows its reply;
///            anything else, classes derived from std::runtime_error too, 500 and one LM_ERROR line.
class REST_Router
{
public:
  typedef std::function<REST_Reply(REST_Request&)> Handler;

  struct Route_Options {
    bool raw_body = false;    ///< takes bytes of any type; the body is not parsed
    bool changes = true;      ///< false: a POST that only asks, never audited. A GET never is.
    bool quiet_audit = false; ///< only failures are audited: for what agents send by themselves, often
  };

  /// Whoever the headers name: fills `caller` and returns true, also for nobody when no credential was sent.
  /// False: the credential is not valid; the request is answered with 401 and `problem` as its text.
  typedef std::function<bool(const REST_Request&, REST_Caller& caller, std::string& problem)> Authenticator;
  /// One request that changed something, or tried to. Of strangers only what a handler that anyone may use
  /// refused with 401.
  typedef std::function<void(const REST_Request&, int status, const std::string& what)> Auditor;
  /// Every request: pattern is "" when none matched.
  typedef std::function<void(const std::string& method, const std::string& pattern, int status,
                             double seconds)>
      Observer;

  REST_Router();
  ~REST_Router();
  REST_Router(const REST_Router&) = delete;
  REST_Router& operator=(const REST_Router&) = delete;

  /// `pattern` is like "/k2/r/hosts/{host}". A last segment "{name...}" takes one or more segments, joined by
  /// '/'. Of several patterns that match, the one with the earliest literal segment wins.
  void add(const char* method, const char* pattern, REST_Access least, Handler handler);
  void add(const char* method, const char* pattern, REST_Access least, Handler handler,
           Route_Options options);

  void set_authenticator(Authenticator authenticator);
  void set_auditor(Auditor auditor);
  void set_observer(Observer observer);
  /// Knows the exceptions of the layers above: false leaves the exception a 500. A text that clients must not
  /// see is logged by it.
  typedef std::function<bool(const std::exception&, REST_Reply&)> Translator;
  void set_translator(Translator translator);

  /// Answers one request. `target` is the path with the query as it came in the request line.
  REST_Reply handle(REST_Request& request, const std::string& target) const;
  /// Before a large body is read: status 200 when a request of this header would reach its handler, else its
  /// answer. Not audited; handle() follows with the same request.
  REST_Reply check(REST_Request& request, const std::string& target) const;

private:
  struct State;
  const std::unique_ptr<State> state_;
};

/// Splits the target of a request into path, parts and query. False with `problem` for a target that does not
/// begin with '/', holds a bad escape, a zero byte, invalid UTF-8, an empty or a dot segment.
[[nodiscard]] bool parse_rest_target(const std::string& target, REST_Request& request, std::string& problem);
} // namespace kestrel
