#include "rpc/websocket_client.h"

#include "rpc/websocket_session.h"
#include "rpc/websocket_url.h"

#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/address.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/post.hpp>
#include <boost/asio/ssl/error.hpp>
#include <boost/asio/strand.hpp>
#include <boost/beast/core/error.hpp>
#include <boost/beast/websocket/error.hpp>

#include <algorithm>
#include <condition_variable>
#include <mutex>
#include <optional>

namespace kestrel
{
namespace
{
namespace asio = boost::asio;
namespace beast = boost::beast;
namespace websocket = boost::beast::websocket;
typedef asio::ip::tcp tcp;
typedef beast::error_code Error;

/// How a dial ended; the first end counts.
class Outcome
{
public:
  void fail(WebSocket_Failure::Kind kind, const std::string& message, int http_status = 0)
  {
    const std::lock_guard<std::mutex> guard(mutex_);
    if (done_)
      return;
    done_ = true;
    failure_.kind = kind;
    failure_.http_status = http_status;
    failure_.message = message;
    changed_.notify_all();
  }
  void succeed(std::shared_ptr<WebSocket_Channel> channel)
  {
    const std::lock_guard<std::mutex> guard(mutex_);
    if (done_)
      return;
    done_ = true;
    channel_ = std::move(channel);
    changed_.notify_all();
  }
  std::shared_ptr<WebSocket_Channel> wait(WebSocket_Failure& failure)
  {
    std::unique_lock<std::mutex> lock(mutex_);
    changed_.wait(lock, [this] { return done_; });
    if (!channel_)
      failure = failure_;
    return std::move(channel_);
  }

private:
  std::mutex mutex_;
  std::condition_variable changed_;
  bool done_ = false;
  WebSocket_Failure failure_;
  std::shared_ptr<WebSocket_Channel> channel_;
};

std::string refusal(const std::string& where, int status)
{
  switch (status) {
  case 401:
    return where + " does not accept the access key (status 401); enroll this host again.";
  case 403:
    return where + " does not let this host in (status 403); ask its administrator.";
  case 404:
    return where + " offers no such service (status 404); check the address, and the versions of both sides.";
  case 429:
  case 503:
    return where + " is too busy for another connection (status " + std::to_string(status) +
           "); try again later.";
  default:
    return where + " refused the connection with status " + std::to_string(status) +
           "; see the server's log.";
  }
}

/// One way from the addresses of a host to a WebSocket. Everything but cancel() happens on one strand.
class Dial : public std::enable_shared_from_this<Dial>
{
public:
  /// Without `tls` in plain text.
  Dial(asio::io_context& network, const WebSocket_Dial& options, const WebSocket_URL& url,
       std::vector<tcp::endpoint> endpoints, std::shared_ptr<Outcome> outcome,
       std::shared_ptr<TLS_Client_Context> tls)
      : options_(options), url_(url), where_(url.authority()),
        name_(options.tls.server_name.empty() ? url.host : options.tls.server_name),
        endpoints_(std::move(endpoints)), outcome_(std::move(outcome)), tls_(std::move(tls)),
        strand_(asio::make_strand(network)), stream_(connection())
  {
  }
  /// Without effect when there is an outcome.
  ~Dial() { outcome_->fail(WebSocket_Failure::cancelled, "The network threads were stopped."); }

  void begin()
  {
    asio::post(strand_, [self = shared_from_this()] { self->connect(); });
  }
  /// From any thread.
  void cancel()
  {
    outcome_->fail(WebSocket_Failure::cancelled, "Connecting to " + where_ + " was given up.");
    asio::post(strand_, [self = shared_from_this()] {
      self->cancelled_ = true;
      if (self->session_)
        self->session_->abort();
      else if (self->stream_)
        self->stream_->lowest().close();
    });
  }

private:
  Network_Stream connection() const
  {
    beast::tcp_stream tcp(strand_);
    return tls_ ? Network_Stream(std::move(tcp), tls_->context()) : Network_Stream(std::move(tcp));
  }
  beast::tcp_stream& lowest() { return stream_->lowest(); }

