#include "json/json_util.h"

namespace kestrel
{
namespace
{
const char replacement[] = "\xEF\xBF\xBD";

struct Lead {
  unsigned length; ///< 0: this byte starts no sequence
  unsigned char second_from;
  unsigned char second_to;
};

// The ranges of the second byte leave out overlong forms, surrogates and everything above U+10FFFF.
Lead lead(unsigned char byte)
{
  if (byte < 0x80)
    return {1, 0, 0};
  if (byte >= 0xC2 && byte <= 0xDF)
    return {2, 0x80, 0xBF};
  if (byte >= 0xE0 && byte <= 0xEF)
    return {3, static_cast<unsigned char>(byte == 0xE0 ? 0xA0 : 0x80),
            static_cast<unsigned char>(byte == 0xED ? 0x9F : 0xBF)};
  if (byte >= 0xF0 && byte <= 0xF4)
    return {4, static_cast<unsigned char>(byte == 0xF0 ? 0x90 : 0x80),
            static_cast<unsigned char>(byte == 0xF4 ? 0x8F : 0xBF)};
  return {0, 0, 0};
}

/// Looks at the sequence at `at`; `length` is what to copy, or what to replace by one mark.
bool valid_sequence(const std::string& text, size_t at, size_t& length)
{
  const Lead first = lead(static_cast<unsigned char>(text[at]));
  length = 1;
  if (first.length < 2)
    return first.length == 1;
  for (; length < first.length; ++length) {
    if (at + length == text.size())
      return false;
    const unsigned char byte = static_cast<unsigned char>(text[at + length]);
    const unsigned char from = length == 1 ? first.second_from : 0x80;
    const unsigned char to = length == 1 ? first.second_to : 0xBF;
    if (byte < from || byte > to)
      return false;
  }
  return true;
}
} // namespace

std::string utf8_without_invalid(const std::string& text)
{
  std::string clean;
  clean.reserve(text.size());
  size_t length = 0;
  for (size_t at = 0; at < text.size(); at += length) {
    if (valid_sequence(text, at, length))
      clean.append(text, at, length);
    else
      clean += replacement;
  }
  return clean;
}
} // namespace kestrel
