#pragma once

#include "base/descriptor.h"
#include "support/test_certificates.h"

#include <openssl/ssl.h>

#include <functional>
#include <memory>
#include <string>
#include <thread>

/// A connection that the test speaks on byte by byte, right or wrong. Every wait ends after a minute.
class Wire
{
public:
  explicit Wire(int socket);
  ~Wire();
  Wire(const Wire&) = delete;
  Wire& operator=(const Wire&) = delete;
  static std::unique_ptr<Wire> connect(unsigned short port);

  /// TLS from here on. False: the handshake failed.
  bool serve_tls(const kestrel_test::Certificate& certificate);
  bool use_tls(int highest_version = 0);

  bool write(const std::string& bytes);
  /// What is there next; "" at the end, orderly or not.
  std::string read_some();
  /// Reads to the end of a header and gives it; what follows stays for read_exactly().
  std::string read_header();
  std::string read_exactly(std::size_t bytes);
  /// Reads on until the other side closes.
  void read_to_end();
  /// Sends no more, and reads on.
  void half_close();
  /// Ends the connection as a crash would.
  void reset();

  /// Asks for a WebSocket and gives the header of the answer.
  std::string upgrade();
  /// Answers such a request, with the given sub-protocol unless it is empty.
  bool accept_upgrade(const std::string& protocol);

private:
  kestrel::Auto_Fd socket_;
  std::unique_ptr<SSL_CTX, decltype(&SSL_CTX_free)> context_{nullptr, SSL_CTX_free};
  std::unique_ptr<SSL, decltype(&SSL_free)> tls_{nullptr, SSL_free};
  std::string rest_;
};

/// One WebSocket frame. A client's are masked.
struct Frame {
  int opcode = 1;
  std::string payload;
  bool masked = true;
  bool last = true;
  /// The length that it claims; the payload's own when negative.
  long long claimed_length = -1;
  std::string bytes() const;
};

/// A server on a port of 127.0.0.1 that treats each connection as the test says, one after the other.
class Wire_Server
{
public:
  explicit Wire_Server(std::function<void(Wire&)> treat);
  ~Wire_Server();
  unsigned short port() const { return port_; }
  std::string url() const { return "https://127.0.0.1:" + std::to_string(port_) + "/k2/w/agent"; }

private:
  kestrel::Auto_Fd listening_;
  unsigned short port_ = 0;
  std::thread thread_;
};
