#include "base/string_sprintf.h"

#include <cstdarg>
#include <cstdio>

namespace
{
__attribute__((format(printf, 2, 0))) bool print(std::string& text, const char* format, va_list arguments)
{
  char small[512];
  va_list again;
  va_copy(again, arguments);
  const int length = ::vsnprintf(small, sizeof small, format, arguments);
  if (length >= 0 && static_cast<size_t>(length) < sizeof small) {
    text.assign(small, static_cast<size_t>(length));
  } else if (length >= 0) {
    text.resize(static_cast<size_t>(length) + 1);
    ::vsnprintf(&text[0], text.size(), format, again);
    text.pop_back();
  }
  va_end(again);
  return length >= 0;
}
} // namespace

std::string& string_sprintf(std::string& out, const char* format, ...)
{
  std::string text;
  va_list arguments;
  va_start(arguments, format);
  if (print(text, format, arguments))
    out.swap(text);
  va_end(arguments);
  return out;
}

std::string& string_sprintf_append(std::string& out, const char* format, ...)
{
  std::string text;
  va_list arguments;
  va_start(arguments, format);
  if (print(text, format, arguments))
    out += text;
  va_end(arguments);
  return out;
}
