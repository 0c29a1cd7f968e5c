#include "rpc/http_connection.h"

#include "base/secure_allocator.h"
#include "json/wipe_json.h"
#include "json/json_util.h"

#include <ace/Log_Msg.h>
#include <boost/asio/dispatch.hpp>
#include <boost/asio/post.hpp>
#include <boost/asio/steady_timer.hpp>
#include <boost/beast/core.hpp>
#include <boost/beast/http.hpp>
#include <boost/beast/websocket/rfc6455.hpp>

#include <array>
#include <optional>

namespace kestrel
{
namespace
{
namespace asio = boost::asio;
namespace beast = boost::beast;
namespace http = boost::beast::http;
typedef beast::error_code Error;
typedef http::response<http::string_body> Response;

/// How long a client that was told an error may go on sending. Closing at once would reset the connection,
/// and the client would lose the answer.
const int DRAIN_MSEC = 2000;
const int CLOSE_MSEC = 2000;
const int NO_STATUS = 0;

std::string lower(beast::string_view text)
{
  std::string result(text);
  for (char& c : result)
    if (c >= 'A' && c <= 'Z')
      c = static_cast<char>(c - 'A' + 'a');
  return result;
}

bool is_header_value(const std::string& text)
{
  for (const char c : text)
    if (static_cast<unsigned char>(c) < 0x20 || c == 0x7f)
      return false;
  return true;
}

/// On a worker thread: large values take a while to be written as text.
Response make_response(const REST_Reply& reply, bool head)
{
  Response response;
  response.result(static_cast<unsigned>(reply.status));
  response.set(http::field::cache_control, "no-store");
  response.set("X-Content-Type-Options", "nosniff");
  for (const auto& header : reply.headers)
    if (is_header_value(header.second))
      response.set(header.first, header.second);
  if (!reply.content_type.empty()) {
    response.set(http::field::content_type, reply.content_type);
    response.body() = reply.raw;
  } else if (!reply.json.is_null()) {
    response.set(http::field::content_type, "application/json");
    response.body() = write_json(reply.json);
  }
  if (reply.status == 204 || reply.status == 304)
    response.body().clear();
  else
    response.content_length(response.body().size());
  if (head)
    response.body().clear();
  return response;
}

class Connection final : public HTTP_Connection, public std::enable_shared_from_this<Connection>
{
public:
  Connection(std::shared_ptr<HTTP_Shared> shared, Network_Stream stream,
             std::shared_ptr<asio::ssl::context> context, std::string address, unsigned short port,
             std::shared_ptr<HTTP_Place> place)
      : shared_(std::move(shared)), context_(std::move(context)), place_(std::move(place)),
        address_(std::move(address)), port_(port), stream_(std::move(stream)),
        deadline_(stream_.get_executor())
  {
  }
  ~Connection() override { answered(false); }

  // The timer's executor is the stream's, and stays when the stream is handed over.
  void start() override
  {
    asio::dispatch(deadline_.get_executor(), [self = shared_from_this()] { self->open(); });
  }

  void close_when_idle() override
  {
    asio::post(deadline_.get_executor(), [self = shared_from_this()] {
      if (self->idle_ && !self->handed_over_)
        self->lowest().cancel();
    });
  }

  void abort() override
  {
    asio::post(deadline_.get_executor(), [self = shared_from_this()] {
      self->ended_ = true;
      if (!self->handed_over_)
        self->lowest().close();
    });
  }

private:
  typedef std::shared_ptr<Connection> Self;

  beast::tcp_stream& lowest() { return stream_.lowest(); }
  const HTTP_Limits& limits() const { return shared_->options.limits; }

  // The stream's own time limit closes the socket, and then nothing can be answered. So reading has a timer
  // that only stops the read.
  void set_deadline(int msec)
  {
    timed_out_ = false;
    const uint64_t round = ++deadline_round_;
    deadline_.expires_after(std::chrono::milliseconds(msec));
    deadline_.async_wait([self = shared_from_this(), round](const Error& error) {
      if (error || round != self->deadline_round_)
        return;
      self->timed_out_ = true;
      self->lowest().cancel();
    });
  }

  void clear_deadline()
  {
    ++deadline_round_;
    deadline_.cancel();
  }

