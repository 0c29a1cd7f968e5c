#include "rpc/http_session.h"

#include "rpc/tls.h"

#include <ace/INET_Addr.h>
#include <ace/Log_Msg.h>
#include <ace/SOCK_Connector.h>
#include <ace/SOCK_Stream.h>
#include <ace/Time_Value.h>
#include <boost/asio/ssl/context.hpp>
#include <openssl/err.h>
#include <openssl/ssl.h>

#include <cerrno>
#include <chrono>
#include <mutex>
#include <poll.h>

namespace
{
std::mutex options_mutex;

WebSocket_Options& options_in_force()
{
  static WebSocket_Options options;
  return options;
}

class Local_Session : public HTTP_Session
{
public:
  bool remote() const override { return false; }
};

class Socket_Session : public HTTP_Session
{
public:
  ~Socket_Session() override
  {
    tls_.reset();
    stream_.close();
  }
  bool remote() const override { return true; }
  bool connect(const std::string& host, unsigned short port)
  {
    ACE_INET_Addr address(port, host.c_str());
    const auto deadline =
        std::chrono::steady_clock::now() + std::chrono::seconds(HTTP_Session_Factory::CONNECT_SECONDS);
    // A name may stand for several addresses, "localhost" for one of each protocol: the server listens on
    // one.
    do {
      const auto left =
          std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
      if (left.count() <= 0) {
        errno = ETIMEDOUT;
        return false;
      }
      const ACE_Time_Value limit(left);
      if (ACE_SOCK_Connector().connect(stream_, address, &limit) == 0)
        return true;
    } while (address.next());
    return false;
  }

  /// The TLS handshake, with the server's certificate checked. False with errno.
  bool secure(const std::string& host, unsigned short port, const std::string& ca_pem);

private:
  bool fail(const std::string& host, unsigned short port);

  ACE_SOCK_Stream stream_;
  std::shared_ptr<kestrel::TLS_Client_Context> context_;
  std::unique_ptr<SSL, decltype(&SSL_free)> tls_{nullptr, SSL_free};
};

/// Waits for what the last step of the handshake asked for. 1, or 0 at the deadline, or -1 with errno.
int wait_for(SSL* tls, int result, int socket, std::chrono::steady_clock::time_point deadline)
{
  const int wanted = SSL_get_error(tls, result);
  if (wanted != SSL_ERROR_WANT_READ && wanted != SSL_ERROR_WANT_WRITE) {
    errno = EPROTO;
    return -1;
  }
  const auto left =
      std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
  pollfd descriptor = {socket, static_cast<short>(wanted == SSL_ERROR_WANT_READ ? POLLIN : POLLOUT), 0};
  const int ready = left.count() > 0 ? ::poll(&descriptor, 1, static_cast<int>(left.count())) : 0;
  return ready < 0 && errno == EINTR ? 1 : ready;
}

bool Socket_Session::secure(const std::string& host, unsigned short port, const std::string& ca_pem)
{
  kestrel::TLS_Client_Options options;
  options.ca_pem = ca_pem;
  std::string error;
  context_ = kestrel::TLS_Client_Context::create(options, error);
  if (context_)
    tls_.reset(SSL_new(context_->context().native_handle()));
  if (!tls_ || !kestrel::tls_expect_name(tls_.get(), host) ||
      SSL_set_fd(tls_.get(), stream_.get_handle()) != 1 || stream_.enable(ACE_NONBLOCK) == -1) {
    ACE_DEBUG(
        (LM_INFO, "(%P|%t) HTTP_Session: no TLS with %C is possible: %C\n", host.c_str(), error.c_str()));
    errno = EPROTO;
    return false;
  }
  const auto deadline =
      std::chrono::steady_clock::now() + std::chrono::seconds(HTTP_Session_Factory::CONNECT_SECONDS);
  for (;;) {
    ERR_clear_error();
    const int result = SSL_connect(tls_.get());
    if (result == 1)
      return true;
    const int ready = wait_for(tls_.get(), result, stream_.get_handle(), deadline);
    if (ready < 0)
      return fail(host, port);
    if (ready == 0) {
      errno = ETIMEDOUT;
      return false;
    }
  }
}

bool Socket_Session::fail(const std::string& host, unsigned short port)
{
  ERR_clear_error();
  const std::string problem =
      kestrel::tls_certificate_problem(tls_.get(), host + ":" + std::to_string(port), host);
  if (!problem.empty())
    ACE_DEBUG((LM_INFO, "(%P|%t) HTTP_Session: %C\n", problem.c_str()));
  errno = problem.empty() ? EPROTO : EACCES;
  return false;
}
} // namespace

WebSocket_Options WebSocket_Options::instance()
{
  const std::lock_guard<std::mutex> guard(options_mutex);
  return options_in_force();
}

void WebSocket_Options::set(const WebSocket_Options& options)
{
  const std::lock_guard<std::mutex> guard(options_mutex);
  options_in_force() = options;
}

HTTP_Session::~HTTP_Session() = default;

std::unique_ptr<HTTP_Session> HTTP_Session_Factory::create(const std::string& host, unsigned short port,
                                                           bool ssl)
{
  if (host.empty())
    return std::make_unique<Local_Session>();
  const std::string ca_pem = WebSocket_Options::instance().ca_pem;
  std::unique_ptr<Socket_Session> session = std::make_unique<Socket_Session>();
  const bool connected =
      session->connect(host, port) && (!ssl || ca_pem.empty() || session->secure(host, port, ca_pem));
  if (connected)
    return session;
  const int cause = errno; // closing the socket must not replace it
  session.reset();
  errno = cause;
  return nullptr;
}
