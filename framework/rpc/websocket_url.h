#pragma once

#include <string>
#include <vector>

namespace kestrel
{
/// The parts of "https://host:port/path?query"; ws and wss mean http and https. The host of an IPv6 address
/// stands in brackets in the URL and without them here.
struct WebSocket_URL {
  bool tls = true;
  std::string host;
  unsigned short port = 0;
  std::string target;

  /// "host:port", with the brackets.
  std::string authority() const;
};

/// False with a sentence in `error`; user names and passwords in a URL are refused.
[[nodiscard]] bool parse_websocket_url(const std::string& text, WebSocket_URL& url, std::string& error);

/// The numeric addresses of a host, the preferred one first. A numeric host needs no look-up. The look-up of
/// a name cannot be ended: after timeout_msec it is left to itself, a few at most at a time. Errors: false
/// with a sentence in `error`; `late` tells a time-out from a name that does not exist.
[[nodiscard]] bool resolve_host(const std::string& host, int timeout_msec,
                                std::vector<std::string>& addresses, bool& late, std::string& error);
} // namespace kestrel
