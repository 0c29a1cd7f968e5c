#pragma once

#include <type_traits>
#include <utility>

namespace kestrel
{
/// Runs a function when the scope is left, unless cancel() was called. Stands on the line after the acquire:
///   kestrel::Scope_Guard unlink_fifo([&] { ::unlink(path.c_str()); });
/// The function must not throw. Guards run in the reverse order of their declaration.
template <class Function> class [[nodiscard]] Scope_Guard
{
public:
  explicit Scope_Guard(Function function) : function_(std::move(function)) {}
  ~Scope_Guard()
  {
    if (armed_)
      function_();
  }
  Scope_Guard(const Scope_Guard&) = delete;
  Scope_Guard& operator=(const Scope_Guard&) = delete;

  void cancel() { armed_ = false; }

private:
  Function function_;
  bool armed_ = true;
};
} // namespace kestrel
