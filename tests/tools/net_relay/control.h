/// What the control file of a relay says. Lines "key=value"; a file that is not there says nothing.
///   up_delay_msec, down_delay_msec   how late bytes arrive ("up" is from the client to the target)
///   up, down                         pass | hold: held bytes arrive once the direction passes again, as they
///   do when lost
///                                    packets are sent again
///   rate                             bytes a second, each direction of each connection; 0: no limit
///   accept                           pass | refuse | hold (accepted, but nobody answers)
///   scope                            all | existing | new: whether the rules are for connections made before
///   the file
///                                    was read, or after; the others are let alone
///   cut                              any text: all connections are reset each time it changes
/// Threads: values only. Errors: false for a line that is not understood; the text says which.
#pragma once

#include <cstdint>
#include <string>

namespace net_relay
{

enum class Accept { pass, refuse, hold };
enum class Scope { all, existing, recent };

struct Direction_Rule {
  std::uint64_t delay_msec = 0;
  bool held = false;
};

struct Rules {
  Direction_Rule up;
  Direction_Rule down;
  std::uint64_t rate_bytes_per_second = 0;
  Accept accept = Accept::pass;
  Scope scope = Scope::all;
  std::string cut;
};

bool parse_rules(const std::string& text, Rules& rules, std::string& error);

} // namespace net_relay
