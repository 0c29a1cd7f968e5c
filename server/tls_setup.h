#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace kestrel
{
/// The names and numeric addresses that a server certificate is for.
struct TLS_Names {
  std::vector<std::string> names;
  std::vector<std::string> addresses;
};

const int CA_DAYS = 3650;
const int SERVER_CERTIFICATE_DAYS = 825;

/// A certificate and its private key as PEM. The key is a secret.
struct TLS_Pair {
  std::string certificate;
  std::string key;
};

/// A new CA, and server certificates signed by it; all with EC P-256 keys. A server certificate begins to be
/// valid an hour ago, for the sake of clocks that are late; `not_after` of 0 means the usual days from now.
/// Threads: any.
/// Errors:  false with `error`; the results are untouched.
[[nodiscard]] bool make_ca(TLS_Pair& ca, std::string& error);
[[nodiscard]] bool make_server_certificate(const TLS_Pair& ca, const TLS_Names& names, TLS_Pair& server,
                                           std::string& error, int64_t not_after = 0);
/// The names of a certificate (PEM).
[[nodiscard]] bool certificate_names(const std::string& certificate, TLS_Names& names, std::string& error);
/// Until when a certificate (PEM) is valid, in seconds since 1970.
[[nodiscard]] bool certificate_end(const std::string& certificate, int64_t& not_after, std::string& error);

/// A DNS name as a certificate may hold it: labels of letters, digits and hyphens, also "*." at its
/// beginning.
bool is_dns_name(const std::string& name);
/// A numeric IPv4 or IPv6 address.
bool is_numeric_address(const std::string& address);
} // namespace kestrel
