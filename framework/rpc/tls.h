#pragma once

#include <memory>
#include <string>

namespace boost
{
namespace asio
{
namespace ssl
{
class context;
}
} // namespace asio
} // namespace boost

struct ssl_st; // the TLS library's connection

namespace kestrel
{
/// TLS as all connections of the product use it: 1.2 or later, no compression, no renegotiation, only ciphers
/// with forward secrecy and authenticated encryption.

struct TLS_Client_Options {
  /// Who may have signed the server's certificate: PEM text, or a file of it. Both empty: the system's list.
  std::string ca_pem;
  std::string ca_file;
  /// The name or address that the certificate must be for; empty: the host of the URL.
  std::string server_name;
};

struct TLS_Server_Options {
  std::string certificate_file; ///< PEM: the server's certificate, then those between it and the CA
  std::string key_file;         ///< PEM, without a password
};

/// What one side needs for its handshakes. The certificate of the other side is always checked by a client;
/// there is no way to leave that out.
/// Threads:   const; any.
/// Errors:    a null pointer with a sentence in `error` that names the file.
class TLS_Client_Context
{
public:
  static std::shared_ptr<TLS_Client_Context> create(const TLS_Client_Options& options, std::string& error);
  explicit TLS_Client_Context(std::shared_ptr<boost::asio::ssl::context> context)
      : context_(std::move(context))
  {
  }
  boost::asio::ssl::context& context() const { return *context_; }

private:
  std::shared_ptr<boost::asio::ssl::context> context_;
};

/// The server's side. reload() reads the files again for connections from then on; when it fails the old ones
/// stay in force.
/// Threads: any, several at once.
class TLS_Server_Context
{
public:
  static std::shared_ptr<TLS_Server_Context> create(const TLS_Server_Options& options, std::string& error);
  ~TLS_Server_Context();
  TLS_Server_Context(const TLS_Server_Context&) = delete;
  TLS_Server_Context& operator=(const TLS_Server_Context&) = delete;

  [[nodiscard]] bool reload(std::string& error);
  /// For one new connection; keeps valid whatever is reloaded later.
  std::shared_ptr<boost::asio::ssl::context> context() const;

private:
  struct State;
  explicit TLS_Server_Context(std::unique_ptr<State> state);
  const std::unique_ptr<State> state_;
};

/// Before a client's handshake: the certificate must be for this host name or address. False when the name
/// cannot be one.
[[nodiscard]] bool tls_expect_name(ssl_st* connection, const std::string& name);
/// After a handshake failed: what is wrong with the server's certificate, as a sentence; "" when it is not
/// the certificate.
std::string tls_certificate_problem(ssl_st* connection, const std::string& where, const std::string& name);
} // namespace kestrel