  void open()
  {
    if (!stream_.is_tls())
      return wait_for_request(limits().header_msec);
    lowest().expires_after(std::chrono::milliseconds(limits().header_msec));
    stream_.async_handshake(asio::ssl::stream_base::server, [self = shared_from_this()](const Error& error) {
      if (error) {
        ACE_DEBUG((LM_DEBUG, "(%P|%t) HTTP_Server: no TLS with %s: %s\n", self->address_.c_str(),
                   error.message().c_str()));
        return;
      }
      self->wait_for_request(self->limits().header_msec);
    });
  }

  void wait_for_request(int msec)
  {
    if (ended_)
      return;
    lowest().expires_never();
    if (buffer_.size() > 0)
      return read_header();
    if (shared_->stopping)
      return close();
    idle_ = true;
    set_deadline(msec);
    stream_.async_read_some(buffer_.prepare(4096),
                            [self = shared_from_this()](const Error& error, size_t bytes) {
                              self->idle_ = false;
                              self->buffer_.commit(bytes);
                              self->clear_deadline();
                              if (error)
                                return self->close();
                              self->read_header();
                            });
  }

  void read_header()
  {
    parser_.emplace();
    parser_->header_limit(limits().header_bytes);
    parser_->body_limit(limits().body_bytes);
    set_deadline(limits().header_msec);
    http::async_read_header(stream_, buffer_, *parser_,
                            [self = shared_from_this()](const Error& error, size_t) {
                              self->clear_deadline();
                              if (error)
                                return self->read_failed(error);
                              self->examine();
                            });
  }

  void read_failed(const Error& error)
  {
    ACE_DEBUG((LM_DEBUG, "(%P|%t) HTTP_Server: request of %s: %s\n", address_.c_str(),
               timed_out_ ? "too slow" : error.message().c_str()));
    if (timed_out_)
      return refuse(408, "timeout", "The request took too long to arrive");
    if (error == http::error::header_limit || error == http::error::buffer_overflow)
      return refuse(431, "header_too_large",
                    "The header of the request is larger than " + std::to_string(limits().header_bytes) +
                        " bytes");
    if (error == http::error::body_limit)
      return refuse(413, "too_large",
                    "The body of the request is larger than " + std::to_string(limits().body_bytes) +
                        " bytes");
    if (error == http::error::end_of_stream ||
        error.category() != http::make_error_code(http::error::end_of_stream).category())
      return close();
    refuse(400, "bad_request", "This is no valid HTTP request");
  }

  /// Answers without asking anybody, and ends the connection.
  void refuse(int status, const char* code, const std::string& message)
  {
    close_after_ = true;
    ++shared_->requests;
    send(make_response(rest_error(status, code, message), false), nullptr);
  }

  void examine()
  {
    const auto& message = parser_->get();
    if (message.count(http::field::host) > 1 ||
        (message.version() >= 11 && message.count(http::field::host) == 0))
      return refuse(400, "bad_request", "The request must name its host once");
    if (message.version() != 10 && message.version() != 11)
      return refuse(400, "bad_request", "Only HTTP/1.0 and HTTP/1.1 are spoken here");
    // What follows a body whose end another reader sees elsewhere would be a request in somebody else's name.
    const size_t encodings = message.count(http::field::transfer_encoding);
    if (encodings > 1 ||
        (encodings == 1 && !beast::iequals(message[http::field::transfer_encoding], "chunked")))
      return refuse(400, "bad_request", "The only Transfer-Encoding that is known here is chunked");
    keep_alive_ = message.keep_alive();
    fill_request(message);
    if (beast::websocket::is_upgrade(message)) {
      const auto found = shared_->upgrades.find(target_.substr(0, target_.find('?')));
      if (found != shared_->upgrades.end())
        return upgrade(found->second);
    }
    const auto length = parser_->content_length();
    const bool small = length ? *length <= limits().unchecked_body_bytes : !parser_->chunked();
    if (small || !shared_->body_gate)
      return prepare_body();
    ask(shared_->body_gate, 200, [](Connection& self) { self.prepare_body(); });
  }

  void fill_request(const http::request<http::string_body>& message)
  {
    request_ = REST_Request();
    request_.method = std::string(message.method_string());
    request_.caller.address = address_;
    target_ = std::string(message.target());
    for (const auto& field : message) {
      std::string& value = request_.headers[lower(field.name_string())];
      value += (value.empty() ? "" : ", ") + std::string(field.value());
    }
  }

