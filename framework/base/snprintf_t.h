#pragma once

#include <cstdarg>
#include <cstdio>

/// A formatted text of at most N-1 characters inside the object; what is longer is cut without a word.
/// Threads: as a plain buffer.
/// Errors:  a format that cannot be printed leaves an empty text.
template <unsigned N> class snprintf_t
{
public:
  snprintf_t() { text_[0] = '\0'; }

  __attribute__((format(printf, 2, 3))) explicit snprintf_t(const char* format, ...)
  {
    va_list arguments;
    va_start(arguments, format);
    print(format, arguments);
    va_end(arguments);
  }

  /// Replaces the text. Returns the length that the whole text has, N or more when it was cut; negative on an
  /// error.
  __attribute__((format(printf, 2, 3))) int set(const char* format, ...)
  {
    va_list arguments;
    va_start(arguments, format);
    const int length = print(format, arguments);
    va_end(arguments);
    return length;
  }

  const char* c_str() const { return text_; }

private:
  __attribute__((format(printf, 2, 0))) int print(const char* format, va_list arguments)
  {
    static_assert(N > 0, "room for the terminating NUL is needed");
    const int length = ::vsnprintf(text_, N, format, arguments);
    if (length < 0)
      text_[0] = '\0';
    return length;
  }

  char text_[N];
};
