#include "support/websocket_listener.h"

#include "rpc/beast_stream.h"
#include "rpc/tls.h"
#include "support/waiting.h"

#include <gtest/gtest.h>

#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/ssl/stream_base.hpp>
#include <boost/asio/strand.hpp>
#include <boost/beast/core/flat_buffer.hpp>
#include <boost/beast/http/empty_body.hpp>
#include <boost/beast/http/read.hpp>
#include <boost/beast/http/write.hpp>

namespace kestrel_test
{
namespace asio = boost::asio;
namespace http = boost::beast::http;
typedef boost::beast::error_code Error;

struct WebSocket_Listener::Shared {
  Options options;
  Temp_Dir files;
  std::shared_ptr<kestrel::TLS_Server_Context> context;
  mutable std::mutex mutex;
  std::vector<std::shared_ptr<kestrel::WebSocket_Channel>> channels;
  std::vector<std::string> errors;

  void add_error(const std::string& error)
  {
    const std::lock_guard<std::mutex> guard(mutex);
    errors.push_back(error);
  }
  void add(std::shared_ptr<kestrel::WebSocket_Channel> channel)
  {
    if (options.accepted) {
      options.accepted(std::move(channel));
      return;
    }
    const std::lock_guard<std::mutex> guard(mutex);
    channels.push_back(std::move(channel));
  }
};

namespace
{
/// One connection from its acceptance to its answer.
class Arrival : public std::enable_shared_from_this<Arrival>
{
public:
  Arrival(std::shared_ptr<WebSocket_Listener::Shared> shared, std::unique_ptr<kestrel::Network_Stream> stream,
          std::string address)
      : shared_(std::move(shared)), stream_(std::move(stream)), address_(std::move(address))
  {
  }
  void begin()
  {
    const auto self = shared_from_this();
    if (stream_->is_tls())
      stream_->async_handshake(asio::ssl::stream_base::server, [self](Error error) {
        if (error)
          self->shared_->add_error(error.message());
        else
          self->read();
      });
    else
      read();
  }

private:
  void read()
  {
    http::async_read(*stream_, buffer_, request_,
                     [self = shared_from_this()](Error error, std::size_t) {
                       if (error)
                         self->shared_->add_error(error.message());
                       else
                         self->decide();
                     });
  }
  void decide()
  {
    auto parts = std::make_unique<kestrel::Upgraded_Connection::Parts>();
    parts->request = request_;
    parts->address = address_;
    const kestrel::Upgraded_Connection seen(std::move(parts));
    const int status = shared_->options.gate ? shared_->options.gate(seen) : 101;
    if (status != 101) {
      answer(status);
      return;
    }
    parts = std::make_unique<kestrel::Upgraded_Connection::Parts>();
    parts->request = std::move(request_);
    parts->address = address_;
    parts->stream = std::move(stream_);
    kestrel::websocket_accept(
        kestrel::Upgraded_Connection(std::move(parts)), shared_->options.limits,
        [shared = shared_](std::shared_ptr<kestrel::WebSocket_Channel> channel, const std::string& error) {
          if (channel)
            shared->add(std::move(channel));
          else
            shared->add_error(error);
        });
  }
  void answer(int status)
  {
    response_.result(static_cast<unsigned>(status));
    response_.prepare_payload();
    http::async_write(*stream_, response_, [self = shared_from_this()](Error, std::size_t) {});
  }

  const std::shared_ptr<WebSocket_Listener::Shared> shared_;
  std::unique_ptr<kestrel::Network_Stream> stream_;
  const std::string address_;
  boost::beast::flat_buffer buffer_;
  kestrel::Beast_Request request_;
  http::response<http::empty_body> response_;
};

class Acceptor : public std::enable_shared_from_this<Acceptor>
{
public:
  Acceptor(asio::io_context& network, std::shared_ptr<WebSocket_Listener::Shared> shared)
      : network_(network), acceptor_(network, {asio::ip::make_address("127.0.0.1"), 0}),
        shared_(std::move(shared))
  {
  }
  unsigned short port() const { return acceptor_.local_endpoint().port(); }
  void accept()
  {
    acceptor_.async_accept(asio::make_strand(network_),
                           [self = shared_from_this()](Error error, asio::ip::tcp::socket socket) {
                             if (error)
                               return;
                             self->begin(std::move(socket));
                             self->accept();
                           });
  }

private:
  void begin(asio::ip::tcp::socket socket)
  {
    Error error;
    const auto from = socket.remote_endpoint(error);
    if (error)
      return;
    const std::string address = from.address().to_string() + ":" + std::to_string(from.port());
    boost::beast::tcp_stream tcp(std::move(socket));
    auto stream = shared_->context
                      ? std::make_unique<kestrel::Network_Stream>(std::move(tcp), *shared_->context->context())
                      : std::make_unique<kestrel::Network_Stream>(std::move(tcp));
    std::make_shared<Arrival>(shared_, std::move(stream), address)->begin();
  }

  asio::io_context& network_;
  asio::ip::tcp::acceptor acceptor_;
  const std::shared_ptr<WebSocket_Listener::Shared> shared_;
};
} // namespace

WebSocket_Listener::WebSocket_Listener(const Options& options)
    : tls_(options.tls), shared_(std::make_shared<Shared>())
{
  shared_->options = options;
  if (tls_) {
    kestrel::TLS_Server_Options files;
    files.certificate_file = shared_->files.write("server.crt", options.certificate.certificate_pem);
    files.key_file = shared_->files.write("server.key", options.certificate.key_pem, 0600);
    std::string error;
    shared_->context = kestrel::TLS_Server_Context::create(files, error);
    EXPECT_TRUE(shared_->context) << error;
  }
  const auto acceptor = std::make_shared<Acceptor>(threads_.context(), shared_);
  port_ = acceptor->port();
  acceptor->accept();
  EXPECT_TRUE(threads_.start());
}

WebSocket_Listener::~WebSocket_Listener()
{
  threads_.stop();
}

std::string WebSocket_Listener::url() const
{
  return (tls_ ? "https" : "http") + std::string("://127.0.0.1:") + std::to_string(port_) + "/k2/w/agent";
}

std::shared_ptr<kestrel::WebSocket_Channel> WebSocket_Listener::channel(std::size_t number)
{
  const auto arrived = [&] {
    const std::lock_guard<std::mutex> guard(shared_->mutex);
    return shared_->channels.size() > number;
  };
  if (!eventually(arrived)) {
    ADD_FAILURE() << "connection " << number << " did not come";
    return nullptr;
  }
  const std::lock_guard<std::mutex> guard(shared_->mutex);
  return shared_->channels[number];
}

std::vector<std::string> WebSocket_Listener::errors() const
{
  const std::lock_guard<std::mutex> guard(shared_->mutex);
  return shared_->errors;
}
} // namespace kestrel_test
