#include "rpc/network_stream.h"

#include "base/secure_allocator.h"

#include <boost/asio/ssl/stream.hpp>
#include <boost/beast/websocket/ssl.hpp>
#include <boost/beast/websocket/teardown.hpp>

#include <algorithm>
#include <vector>

namespace kestrel
{
namespace
{
namespace asio = boost::asio;
namespace beast = boost::beast;

/// Pieces up to this size are put together: each write of TLS makes a record of its own.
constexpr std::size_t RECORD_BYTES = 64 * 1024;
/// A buffer that was larger than this gives its memory back.
constexpr std::size_t KEPT_BYTES = 20 * 1024;
} // namespace

class Network_Stream::Layer
{
public:
  virtual ~Layer() = default;
  virtual beast::tcp_stream& lowest() = 0;
  virtual ssl_st* tls() { return nullptr; }
  virtual void handshake(asio::ssl::stream_base::handshake_type, Done) {}
  virtual void shutdown(Done) {}
  virtual void read(const asio::mutable_buffer& buffer, Moved moved) = 0;
  virtual void write(const Write_Buffers& buffers, Moved moved) = 0;
  virtual void end(beast::role_type role, Done done) = 0;
};

class Network_Stream::Plain_Layer : public Layer
{
public:
  explicit Plain_Layer(beast::tcp_stream connection) : stream_(std::move(connection)) {}

  beast::tcp_stream& lowest() override { return stream_; }
  void read(const asio::mutable_buffer& buffer, Moved moved) override
  {
    stream_.async_read_some(buffer, std::move(moved));
  }
  void write(const Write_Buffers& buffers, Moved moved) override
  {
    stream_.async_write_some(buffers, std::move(moved));
  }
  void end(beast::role_type role, Done done) override
  {
    using boost::beast::websocket::async_teardown;
    async_teardown(role, stream_.socket(), std::move(done));
  }

private:
  beast::tcp_stream stream_;
};

class Network_Stream::TLS_Layer : public Layer
{
public:
  TLS_Layer(beast::tcp_stream connection, asio::ssl::context& context)
      : stream_(std::move(connection), context)
  {
  }

  beast::tcp_stream& lowest() override { return stream_.next_layer(); }
  ssl_st* tls() override { return stream_.native_handle(); }
  void handshake(asio::ssl::stream_base::handshake_type side, Done done) override
  {
    stream_.async_handshake(side, std::move(done));
  }
  void shutdown(Done done) override { stream_.async_shutdown(std::move(done)); }
  void read(const asio::mutable_buffer& buffer, Moved moved) override
  {
    stream_.async_read_some(buffer, std::move(moved));
  }
  void write(const Write_Buffers& buffers, Moved moved) override
  {
    const asio::const_buffer first = buffers.count() == 0 ? asio::const_buffer() : *buffers.begin();
    if (buffers.count() < 2 || first.size() >= RECORD_BYTES) {
      stream_.async_write_some(first, std::move(moved));
      return;
    }
    record_.resize(std::min(asio::buffer_size(buffers), RECORD_BYTES));
    asio::buffer_copy(asio::buffer(record_), buffers);
    stream_.async_write_some(asio::buffer(record_),
                             [this, moved = std::move(moved)](Error error, std::size_t bytes) {
                               wipe_record();
                               moved(error, bytes);
                             });
  }
  void end(beast::role_type role, Done done) override
  {
    using boost::beast::websocket::async_teardown;
    async_teardown(role, stream_, std::move(done));
  }

private:
  void wipe_record()
  {
    ::explicit_bzero(record_.data(), record_.size());
    record_.clear();
    if (record_.capacity() > KEPT_BYTES)
      record_.shrink_to_fit();
  }

  asio::ssl::stream<beast::tcp_stream> stream_;
  std::vector<char, secure_allocator<char>> record_; ///< being written; one write at a time
};

Network_Stream::Network_Stream(beast::tcp_stream connection)
    : layer_(std::make_unique<Plain_Layer>(std::move(connection)))
{
}

Network_Stream::Network_Stream(beast::tcp_stream connection, asio::ssl::context& tls)
    : layer_(std::make_unique<TLS_Layer>(std::move(connection), tls))
{
}

Network_Stream::Network_Stream(Network_Stream&& other) noexcept = default;
Network_Stream& Network_Stream::operator=(Network_Stream&& other) noexcept = default;
Network_Stream::~Network_Stream() = default;

beast::tcp_stream& Network_Stream::lowest() noexcept
{
  return layer_->lowest();
}

ssl_st* Network_Stream::tls() noexcept
{
  return layer_->tls();
}

void Network_Stream::async_handshake(asio::ssl::stream_base::handshake_type side, Done done)
{
  layer_->handshake(side, std::move(done));
}

void Network_Stream::async_shutdown(Done done)
{
  layer_->shutdown(std::move(done));
}

void Network_Stream::async_end(beast::role_type role, Done done)
{
  layer_->end(role, std::move(done));
}

void Network_Stream::read(const asio::mutable_buffer& buffer, Moved moved)
{
  layer_->read(buffer, std::move(moved));
}

void Network_Stream::write(const Write_Buffers& buffers, Moved moved)
{
  layer_->write(buffers, std::move(moved));
}
} // namespace kestrel