  void connect()
  {
    if (cancelled_)
      return;
    const tcp::endpoint& endpoint = endpoints_[next_endpoint_++];
    lowest().expires_after(std::chrono::milliseconds(options_.connect_msec));
    lowest().async_connect(endpoint, [self = shared_from_this()](Error error) { self->connected(error); });
  }

  void connected(Error error)
  {
    if (!error) {
      lowest().expires_never();
      secure();
      return;
    }
    lowest().close();
    if (next_endpoint_ < endpoints_.size())
      connect();
    else if (error == beast::error::timeout)
      outcome_->fail(WebSocket_Failure::timed_out,
                     where_ + " did not accept a connection within " + std::to_string(options_.connect_msec) +
                         " ms; check that the host runs and that no packet filter is in between.");
    else
      outcome_->fail(WebSocket_Failure::unreachable, where_ + " accepts no connection (" + error.message() +
                                                         "); check the address and that the server runs.");
  }

  void secure()
  {
    if (!tls_) {
      upgrade();
      return;
    }
    if (!tls_expect_name(stream_->tls(), name_)) {
      outcome_->fail(WebSocket_Failure::bad_options, name_ + " is not a name that a certificate can be for.");
      return;
    }
    lowest().expires_after(std::chrono::milliseconds(options_.tls_msec));
    stream_->async_handshake(asio::ssl::stream_base::client,
                             [self = shared_from_this()](Error error) { self->secured(error); });
  }

  void secured(Error error)
  {
    if (!error) {
      lowest().expires_never();
      upgrade();
      return;
    }
    const std::string problem = tls_certificate_problem(stream_->tls(), where_, name_);
    if (error == beast::error::timeout)
      outcome_->fail(WebSocket_Failure::timed_out, where_ + " did not finish the TLS handshake within " +
                                                       std::to_string(options_.tls_msec) +
                                                       " ms; check that it is the server's port.");
    else if (!problem.empty())
      outcome_->fail(WebSocket_Failure::certificate, problem);
    else
      outcome_->fail(WebSocket_Failure::tls, "The TLS handshake with " + where_ + " failed (" +
                                                 error.message() +
                                                 "); check that it is the server's port, and its log.");
  }

  void upgrade()
  {
    const auto state = std::make_shared<WebSocket_State>(options_.limits, where_);
    session_ = WebSocket_Session::create(std::move(*stream_), state, nullptr);
    stream_.reset();
    session_->shake_hands(where_, url_.target, options_.headers, options_.upgrade_msec, response_,
                          [self = shared_from_this()](Error error) { self->upgraded(error); });
  }

  void upgraded(Error error)
  {
    const std::shared_ptr<WebSocket_Session> session = std::move(session_);
    session_.reset();
    if (!error && response_[beast::http::field::sec_websocket_protocol] == WEBSOCKET_RPC_PROTOCOL) {
      session->run();
      outcome_->succeed(websocket_channel(session->state()));
      return;
    }
    session->abort();
    if (!error || (error == websocket::error::upgrade_declined && response_.result_int() < 300))
      outcome_->fail(WebSocket_Failure::protocol, where_ + " does not speak " + WEBSOCKET_RPC_PROTOCOL +
                                                      "; check the address, and the versions of both sides.");
    else if (error == websocket::error::upgrade_declined)
      outcome_->fail(WebSocket_Failure::refused, refusal(where_, static_cast<int>(response_.result_int())),
                     static_cast<int>(response_.result_int()));
    else if (error == beast::error::timeout)
      outcome_->fail(WebSocket_Failure::timed_out, where_ + " did not answer within " +
                                                       std::to_string(options_.upgrade_msec) +
                                                       " ms; see whether the server is well.");
    else if (error.category() == asio::error::get_system_category() || error == asio::error::eof ||
             error == asio::ssl::error::stream_truncated)
      outcome_->fail(WebSocket_Failure::unreachable, where_ + " closed the connection without an answer (" +
                                                         error.message() + "); see the server's log.");
    else
      outcome_->fail(WebSocket_Failure::protocol, "What " + where_ + " answers is no WebSocket (" +
                                                      error.message() + "); check the address.");
  }

