#pragma once

#include "json/value.h"

#include <atomic>
#include <cstdint>
#include <memory>
#include <string>
#include <utility>
#include <vector>

namespace kestrel
{
/// Where a backup server is and how this process identifies itself to it.
struct REST_Client_Options {
  /// "https://HOST:PORT", nothing behind it.
  std::string url;
  /// The authorities that may have signed the server's certificate: PEM text, else a PEM file, else the
  /// system's list. The certificate must be valid and name the host of the URL.
  std::string ca_pem;
  std::string ca_file;
  /// At most one of the two secrets: a host's access key, or the token of a console session.
  std::string access_key;
  std::string bearer;
  unsigned connect_seconds = 10;
};

/// What a caller wants to have tried again, with growing pauses of kestrel::clock(), until it worked or the
/// seconds are over. Always worth it: a server that was not reached, and the answers 429, 502, 503 and 504.
struct REST_Retry {
  unsigned seconds = 0;
  /// Also a request that the server may have carried out although no whole answer came. Only for requests
  /// that may be repeated.
  bool repeat_lost = false;
};

/// One request.
struct REST_Call {
  const char* method = "GET";
  /// Absolute, without the host; made with rest_path() where a part comes from outside.
  std::string path;
  /// Sent when has_body. The bytes are the caller's and must stay until the call has returned.
  const void* body = nullptr;
  uint64_t body_bytes = 0;
  bool has_body = false;
  const char* content_type = "application/json";
  /// Further header lines, name and value.
  std::vector<std::pair<std::string, std::string>> headers;
  /// For the whole of one attempt.
  unsigned seconds = 60;
  /// A longer answer is refused.
  uint64_t most_answer_bytes = 16u << 20;
  REST_Retry retry;
  /// Ends the call soon after it has become true. May be null; not owned.
  const std::atomic<bool>* stopped = nullptr;
};

/// A whole answer of the server, whatever its status.
struct REST_Answer {
  int status = 0;
  std::string content_type;
  std::string body;
};

/// Why a call failed.
struct REST_Problem {
  enum Kind {
    none,
    unreachable, ///< the server has not seen the request
    lost,        ///< the request may have been carried out, but no whole answer came
    busy,        ///< answered with 429 or 5xx: later it may work
    refused,     ///< answered with another status: trying again would not help
    unusable,    ///< something answered that is no backup server, or one that cannot be trusted
    stopped      ///< the caller gave up
  };
  Kind kind = none;
  /// Of the answer; 0 when none came.
  int status = 0;
  /// The server's short name for the cause, such as "not_found"; may be empty.
  std::string code;
  /// One sentence: what failed, on which server, why, and what to do. Never holds a secret.
  std::string text;
};

/// Carries one request to a server. The real one speaks HTTPS; tests put others in its place.
class REST_Transport
{
public:
  virtual ~REST_Transport();
  /// One attempt. True when a whole answer came; else `problem` is filled with unreachable, lost, unusable or
  /// stopped.
  virtual bool perform(const REST_Call& call, REST_Answer& answer, REST_Problem& problem) = 0;
};

/// A client of one backup server.
///
/// Purpose:   JSON requests and streams of bytes over HTTPS, with connections that are kept and used again.
/// Threads:   any number of calls at once; each call uses a connection of its own.
/// Ownership: of its connections; the destructor closes them and must not run beside a call.
/// Units:     seconds, bytes.
/// Errors:    false and `problem` filled; other out-parameters untouched. Answers above the limit, JSON
///            deeper than 64 levels and answers of other types than asked for are refused. No exception
///            leaves a call, but for memory. Redirections and proxies are not followed: the server is known.
class REST_Client
{
public:
  explicit REST_Client(const REST_Client_Options& options);
  /// For tests.
  REST_Client(const REST_Client_Options& options, std::shared_ptr<REST_Transport> transport);
  ~REST_Client();
  REST_Client(const REST_Client&) = delete;
  REST_Client& operator=(const REST_Client&) = delete;

  /// True for an answer with a 2xx status.
  [[nodiscard]] bool exchange(const REST_Call& call, REST_Answer& answer, REST_Problem& problem);

  /// The same with JSON both ways. A null `body` sends none; an empty answer gives a null value. The call's
  /// method, path, limits and retries count. The written texts of body and answer are wiped, since they may
  /// hold a password or a token; `body` is the caller's, and the transport's own buffers are not reached.
  [[nodiscard]] bool call(const REST_Call& call, const json_spirit::Value* body, json_spirit::Value& reply,
                          REST_Problem& problem);
  /// Short forms with the usual limits, without retries.
  [[nodiscard]] bool get(const std::string& path, json_spirit::Value& reply, REST_Problem& problem);
  [[nodiscard]] bool post(const std::string& path, const json_spirit::Value& body, json_spirit::Value& reply,
                          REST_Problem& problem);

  const std::string& url() const { return url_; }

private:
  const std::string url_;
  const std::shared_ptr<REST_Transport> transport_;
};

/// Waits by kestrel::clock(). False as soon as `stopped` (which may be null) is true.
[[nodiscard]] bool pause_unless(const std::atomic<bool>* stopped, int64_t msec);

/// The parts joined by slashes below "/k2/r/", each escaped so that nothing in it can end a segment.
std::string rest_path(const std::vector<std::string>& parts);
/// The same, with a query behind it.
std::string rest_path(const std::vector<std::string>& parts,
                      const std::vector<std::pair<std::string, std::string>>& query);
/// Every byte but letters, digits and "-._~" as %XX.
std::string url_escape(const std::string& text);

/// Takes "https://HOST[:PORT]" apart (7480 unless given; an address of IPv6 in brackets, without them in
/// `host`). False with a sentence in `error` for anything else, also when a user or a path is in it.
[[nodiscard]] bool parse_server_url(const std::string& url, std::string& host, unsigned short& port,
                                    std::string& error);

/// Lets every REST_Client that is made while the scope lasts use this transport. For tests.
class Scoped_REST_Transport
{
public:
  explicit Scoped_REST_Transport(std::shared_ptr<REST_Transport> transport);
  ~Scoped_REST_Transport();
  Scoped_REST_Transport(const Scoped_REST_Transport&) = delete;
  Scoped_REST_Transport& operator=(const Scoped_REST_Transport&) = delete;

private:
  std::shared_ptr<REST_Transport> previous_;
};
} // namespace kestrel
