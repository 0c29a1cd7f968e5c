#pragma once

#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <limits>
#include <type_traits>

/// Reads a decimal number at the start of text[0..length). For text that comes from tools, files and
/// documents.
/// Not for:   white space (none is skipped), other bases, fractions.
/// Threads:   any.
/// Ownership: none; *stop points into text. Result:    the number, and *stop (when stop is not null) at the
///            first character that is no part of it.
/// Errors:    no digits: 0, errno EINVAL, *stop = text. Magnitude too large for T: T's maximum (also after
///            a minus sign), errno ERANGE, *stop behind the last digit. Otherwise errno is set to 0. An
///            unsigned T takes no minus sign: "-5" has no digits.
template <class T> T natoi(const char* text, size_t length, const char** stop)
{
  static_assert(std::is_integral<T>::value && sizeof(T) <= sizeof(uint64_t), "natoi needs an integer type");
  const char* const end = text + (text ? length : 0);
  const char* at = text;
  bool negative = false;
  if (at != end && (*at == '+' || (*at == '-' && std::is_signed<T>::value)))
    negative = *at++ == '-';

  const char* const first_digit = at;
  const uint64_t limit = static_cast<uint64_t>(std::numeric_limits<T>::max()) + (negative ? 1 : 0);
  uint64_t magnitude = 0;
  bool overflow = false;
  for (; at != end && *at >= '0' && *at <= '9'; ++at) {
    const uint64_t digit = static_cast<uint64_t>(*at - '0');
    if (magnitude > (limit - digit) / 10)
      overflow = true;
    else
      magnitude = magnitude * 10 + digit;
  }

  if (at == first_digit) {
    if (stop)
      *stop = text;
    errno = EINVAL;
    return 0;
  }
  if (stop)
    *stop = at;
  errno = overflow ? ERANGE : 0;
  if (overflow)
    return std::numeric_limits<T>::max();
  return negative ? static_cast<T>(0 - magnitude) : static_cast<T>(magnitude);
}

/// The same for NUL-terminated text.
template <class T> T natoi(const char* text, const char** stop)
{
  return natoi<T>(text, text ? ::strlen(text) : 0, stop);
}
