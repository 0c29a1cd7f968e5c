#include "rpc/tls.h"

#include <boost/asio/buffer.hpp>
#include <boost/asio/ssl/context.hpp>

#include <openssl/err.h>
#include <openssl/ssl.h>
#include <openssl/x509v3.h>

#include <arpa/inet.h>
#include <mutex>
#include <utility>

namespace kestrel
{
namespace
{
namespace ssl = boost::asio::ssl;

/// Those of TLS 1.2; those of 1.3 are all good.
constexpr const char* CIPHERS = "ECDHE+AESGCM:ECDHE+CHACHA20";

std::shared_ptr<ssl::context> make_context(ssl::context::method method, std::string& error)
{
  try {
    auto context = std::make_shared<ssl::context>(method);
    SSL_CTX* handle = context->native_handle();
    SSL_CTX_set_options(handle,
                        SSL_OP_NO_COMPRESSION | SSL_OP_NO_RENEGOTIATION | SSL_OP_CIPHER_SERVER_PREFERENCE);
    if (SSL_CTX_set_min_proto_version(handle, TLS1_2_VERSION) == 1 &&
        SSL_CTX_set_cipher_list(handle, CIPHERS) == 1)
      return context;
    error = "The TLS library offers none of the protocol versions and ciphers that are asked for.";
  } catch (const boost::system::system_error& failure) {
    error = std::string("The TLS library cannot be used: ") + failure.what() + ".";
  }
  ERR_clear_error();
  return nullptr;
}

std::shared_ptr<ssl::context> make_server_context(const TLS_Server_Options& options, std::string& error)
{
  const std::shared_ptr<ssl::context> context = make_context(ssl::context::tls_server, error);
  if (!context)
    return nullptr;
  boost::system::error_code failure;
  context->use_certificate_chain_file(options.certificate_file, failure);
  if (failure) {
    error = "The certificate " + options.certificate_file + " cannot be read: " + failure.message() + ".";
    return nullptr;
  }
  context->use_private_key_file(options.key_file, ssl::context::pem, failure);
  if (failure) {
    error = "The key " + options.key_file + " cannot be used with the certificate " +
            options.certificate_file + ": " + failure.message() + ".";
    return nullptr;
  }
  return context;
}

bool is_address(const std::string& text)
{
  unsigned char binary[sizeof(in6_addr)];
  return ::inet_pton(AF_INET, text.c_str(), binary) == 1 || ::inet_pton(AF_INET6, text.c_str(), binary) == 1;
}
} // namespace

std::shared_ptr<TLS_Client_Context> TLS_Client_Context::create(const TLS_Client_Options& options,
                                                               std::string& error)
{
  const std::shared_ptr<ssl::context> context = make_context(ssl::context::tls_client, error);
  if (!context)
    return nullptr;
  boost::system::error_code failure;
  context->set_verify_mode(ssl::verify_peer, failure);
  if (!options.ca_pem.empty())
    context->add_certificate_authority(boost::asio::buffer(options.ca_pem), failure);
  else if (!options.ca_file.empty())
    context->load_verify_file(options.ca_file, failure);
  else
    context->set_default_verify_paths(failure);
  if (!failure)
    return std::make_shared<TLS_Client_Context>(context);
  const std::string what = options.ca_pem.empty() ? "file " + options.ca_file : "text";
  error = "The CA certificate in the " + what + " cannot be read: " + failure.message() + ".";
  return nullptr;
}

bool tls_expect_name(SSL* connection, const std::string& name)
{
  X509_VERIFY_PARAM* rules = SSL_get0_param(connection);
  if (is_address(name))
    return X509_VERIFY_PARAM_set1_ip_asc(rules, name.c_str()) == 1;
  X509_VERIFY_PARAM_set_hostflags(rules, X509_CHECK_FLAG_NO_PARTIAL_WILDCARDS);
  return X509_VERIFY_PARAM_set1_host(rules, name.c_str(), name.size()) == 1 &&
         SSL_set_tlsext_host_name(connection, name.c_str()) == 1;
}

std::string tls_certificate_problem(SSL* connection, const std::string& where, const std::string& name)
{
  const long result = SSL_get_verify_result(connection);
  switch (result) {
  case X509_V_OK:
    return std::string();
  case X509_V_ERR_CERT_HAS_EXPIRED:
    return "The certificate of " + where + " has expired; renew it on the server.";
  case X509_V_ERR_CERT_NOT_YET_VALID:
    return "The certificate of " + where + " is not valid yet; compare the clocks of both hosts.";
  case X509_V_ERR_HOSTNAME_MISMATCH:
  case X509_V_ERR_IP_ADDRESS_MISMATCH:
    return "The certificate of " + where + " is not for the name " + name +
           "; use a name that it holds, or renew it with this one.";
  case X509_V_ERR_UNABLE_TO_GET_ISSUER_CERT:
  case X509_V_ERR_UNABLE_TO_GET_ISSUER_CERT_LOCALLY:
  case X509_V_ERR_UNABLE_TO_VERIFY_LEAF_SIGNATURE:
  case X509_V_ERR_DEPTH_ZERO_SELF_SIGNED_CERT:
  case X509_V_ERR_SELF_SIGNED_CERT_IN_CHAIN:
  case X509_V_ERR_CERT_SIGNATURE_FAILURE:
    return "The certificate of " + where +
           " is not signed by the CA that this host trusts; check that this is the right server, then give "
           "this "
           "host the server's CA certificate.";
  default:
    return "The certificate of " + where + " is refused: " + X509_verify_cert_error_string(result) + ".";
  }
}

struct TLS_Server_Context::State {
  TLS_Server_Options options;
  mutable std::mutex mutex;
  std::shared_ptr<ssl::context> context;
};

TLS_Server_Context::TLS_Server_Context(std::unique_ptr<State> state) : state_(std::move(state)) {}
TLS_Server_Context::~TLS_Server_Context() = default;

std::shared_ptr<TLS_Server_Context> TLS_Server_Context::create(const TLS_Server_Options& options,
                                                               std::string& error)
{
  std::unique_ptr<State> state = std::make_unique<State>();
  state->options = options;
  state->context = make_server_context(options, error);
  if (!state->context)
    return nullptr;
  return std::shared_ptr<TLS_Server_Context>(new TLS_Server_Context(std::move(state)));
}

bool TLS_Server_Context::reload(std::string& error)
{
  std::shared_ptr<ssl::context> context = make_server_context(state_->options, error);
  if (!context)
    return false;
  const std::lock_guard<std::mutex> guard(state_->mutex);
  state_->context.swap(context);
  return true;
}

std::shared_ptr<ssl::context> TLS_Server_Context::context() const
{
  const std::lock_guard<std::mutex> guard(state_->mutex);
  return state_->context;
}
} // namespace kestrel
