#include "raw_client.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <openssl/err.h>
#include <openssl/ssl.h>
#include <openssl/x509v3.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <cctype>
#include <cstdlib>

namespace kestrel_test
{
struct Raw_Client::State {
  ~State() { close(); }
  void close()
  {
    if (ssl != nullptr)
      ::SSL_free(ssl);
    ssl = nullptr;
    if (fd >= 0)
      ::close(fd);
    fd = -1;
  }
  bool connect(unsigned short port, const char* from);
  bool handshake(const TLS& tls);
  bool read_more();

  int fd = -1;
  SSL* ssl = nullptr;
  std::string received;
};

bool Raw_Client::State::connect(unsigned short port, const char* from)
{
  fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  struct timeval limit = {30, 0};
  ::setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
  ::setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof limit);
  struct sockaddr_in address = {};
  address.sin_family = AF_INET;
  ::inet_pton(AF_INET, from, &address.sin_addr);
  if (::bind(fd, reinterpret_cast<struct sockaddr*>(&address), sizeof address) != 0)
    return false;
  ::inet_pton(AF_INET, "127.0.0.1", &address.sin_addr);
  address.sin_port = htons(port);
  return ::connect(fd, reinterpret_cast<struct sockaddr*>(&address), sizeof address) == 0;
}

bool Raw_Client::State::handshake(const TLS& tls)
{
  SSL_CTX* const context = ::SSL_CTX_new(::TLS_client_method());
  ::SSL_CTX_set_min_proto_version(context, TLS1_VERSION);
  // The library itself does not offer the old versions otherwise.
  ::SSL_CTX_set_security_level(context, 0);
  if (tls.highest_version != 0)
    ::SSL_CTX_set_max_proto_version(context, tls.highest_version);
  if (!tls.ca_pem.empty()) {
    BIO* const bio = ::BIO_new_mem_buf(tls.ca_pem.data(), static_cast<int>(tls.ca_pem.size()));
    X509* const ca = ::PEM_read_bio_X509(bio, nullptr, nullptr, nullptr);
    ::X509_STORE_add_cert(::SSL_CTX_get_cert_store(context), ca);
    ::X509_free(ca);
    ::BIO_free(bio);
    ::SSL_CTX_set_verify(context, SSL_VERIFY_PEER, nullptr);
  }
  ssl = ::SSL_new(context);
  ::SSL_CTX_free(context);
  ::SSL_set1_host(ssl, tls.name.c_str());
  ::SSL_set_fd(ssl, fd);
  const bool done = ::SSL_connect(ssl) == 1;
  ::ERR_clear_error();
  return done;
}

bool Raw_Client::State::read_more()
{
  char buffer[16384];
  const long count = ssl != nullptr ? ::SSL_read(ssl, buffer, sizeof buffer)
                                    : static_cast<long>(::recv(fd, buffer, sizeof buffer, 0));
  ::ERR_clear_error();
  if (count <= 0)
    return false;
  received.append(buffer, static_cast<size_t>(count));
  return true;
}

Raw_Client::Raw_Client(unsigned short port, const char* from) : state_(new State)
{
  if (!state_->connect(port, from))
    state_->close();
}

Raw_Client::Raw_Client(unsigned short port, const TLS& tls) : state_(new State)
{
  if (!state_->connect(port, "127.0.0.1") || !state_->handshake(tls))
    state_->close();
}

Raw_Client::~Raw_Client() {}

bool Raw_Client::connected() const
{
  return state_->fd >= 0;
}

bool Raw_Client::send(const std::string& bytes)
{
  size_t sent = 0;
  while (sent < bytes.size()) {
    const size_t left = bytes.size() - sent;
    const long count = state_->ssl != nullptr
                           ? ::SSL_write(state_->ssl, bytes.data() + sent, static_cast<int>(left))
                           : static_cast<long>(::send(state_->fd, bytes.data() + sent, left, MSG_NOSIGNAL));
    ::ERR_clear_error();
    if (count <= 0)
      return false;
    sent += static_cast<size_t>(count);
  }
  return true;
}

Raw_Reply Raw_Client::receive(bool without_body)
{
  std::string& text = state_->received;
  size_t end;
  while ((end = text.find("\r\n\r\n")) == std::string::npos)
    if (!state_->read_more())
      return Raw_Reply();
  Raw_Reply reply;
  reply.status = std::atoi(text.c_str() + 9);
  for (size_t at = text.find("\r\n") + 2; at < end + 2;) {
    const size_t line_end = text.find("\r\n", at), colon = text.find(": ", at);
    std::string name = text.substr(at, colon - at);
    for (char& c : name)
      c = static_cast<char>(::tolower(static_cast<unsigned char>(c)));
    reply.headers[name] = text.substr(colon + 2, line_end - colon - 2);
    at = line_end + 2;
  }
  text.erase(0, end + 4);
  if (without_body)
    return reply;
  const size_t length = static_cast<size_t>(std::atol(reply.headers["content-length"].c_str()));
  while (text.size() < length)
    if (!state_->read_more())
      return Raw_Reply();
  reply.body = text.substr(0, length);
  text.erase(0, length);
  return reply;
}

void Raw_Client::end_sending()
{
  if (state_->ssl != nullptr)
    ::SSL_shutdown(state_->ssl);
  ::shutdown(state_->fd, SHUT_WR);
}

bool Raw_Client::sees_end()
{
  return state_->received.empty() && !state_->read_more();
}

bool Raw_Client::skip_bytes()
{
  const bool read = !state_->received.empty() || state_->read_more();
  state_->received.clear();
  return read;
}

void Raw_Client::close(bool reset)
{
  const struct linger at_once = {1, 0};
  if (reset)
    ::setsockopt(state_->fd, SOL_SOCKET, SO_LINGER, &at_once, sizeof at_once);
  state_->close();
}

std::string http_request(const std::string& method, const std::string& target, const std::string& headers,
                         const std::string& body)
{
  std::string text = method + " " + target + " HTTP/1.1\r\nHost: localhost\r\n" + headers;
  if (!body.empty())
    text += "Content-Type: application/json\r\nContent-Length: " + std::to_string(body.size()) + "\r\n";
  return text + "\r\n" + body;
}
} // namespace kestrel_test
