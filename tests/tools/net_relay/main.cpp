/// Relays TCP connections, and delays, holds, slows, refuses or resets them as a control file says
/// (control.h).
///   net_relay LISTEN_ADDRESS:PORT TARGET_ADDRESS:PORT CONTROL_FILE
/// Prints "listening ADDRESS:PORT", "rules" each time the file was taken over, and "open N" and "close N
/// UP_BYTES DOWN_BYTES" for each connection. The file counts as changed when another one was renamed to its
/// name.
#include "base/descriptor.h"
#include "base/natoi.h"
#include "tools/net_relay/control.h"
#include "tools/net_relay/link.h"

#include <arpa/inet.h>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <ctime>
#include <fstream>
#include <list>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sstream>
#include <sys/socket.h>
#include <sys/stat.h>

namespace net_relay
{

namespace
{

constexpr int beat_msec = 10;

std::uint64_t now_msec()
{
  timespec time;
  ::clock_gettime(CLOCK_MONOTONIC, &time);
  return static_cast<std::uint64_t>(time.tv_sec) * 1000 + static_cast<std::uint64_t>(time.tv_nsec) / 1000000;
}

bool parse_address(const std::string& text, sockaddr_in& address)
{
  const auto colon = text.rfind(':');
  const char* stop = nullptr;
  if (colon == std::string::npos)
    return false;
  address = {};
  address.sin_family = AF_INET;
  address.sin_port = htons(natoi<std::uint16_t>(text.c_str() + colon + 1, &stop));
  return *stop == '\0' && ::inet_pton(AF_INET, text.substr(0, colon).c_str(), &address.sin_addr) == 1;
}

int new_socket()
{
  const int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
  const int on = 1;
  ::setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
  ::setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
  return fd;
}

class Relay
{
public:
  Relay(const sockaddr_in& target, std::string control_file)
      : target_(target), control_file_(std::move(control_file))
  {
  }
  bool listen(const sockaddr_in& address);
  [[noreturn]] void run();

private:
  void look_at_control_file();
  void take_over(const Rules& rules);
  void accept_all();
  const Rules& rules_of(const Link& link) const
  {
    const Scope scope = link.rules_version() < rules_version_ ? Scope::existing : Scope::recent;
    return rules_.scope == Scope::all || rules_.scope == scope ? rules_ : pass_;
  }

  sockaddr_in target_;
  std::string control_file_;
  kestrel::Auto_Fd listener_;
  std::list<Link> links_;
  std::vector<int> unanswered_; // accepted while nobody is to answer; kept until the end
  Rules rules_;
  const Rules pass_;
  std::uint64_t rules_version_ = 0;
  ino_t control_inode_ = 0;
  timespec control_time_ = {0, 0};
  unsigned connections_ = 0;
};

bool Relay::listen(const sockaddr_in& address)
{
  listener_.reset(new_socket());
  if (::bind(listener_.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0 ||
      ::listen(listener_.get(), 64) != 0)
    return false;
  sockaddr_in bound{};
  socklen_t size = sizeof bound;
  char text[INET_ADDRSTRLEN] = "";
  if (::getsockname(listener_.get(), reinterpret_cast<sockaddr*>(&bound), &size) != 0 ||
      !::inet_ntop(AF_INET, &bound.sin_addr, text, sizeof text))
    return false;
  std::printf("listening %s:%u\n", text, static_cast<unsigned>(ntohs(bound.sin_port)));
  return true;
}

void Relay::look_at_control_file()
{
  struct stat status;
  if (::stat(control_file_.c_str(), &status) != 0)
    return;
  if (status.st_ino == control_inode_ && status.st_mtim.tv_sec == control_time_.tv_sec &&
      status.st_mtim.tv_nsec == control_time_.tv_nsec)
    return;
  control_inode_ = status.st_ino;
  control_time_ = status.st_mtim;
  std::ostringstream text;
  text << std::ifstream(control_file_).rdbuf();
  Rules rules;
  std::string error;
  if (parse_rules(text.str(), rules, error))
    take_over(rules);
  else
    std::printf("not understood: %s\n", error.c_str());
}

void Relay::take_over(const Rules& rules)
{
  const bool cut = rules.cut != rules_.cut;
  rules_ = rules;
  ++rules_version_;
  if (cut)
    for (Link& link : links_) {
      link.reset();
      std::printf("close %u %llu %llu\n", link.number(), static_cast<unsigned long long>(link.up_bytes()),
                  static_cast<unsigned long long>(link.down_bytes()));
    }
  if (cut)
    links_.clear();
  std::puts("rules");
}

void Relay::accept_all()
{
  for (;;) {
    const int client = ::accept4(listener_.get(), nullptr, nullptr, SOCK_CLOEXEC);
    if (client < 0)
      return;
    if (rules_.accept == Accept::hold) {
      unanswered_.push_back(client);
      continue;
    }
    const int target = rules_.accept == Accept::refuse ? -1 : new_socket();
    links_.emplace_back(connections_ + 1, client, target, rules_version_);
    if (target < 0 || (::connect(target, reinterpret_cast<const sockaddr*>(&target_), sizeof target_) != 0 &&
                       errno != EINPROGRESS)) {
      links_.back().reset();
      links_.pop_back();
      continue;
    }
    std::printf("open %u\n", ++connections_);
  }
}

void Relay::run()
{
  for (;;) {
    look_at_control_file();
    std::vector<pollfd> polls = {{listener_.get(), POLLIN, 0}};
    std::uint64_t now = now_msec();
    for (const Link& link : links_)
      link.add_polls(polls, now, rules_of(link));
    ::poll(polls.data(), polls.size(), beat_msec);
    now = now_msec();
    for (auto link = links_.begin(); link != links_.end();) {
      const bool goes_on = link->step(now, rules_of(*link));
      if (!goes_on)
        std::printf("close %u %llu %llu\n", link->number(), static_cast<unsigned long long>(link->up_bytes()),
                    static_cast<unsigned long long>(link->down_bytes()));
      link = goes_on ? std::next(link) : links_.erase(link);
    }
    accept_all();
  }
}

} // namespace

} // namespace net_relay

int main(int argc, char** argv)
{
  sockaddr_in listen{};
  sockaddr_in target{};
  if (argc != 4 || !net_relay::parse_address(argv[1], listen) || !net_relay::parse_address(argv[2], target)) {
    std::fprintf(stderr, "usage: net_relay LISTEN_ADDRESS:PORT TARGET_ADDRESS:PORT CONTROL_FILE\n");
    return 2;
  }
  std::setvbuf(stdout, nullptr, _IOLBF, 0);
  std::signal(SIGPIPE, SIG_IGN);
  net_relay::Relay relay(target, argv[3]);
  if (!relay.listen(listen)) {
    std::perror("net_relay: cannot listen");
    return 1;
  }
  relay.run();
}
