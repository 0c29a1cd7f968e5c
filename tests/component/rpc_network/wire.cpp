#include "wire.h"

#include "support/loopback.h"

#include <gtest/gtest.h>

#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/sha.h>

#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

namespace
{
std::string accept_key(const std::string& key)
{
  const std::string text = key + "258EAFA5-E914-47DA-95CA-C5AB0DC85B11";
  unsigned char digest[SHA_DIGEST_LENGTH];
  SHA1(reinterpret_cast<const unsigned char*>(text.data()), text.size(), digest);
  unsigned char encoded[64];
  const int length = EVP_EncodeBlock(encoded, digest, sizeof digest);
  return std::string(reinterpret_cast<const char*>(encoded), static_cast<std::size_t>(length));
}
} // namespace

Wire::Wire(int socket) : socket_(socket)
{
  const timeval limit = {60, 0};
  ::setsockopt(socket, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
  ::setsockopt(socket, SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof limit);
}

Wire::~Wire() = default;

std::unique_ptr<Wire> Wire::connect(unsigned short port)
{
  auto wire = std::make_unique<Wire>(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
  const sockaddr_in address = kestrel_test::loopback_address(port);
  EXPECT_EQ(0, ::connect(wire->socket_.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address));
  return wire;
}

bool Wire::serve_tls(const kestrel_test::Certificate& certificate)
{
  context_.reset(SSL_CTX_new(TLS_server_method()));
  BIO* text = BIO_new_mem_buf(certificate.certificate_pem.data(),
                              static_cast<int>(certificate.certificate_pem.size()));
  X509* own = PEM_read_bio_X509(text, nullptr, nullptr, nullptr);
  BIO_free(text);
  text = BIO_new_mem_buf(certificate.key_pem.data(), static_cast<int>(certificate.key_pem.size()));
  EVP_PKEY* key = PEM_read_bio_PrivateKey(text, nullptr, nullptr, nullptr);
  BIO_free(text);
  EXPECT_EQ(1, SSL_CTX_use_certificate(context_.get(), own));
  EXPECT_EQ(1, SSL_CTX_use_PrivateKey(context_.get(), key));
  X509_free(own);
  EVP_PKEY_free(key);
  tls_.reset(SSL_new(context_.get()));
  SSL_set_fd(tls_.get(), socket_.get());
  const bool done = SSL_accept(tls_.get()) == 1;
  ERR_clear_error();
  return done;
}

bool Wire::use_tls(int highest_version)
{
  context_.reset(SSL_CTX_new(TLS_client_method()));
  if (highest_version) {
    SSL_CTX_set_security_level(context_.get(), 0);
    SSL_CTX_set_max_proto_version(context_.get(), highest_version);
  }
  tls_.reset(SSL_new(context_.get()));
  SSL_set_fd(tls_.get(), socket_.get());
  const bool done = SSL_connect(tls_.get()) == 1;
  ERR_clear_error();
  return done;
}

bool Wire::write(const std::string& bytes)
{
  for (std::size_t done = 0; done < bytes.size();) {
    const int rest = static_cast<int>(bytes.size() - done);
    const ssize_t count =
        tls_ ? SSL_write(tls_.get(), bytes.data() + done, rest)
             : ::send(socket_.get(), bytes.data() + done, static_cast<std::size_t>(rest), MSG_NOSIGNAL);
    ERR_clear_error();
    if (count <= 0)
      return false;
    done += static_cast<std::size_t>(count);
  }
  return true;
}

std::string Wire::read_some()
{
  if (!rest_.empty()) {
    std::string result;
    result.swap(rest_);
    return result;
  }
  char buffer[64 * 1024];
  const ssize_t count =
      tls_ ? SSL_read(tls_.get(), buffer, sizeof buffer) : ::recv(socket_.get(), buffer, sizeof buffer, 0);
  ERR_clear_error();
  return count > 0 ? std::string(buffer, static_cast<std::size_t>(count)) : std::string();
}

std::string Wire::read_header()
{
  std::string text;
  std::size_t end;
  while ((end = text.find("\r\n\r\n")) == std::string::npos) {
    const std::string more = read_some();
    if (more.empty())
      return text;
    text += more;
  }
  rest_ = text.substr(end + 4);
  return text.substr(0, end + 4);
}

std::string Wire::read_exactly(std::size_t bytes)
{
  std::string text;
  while (text.size() < bytes) {
    const std::string more = read_some();
    if (more.empty())
      return text;
    text += more;
  }
  rest_ = text.substr(bytes);
  return text.substr(0, bytes);
}

void Wire::read_to_end()
{
  while (!read_some().empty())
    ;
}

void Wire::half_close()
{
  if (tls_)
    SSL_shutdown(tls_.get());
  ERR_clear_error();
  ::shutdown(socket_.get(), SHUT_WR);
}

void Wire::reset()
{
  const linger none = {1, 0};
  ::setsockopt(socket_.get(), SOL_SOCKET, SO_LINGER, &none, sizeof none);
  socket_.reset();
}

std::string Wire::upgrade()
{
  EXPECT_TRUE(
      write("GET /k2/w/agent HTTP/1.1\r\nHost: 127.0.0.1\r\nUpgrade: websocket\r\nConnection: Upgrade\r\n"
            "Sec-WebSocket-Key: AAAAAAAAAAAAAAAAAAAAAA==\r\nSec-WebSocket-Version: 13\r\n"
            "Sec-WebSocket-Protocol: kestrel-rpc\r\n\r\n"));
  return read_header();
}

bool Wire::accept_upgrade(const std::string& protocol)
{
  const std::string request = read_header();
  const std::string name = "Sec-WebSocket-Key: ";
  const std::size_t begin = request.find(name);
  if (begin == std::string::npos)
    return false;
  const std::string key =
      request.substr(begin + name.size(), request.find('\r', begin) - begin - name.size());
  return write("HTTP/1.1 101 Switching Protocols\r\nUpgrade: websocket\r\nConnection: Upgrade\r\n"
               "Sec-WebSocket-Accept: " +
               accept_key(key) + (protocol.empty() ? "" : "\r\nSec-WebSocket-Protocol: " + protocol) +
               "\r\n\r\n");
}

std::string Frame::bytes() const
{
  const unsigned long long length =
      claimed_length < 0 ? payload.size() : static_cast<unsigned long long>(claimed_length);
  std::string result(1, static_cast<char>((last ? 0x80 : 0) | opcode));
  const int mask_bit = masked ? 0x80 : 0;
  if (length < 126)
    result += static_cast<char>(mask_bit | static_cast<int>(length));
  else if (length < 65536) {
    result += static_cast<char>(mask_bit | 126);
    result += static_cast<char>(length >> 8);
    result += static_cast<char>(length & 255);
  } else {
    result += static_cast<char>(mask_bit | 127);
    for (int shift = 56; shift >= 0; shift -= 8)
      result += static_cast<char>((length >> shift) & 255);
  }
  // With a mask of zeros the payload stands as it is.
  return result + (masked ? std::string(4, '\0') : std::string()) + payload;
}

Wire_Server::Wire_Server(std::function<void(Wire&)> treat)
    : listening_(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0))
{
  sockaddr_in address = kestrel_test::loopback_address(0);
  socklen_t length = sizeof address;
  EXPECT_EQ(0, ::bind(listening_.get(), reinterpret_cast<sockaddr*>(&address), length));
  EXPECT_EQ(0, ::listen(listening_.get(), 8));
  EXPECT_EQ(0, ::getsockname(listening_.get(), reinterpret_cast<sockaddr*>(&address), &length));
  port_ = ntohs(address.sin_port);
  thread_ = std::thread([this, treat] {
    for (;;) {
      const int socket = ::accept4(listening_.get(), nullptr, nullptr, SOCK_CLOEXEC);
      if (socket < 0)
        return;
      Wire wire(socket);
      treat(wire);
    }
  });
}

Wire_Server::~Wire_Server()
{
  ::shutdown(listening_.get(), SHUT_RDWR); // wakes the accept
  thread_.join();
}