  const WebSocket_Dial options_;
  const WebSocket_URL url_;
  const std::string where_;
  const std::string name_; ///< that the certificate must be for
  const std::vector<tcp::endpoint> endpoints_;
  const std::shared_ptr<Outcome> outcome_;
  const std::shared_ptr<TLS_Client_Context> tls_;
  const asio::strand<asio::io_context::executor_type> strand_;
  std::optional<Network_Stream> stream_;       ///< until the session has it
  std::shared_ptr<WebSocket_Session> session_; ///< while it shakes hands
  WebSocket_Session::Response response_;
  std::size_t next_endpoint_ = 0;
  bool cancelled_ = false;
};

bool clean_header(const std::pair<std::string, std::string>& header)
{
  const auto printable = [](char c) { return c >= ' ' && c != 127; };
  return !header.first.empty() && header.first.find_first_of(": ") == std::string::npos &&
         std::all_of(header.first.begin(), header.first.end(), printable) &&
         std::all_of(header.second.begin(), header.second.end(), printable);
}

std::shared_ptr<WebSocket_Channel> give_up(WebSocket_Failure& failure, WebSocket_Failure::Kind kind,
                                           const std::string& message)
{
  failure = WebSocket_Failure{kind, 0, message};
  return nullptr;
}
} // namespace

struct WebSocket_Client::State {
  explicit State(Network_Threads& given) : threads(given) {}

  Network_Threads& threads; ///< not owned
  std::mutex mutex;
  bool cancelled = false;
  std::weak_ptr<Dial> current;
};

WebSocket_Client::WebSocket_Client(Network_Threads& threads) : state_(std::make_shared<State>(threads)) {}
WebSocket_Client::~WebSocket_Client() = default;

std::shared_ptr<WebSocket_Channel> WebSocket_Client::dial(const WebSocket_Dial& dial,
                                                          WebSocket_Failure& failure)
{
  WebSocket_URL url;
  std::string error;
  if (!parse_websocket_url(dial.url, url, error))
    return give_up(failure, WebSocket_Failure::bad_options, error);
  if (!std::all_of(dial.headers.begin(), dial.headers.end(), clean_header))
    return give_up(failure, WebSocket_Failure::bad_options,
                   "A header for " + url.authority() + " is not valid.");
  const std::shared_ptr<TLS_Client_Context> tls =
      url.tls ? TLS_Client_Context::create(dial.tls, error) : nullptr;
  if (url.tls && !tls)
    return give_up(failure, WebSocket_Failure::bad_options, error);
  std::vector<std::string> addresses;
  bool late = false;
  if (!resolve_host(url.host, dial.resolve_msec, addresses, late, error))
    return give_up(failure, late ? WebSocket_Failure::timed_out : WebSocket_Failure::not_found, error);
  std::vector<tcp::endpoint> endpoints;
  for (const std::string& address : addresses) {
    beast::error_code ignored; // they were numeric a moment ago
    endpoints.emplace_back(asio::ip::make_address(address, ignored), url.port);
    if (!url.tls && !endpoints.back().address().is_loopback())
      return give_up(failure, WebSocket_Failure::bad_options,
                     url.authority() +
                         " is another host, which is only reached over https; correct the address.");
  }
  const auto outcome = std::make_shared<Outcome>();
  std::shared_ptr<Dial> attempt;
  {
    const std::lock_guard<std::mutex> guard(state_->mutex);
    if (state_->cancelled)
      return give_up(failure, WebSocket_Failure::cancelled,
                     "Connecting to " + url.authority() + " was given up.");
    asio::io_context& network = state_->threads.context();
    attempt = std::make_shared<Dial>(network, dial, url, endpoints, outcome, tls);
    state_->current = attempt;
    attempt->begin();
  }
  attempt.reset();
  return outcome->wait(failure);
}

void WebSocket_Client::cancel()
{
  const std::lock_guard<std::mutex> guard(state_->mutex);
  state_->cancelled = true;
  if (const std::shared_ptr<Dial> attempt = state_->current.lock())
    attempt->cancel();
}
} // namespace kestrel