  void prepare_body()
  {
    if (parser_->is_done())
      return dispatch();
    if (!beast::iequals(parser_->get()[http::field::expect], "100-continue"))
      return read_body();
    lowest().expires_after(std::chrono::milliseconds(limits().request_msec));
    static const std::string go_on = "HTTP/1.1 100 Continue\r\n\r\n";
    asio::async_write(stream_, asio::buffer(go_on), [self = shared_from_this()](const Error& error, size_t) {
      if (error)
        return self->close();
      self->lowest().expires_never();
      self->read_body();
    });
  }

  void read_body()
  {
    set_deadline(limits().request_msec);
    http::async_read(stream_, buffer_, *parser_, [self = shared_from_this()](const Error& error, size_t) {
      self->clear_deadline();
      if (error)
        return self->read_failed(error);
      self->dispatch();
    });
  }

  void dispatch()
  {
    request_.body = std::move(parser_->get().body());
    ask(shared_->handler, NO_STATUS, [](Connection&) {});
  }

  /// Has a worker call `handler` with the request. When its reply has the status `pass`, the connection goes
  /// on with `next`; any other reply is the answer, and the last one if something was to follow.
  template <class Next> void ask(const HTTP_Server::Handler& handler, int pass, Next next)
  {
    const bool posted = shared_->workers.post([self = shared_from_this(), &handler, pass, next] {
      if (self->shared_->cut)
        return;
      REST_Reply reply;
      try {
        reply = handler(self->request_, self->target_);
      } catch (...) {
        reply = rest_error(500, "internal_error", "The server failed to do this");
      }
      if (reply.status != pass)
        return self->answer(std::move(reply), pass != NO_STATUS);
      asio::post(self->stream_.get_executor(), [self, next] { next(*self); });
    });
    if (!posted)
      refuse(503, "busy", "The server has too much to do, or is stopping: try again later");
  }

  /// On a worker.
  void answer(REST_Reply reply, bool last)
  {
    ++shared_->requests;
    auto response = std::make_shared<Response>();
    try {
      *response = make_response(reply, request_.method == "HEAD");
    } catch (const std::exception& error) {
      ACE_ERROR((LM_ERROR, "(%P|%t) HTTP_Server: an answer cannot be written: %s\n", error.what()));
      *response = make_response(rest_error(500, "internal_error", "The answer cannot be written"), false);
    }
    asio::post(stream_.get_executor(),
               [self = shared_from_this(), response, last, after = std::move(reply.after_sent)]() mutable {
                 self->close_after_ = self->close_after_ || last;
                 self->send(std::move(*response), std::move(after));
               });
  }

  void send(Response response, std::function<void(bool)> after)
  {
    after_sent_ = std::move(after);
    response_ = std::move(response);
    response_.version(11);
    if (shared_->stopping)
      keep_alive_ = false;
    if (close_after_)
      keep_alive_ = false;
    response_.keep_alive(keep_alive_);
    lowest().expires_after(std::chrono::milliseconds(limits().request_msec));
    http::async_write(stream_, response_, [self = this->shared_from_this()](const Error& error, size_t) {
      wipe_small(self->response_.body());
      self->response_ = Response();
      self->answered(!error);
      self->forget_request();
      if (error)
        return;
      if (self->keep_alive_)
        return self->wait_for_request(self->limits().idle_msec);
      self->end_sending();
    });
  }

  /// Requests and answers of sign-ins and logins hold passwords and tokens. What the TLS library and the
  /// kernel had in hand is not reached, nor are copies that handlers made.
  void forget_request()
  {
    wipe_small(request_.body);
    wipe_json(request_.json);
    for (auto& [name, value] : request_.headers)
      wipe(value);
    request_ = REST_Request();
    if (parser_)
      wipe_small(parser_->get().body());
    parser_.reset();
    const auto unused = buffer_.prepare(buffer_.capacity() - buffer_.size());
    ::explicit_bzero(unused.data(), unused.size());
  }

  /// What is larger is a piece of a backup.
  static void wipe_small(std::string& text)
  {
    const size_t most = 64u << 10;
    if (text.size() <= most)
      wipe(text);
  }

