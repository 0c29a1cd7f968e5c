#include "rpc/websocket_url.h"

#include "base/scope_guard.h"

#include <arpa/inet.h>
#include <netdb.h>
#include <sys/socket.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdlib>
#include <memory>
#include <mutex>
#include <system_error>
#include <thread>
#include <utility>

namespace kestrel
{
namespace
{
constexpr unsigned LOOK_UPS_LIMIT = 8;
std::atomic<unsigned> look_ups{0};

/// What the thread of one look-up and the one that waits for it share.
struct Look_Up {
  std::mutex mutex;
  std::condition_variable changed;
  bool done = false;
  int result = 0;
  std::vector<std::string> addresses;
};

void look_up(const std::string& host, Look_Up& shared)
{
  addrinfo hints = {};
  hints.ai_socktype = SOCK_STREAM;
  hints.ai_flags = AI_ADDRCONFIG;
  addrinfo* list = nullptr;
  const int result = ::getaddrinfo(host.c_str(), nullptr, &hints, &list);
  const Scope_Guard free_list([&] {
    if (list)
      ::freeaddrinfo(list);
  });
  std::vector<std::string> addresses;
  for (const addrinfo* entry = result == 0 ? list : nullptr; entry; entry = entry->ai_next) {
    char text[NI_MAXHOST];
    if (::getnameinfo(entry->ai_addr, entry->ai_addrlen, text, sizeof text, nullptr, 0, NI_NUMERICHOST) == 0)
      addresses.emplace_back(text);
  }
  const std::lock_guard<std::mutex> guard(shared.mutex);
  shared.done = true;
  shared.result = result;
  shared.addresses.swap(addresses);
  shared.changed.notify_all();
}

bool is_numeric(const std::string& host)
{
  unsigned char binary[sizeof(in6_addr)];
  return ::inet_pton(AF_INET, host.c_str(), binary) == 1 || ::inet_pton(AF_INET6, host.c_str(), binary) == 1;
}

bool parse_port(const std::string& text, unsigned short& port)
{
  if (text.empty() || text.size() > 5 ||
      !std::all_of(text.begin(), text.end(), [](char c) { return c >= '0' && c <= '9'; }))
    return false;
  const unsigned long number = std::strtoul(text.c_str(), nullptr, 10);
  if (number == 0 || number > 65535)
    return false;
  port = static_cast<unsigned short>(number);
  return true;
}

bool parse_authority(const std::string& text, WebSocket_URL& url)
{
  std::size_t colon;
  if (!text.empty() && text.front() == '[') {
    const std::size_t bracket = text.find(']');
    if (bracket == std::string::npos)
      return false;
    url.host = text.substr(1, bracket - 1);
    colon = bracket + 1;
    if (colon != text.size() && text[colon] != ':')
      return false;
  } else {
    colon = std::min(text.find(':'), text.size());
    url.host = text.substr(0, colon);
  }
  const auto allowed = [](char c) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '.' ||
           c == '-' || c == '_' || c == ':';
  };
  if (url.host.empty() || !std::all_of(url.host.begin(), url.host.end(), allowed))
    return false;
  url.port = url.tls ? 443 : 80;
  return colon == text.size() || parse_port(text.substr(colon + 1), url.port);
}
} // namespace

std::string WebSocket_URL::authority() const
{
  return (host.find(':') == std::string::npos ? host : "[" + host + "]") + ":" + std::to_string(port);
}

bool parse_websocket_url(const std::string& text, WebSocket_URL& url, std::string& error)
{
  static const std::pair<const char*, bool> schemes[] = {
      {"https://", true}, {"wss://", true}, {"http://", false}, {"ws://", false}};
  for (const auto& scheme : schemes) {
    const std::string begin = scheme.first;
    if (text.compare(0, begin.size(), begin) != 0)
      continue;
    WebSocket_URL result;
    result.tls = scheme.second;
    const std::size_t slash = std::min(text.find('/', begin.size()), text.size());
    result.target = slash == text.size() ? "/" : text.substr(slash);
    const bool clean =
        std::all_of(result.target.begin(), result.target.end(), [](char c) { return c > ' ' && c < 127; });
    if (!clean || !parse_authority(text.substr(begin.size(), slash - begin.size()), result))
      break;
    url = result;
    return true;
  }
  error = "The server's address is not of the form https://HOST:PORT/PATH; correct it.";
  return false;
}

bool resolve_host(const std::string& host, int timeout_msec, std::vector<std::string>& addresses, bool& late,
                  std::string& error)
{
  late = false;
  if (is_numeric(host)) {
    addresses.assign(1, host);
    return true;
  }
  if (look_ups.fetch_add(1) >= LOOK_UPS_LIMIT) {
    --look_ups;
    late = true;
    error = "The name " + host +
            " is not looked up: too many look-ups are still under way; check the name service.";
    return false;
  }
  const auto shared = std::make_shared<Look_Up>();
  try {
    std::thread([host, shared] {
      look_up(host, *shared);
      --look_ups;
    }).detach();
  } catch (const std::system_error& failure) {
    --look_ups;
    error = "The name " + host + " cannot be looked up: " + failure.what() + ".";
    return false;
  }
  std::unique_lock<std::mutex> lock(shared->mutex);
  if (!shared->changed.wait_for(lock, std::chrono::milliseconds(timeout_msec),
                                [&] { return shared->done; })) {
    late = true;
    error = "The name " + host + " was not found within " + std::to_string(timeout_msec) +
            " ms; check the name service of this host.";
    return false;
  }
  if (shared->addresses.empty()) {
    error = "The name " + host + " has no address (" +
            (shared->result ? ::gai_strerror(shared->result) : "an empty answer") +
            "); check the name and this host's name service.";
    return false;
  }
  addresses.swap(shared->addresses);
  return true;
}
} // namespace kestrel
