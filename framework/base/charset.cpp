#include "base/charset.h"

#include "base/ignore_result.h"
#include "base/scope_guard.h"

#include <cerrno>
#include <cstring>
#include <iconv.h>
#include <langinfo.h>
#include <utility>

bool kestrel::convert_charset(const char* to, const char* from, const std::string& text,
                              std::string& converted)
{
  const iconv_t converter = ::iconv_open(to, from);
  if (converter == reinterpret_cast<iconv_t>(-1))
    return false;
  kestrel::Scope_Guard close_converter([&] { ::iconv_close(converter); });

  std::string result;
  char* in = const_cast<char*>(text.data());
  size_t in_left = text.size();
  bool flushed = false;
  char piece[1024];
  while (!flushed) {
    char* out = piece;
    size_t out_left = sizeof piece;
    // Without input left one more call writes the sequence that ends a stateful encoding.
    flushed = in_left == 0;
    const size_t rc = ::iconv(converter, flushed ? nullptr : &in, &in_left, &out, &out_left);
    if (rc == static_cast<size_t>(-1) && errno != E2BIG)
      return false;
    flushed = flushed && rc != static_cast<size_t>(-1);
    result.append(piece, sizeof piece - out_left);
  }
  converted.swap(result);
  return true;
}

namespace
{
bool is_utf8(const char* codeset)
{
  return ::strcasecmp(codeset, "UTF-8") == 0 || ::strcasecmp(codeset, "utf8") == 0;
}
} // namespace

UTF16_String::UTF16_String(const char* utf8) : local_(utf8 ? utf8 : "")
{
  const char* codeset = ::nl_langinfo(CODESET);
  if (!local_.empty() && !is_utf8(codeset))
    kestrel::ignore_result(kestrel::convert_charset(codeset, "UTF-8", local_, local_),
                           "then the bytes pass through");
}

Local_String::Local_String(std::string local) : local_(std::move(local)) {}

std::string Local_String::to_utf8() const
{
  std::string utf8 = local_;
  const char* codeset = ::nl_langinfo(CODESET);
  if (!local_.empty() && !is_utf8(codeset))
    kestrel::ignore_result(kestrel::convert_charset("UTF-8", codeset, local_, utf8),
                           "then the bytes pass through");
  return utf8;
}
