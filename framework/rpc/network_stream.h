#pragma once

// Only for .cpp files of framework/rpc and what stands in for a server in tests: this is slow to compile.

#include <boost/asio/buffer.hpp>
#include <boost/asio/ssl/context.hpp>
#include <boost/asio/ssl/stream_base.hpp>
#include <boost/beast/core/error.hpp>
#include <boost/beast/core/role.hpp>
#include <boost/beast/core/tcp_stream.hpp>

#include <array>
#include <cstddef>
#include <functional>
#include <memory>
#include <type_traits>
#include <utility>

struct ssl_st; // the TLS library's connection

namespace kestrel
{
/// A few pieces of memory that are written one after the other.
class Write_Buffers
{
public:
  typedef boost::asio::const_buffer value_type;
  typedef const value_type* const_iterator;
  static constexpr std::size_t most = 16;

  /// The first pieces of a longer sequence: a write may take less than it was given. Empty ones are left out.
  template <class Sequence> explicit Write_Buffers(const Sequence& sequence)
  {
    const auto end = boost::asio::buffer_sequence_end(sequence);
    for (auto piece = boost::asio::buffer_sequence_begin(sequence); piece != end && count_ < most; ++piece)
      if (value_type(*piece).size() != 0)
        pieces_[count_++] = value_type(*piece);
  }
  const_iterator begin() const { return pieces_.data(); }
  const_iterator end() const { return pieces_.data() + count_; }
  std::size_t count() const { return count_; }

private:
  std::array<value_type, most> pieces_;
  std::size_t count_ = 0;
};

/// A TCP connection with or without TLS, as one type, so that the protocols above are compiled once and not
/// against each other's handlers. Meets Boost.Beast's requirements of an asynchronous stream; callbacks only.
/// Threads:   its executor's.
/// Ownership: owns the connection; the TLS context must outlive the handshake. Whatever is under way keeps
///            what its callback holds, and that must keep this object. Not to be moved meanwhile.
/// Errors:    as the library's error codes.
/// Secrets:   with TLS, what was put together for one record is wiped when it was written. What the TLS
///            library holds of the last records is not.
class Network_Stream
{
public:
  typedef boost::beast::tcp_stream::executor_type executor_type;
  typedef boost::beast::error_code Error;
  typedef std::function<void(Error)> Done;
  typedef std::function<void(Error, std::size_t)> Moved;

  explicit Network_Stream(boost::beast::tcp_stream connection);
  Network_Stream(boost::beast::tcp_stream connection, boost::asio::ssl::context& tls);
  Network_Stream(Network_Stream&& other) noexcept;
  Network_Stream& operator=(Network_Stream&& other) noexcept;
  ~Network_Stream();

  executor_type get_executor() noexcept { return lowest().get_executor(); }
  /// The connection below, for its time limits and its end.
  boost::beast::tcp_stream& lowest() noexcept;
  /// Null without TLS.
  ssl_st* tls() noexcept;
  bool is_tls() noexcept { return tls() != nullptr; }

  // Only with TLS.
  void async_handshake(boost::asio::ssl::stream_base::handshake_type side, Done done);
  void async_shutdown(Done done);

  /// Fills the first piece of the sequence that is not empty.
  template <class Buffers, class Handler> void async_read_some(const Buffers& buffers, Handler&& handler)
  {
    boost::asio::mutable_buffer piece;
    const auto end = boost::asio::buffer_sequence_end(buffers);
    for (auto next = boost::asio::buffer_sequence_begin(buffers); next != end && piece.size() == 0; ++next)
      piece = boost::asio::mutable_buffer(*next);
    read(piece, callback(std::forward<Handler>(handler)));
  }
  template <class Buffers, class Handler> void async_write_some(const Buffers& buffers, Handler&& handler)
  {
    write(Write_Buffers(buffers), callback(std::forward<Handler>(handler)));
  }
  /// The end of a connection as WebSockets want it.
  void async_end(boost::beast::role_type role, Done done);

private:
  class Layer;
  class Plain_Layer;
  class TLS_Layer;

  /// Handlers of the library can be moved only, and die before they are called.
  template <class Handler> static auto callback(Handler&& handler)
  {
    typedef std::decay_t<Handler> Kept;
    return [kept = std::make_shared<Kept>(std::forward<Handler>(handler))](auto... outcome) mutable {
      Kept last(std::move(*kept));
      kept.reset();
      last(outcome...);
    };
  }
  template <class Handler>
  friend void async_teardown(boost::beast::role_type role, Network_Stream& stream, Handler&& handler)
  {
    stream.async_end(role, callback(std::forward<Handler>(handler)));
  }
  friend void beast_close_socket(Network_Stream& stream) { stream.lowest().close(); }

  void read(const boost::asio::mutable_buffer& buffer, Moved moved);
  void write(const Write_Buffers& buffers, Moved moved);

  std::unique_ptr<Layer> layer_;
};
} // namespace kestrel
