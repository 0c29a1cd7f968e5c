#pragma once

#include <cstdint>
#include <map>
#include <mutex>
#include <string>

namespace kestrel
{
/// Slows guessing of passwords down: after a few failures in a row a name from one address, and an address
/// whatever the names, must wait, twice as long after each further failure. A name alone is never blocked: a
/// stranger could lock its owner out.
/// Threads: any.
/// Units:   seconds.
/// Limits:  forgets the oldest failures beyond ENTRIES names and addresses, and all after FORGET_SECONDS.
class Sign_In_Limiter
{
public:
  static constexpr unsigned FREE_PER_NAME = 5;
  static constexpr unsigned FREE_PER_ADDRESS = 20;
  static constexpr int LONGEST_WAIT = 300;
  static constexpr int FORGET_SECONDS = 900;
  static constexpr size_t ENTRIES = 4096;

  /// How long this sign-in must wait yet; 0: it may be tried.
  int wait_seconds(const std::string& name, const std::string& address);
  void failed(const std::string& name, const std::string& address);
  void succeeded(const std::string& name, const std::string& address);

private:
  struct Entry {
    unsigned failures = 0;
    int64_t last_msec = 0;
    int64_t blocked_until_msec = 0;
  };

  int wait_of(const std::string& key, int64_t now) const;
  void note(const std::string& key, unsigned free, int64_t now);
  void forget(int64_t now);

  std::mutex mutex_;
  std::map<std::string, Entry> entries_;
};
} // namespace kestrel