  /// Runs what the handler wanted to follow its reply, once.
  void answered(bool written)
  {
    std::function<void(bool)> after = std::move(after_sent_);
    after_sent_ = nullptr;
    if (!after)
      return;
    const auto follow = [after, written] {
      try {
        after(written);
      } catch (const std::exception& error) {
        ACE_ERROR((LM_ERROR, "(%P|%t) HTTP_Server: after a reply: %s\n", error.what()));
      }
    };
    if (!shared_->workers.post_always(follow))
      follow(); // the workers are gone already
  }

  /// After the last answer: tells the client that nothing follows, and reads what it still sends.
  void end_sending()
  {
    Error ignored;
    lowest().expires_after(std::chrono::milliseconds(DRAIN_MSEC));
    if (!close_after_)
      return close();
    if (!stream_.is_tls())
      lowest().socket().shutdown(asio::ip::tcp::socket::shutdown_send, ignored);
    drain();
  }

  void drain()
  {
    stream_.async_read_some(asio::buffer(dropped_), [self = shared_from_this()](const Error& error, size_t) {
      if (!error)
        self->drain();
    });
  }

  void close()
  {
    if (ended_)
      return;
    ended_ = true;
    clear_deadline();
    lowest().expires_after(std::chrono::milliseconds(CLOSE_MSEC));
    if (stream_.is_tls()) {
      stream_.async_shutdown([self = shared_from_this()](const Error&) {});
    } else {
      Error ignored;
      lowest().socket().shutdown(asio::ip::tcp::socket::shutdown_send, ignored);
    }
  }

  void upgrade(const HTTP_Shared::Upgrade& upgrade)
  {
    if (!parser_->is_done() || buffer_.size() > 0)
      return refuse(400, "bad_request", "A request for a WebSocket has no body, and nothing may follow it");
    upgrade_ = &upgrade;
    gate_ = [&upgrade](REST_Request& request, const std::string&) { return upgrade.gate(request); };
    ask(gate_, 101, [](Connection& self) { self.hand_over(); });
  }

  void hand_over()
  {
    if (shared_->stopping)
      return refuse(503, "busy", "The server is stopping: try again later");
    std::unique_ptr<Upgraded_Connection::Parts> parts(new Upgraded_Connection::Parts);
    parts->request = parser_->release();
    parts->context = context_;
    parts->address = (address_.find(':') == std::string::npos ? address_ : "[" + address_ + "]") + ":" +
                     std::to_string(port_);
    place_->handed_over();
    parts->place = place_;
    lowest().expires_never();
    parts->stream = std::make_unique<Network_Stream>(std::move(stream_));
    handed_over_ = true;
    ++shared_->requests;
    upgrade_->handler(Upgraded_Connection(std::move(parts)), request_);
  }

  const std::shared_ptr<HTTP_Shared> shared_;
  const std::shared_ptr<asio::ssl::context> context_;
  std::shared_ptr<HTTP_Place> place_;
  const std::string address_;
  const unsigned short port_;
  Network_Stream stream_;
  asio::steady_timer deadline_;
  uint64_t deadline_round_ = 0;
  beast::flat_buffer buffer_;
  std::optional<http::request_parser<http::string_body>> parser_;
  REST_Request request_;
  std::string target_;
  Response response_;
  std::function<void(bool)> after_sent_;
  const HTTP_Shared::Upgrade* upgrade_ = nullptr;
  HTTP_Server::Handler gate_;
  std::array<char, 16384> dropped_;
  bool timed_out_ = false;
  bool idle_ = false;
  bool keep_alive_ = false;
  bool close_after_ = false;
  bool ended_ = false;
  bool handed_over_ = false;
};
} // namespace

std::shared_ptr<HTTP_Connection> make_http_connection(std::shared_ptr<HTTP_Shared> shared,
                                                      asio::ip::tcp::socket socket,
                                                      std::shared_ptr<asio::ssl::context> context,
                                                      std::string address, unsigned short port,
                                                      std::shared_ptr<HTTP_Place> place)
{
  beast::tcp_stream tcp(std::move(socket));
  Network_Stream stream = context ? Network_Stream(std::move(tcp), *context) : Network_Stream(std::move(tcp));
  return std::make_shared<Connection>(std::move(shared), std::move(stream), std::move(context),
                                      std::move(address), port, std::move(place));
}
} // namespace kestrel
