#pragma once

namespace kestrel
{
/// The value of a hexadecimal digit of either case, -1 for any other character. The locale plays no part.
inline int hex_digit(char c)
{
  if (c >= '0' && c <= '9')
    return c - '0';
  if (c >= 'a' && c <= 'f')
    return c - 'a' + 10;
  if (c >= 'A' && c <= 'F')
    return c - 'A' + 10;
  return -1;
}
} // namespace kestrel
