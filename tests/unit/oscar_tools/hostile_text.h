#pragma once

#include <cstddef>
#include <string>

namespace kestrel_test
{
/// How often hostile text repeats itself: enough for Boost.Regex to give up with an exception. Far less under
/// the thread sanitizer, where each such search takes half a minute and shows nothing that the other builds
/// do not.
#if defined(__SANITIZE_THREAD__)
constexpr size_t Hostile_Repeats = 200;
#else
constexpr size_t Hostile_Repeats = 30000;
#endif

inline std::string repeated(const std::string& text)
{
  std::string result;
  for (size_t i = 0; i < Hostile_Repeats; ++i)
    result += text;
  return result;
}

/// 200,000 blanks in the ordinary builds.
inline std::string many_blanks()
{
  return std::string(Hostile_Repeats / 3 * 20, ' ');
}
} // namespace kestrel_test
