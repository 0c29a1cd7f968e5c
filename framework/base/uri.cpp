#include "base/uri.h"

#include "base/hex.h"

namespace
{
using kestrel::hex_digit;

std::string decode_escapes(const std::string& segment)
{
  std::string text;
  for (size_t i = 0; i < segment.size(); ++i) {
    const bool escape = segment[i] == '%' && segment.size() - i > 2 && hex_digit(segment[i + 1]) >= 0 &&
                        hex_digit(segment[i + 2]) >= 0;
    if (escape) {
      text += static_cast<char>(hex_digit(segment[i + 1]) * 16 + hex_digit(segment[i + 2]));
      i += 2;
    } else {
      text += segment[i];
    }
  }
  return text;
}
} // namespace

int URI::path(const std::string& path, bool decode)
{
  std::vector<std::string> segments;
  size_t begin = !path.empty() && path[0] == '/' ? 1 : 0;
  while (!path.empty()) {
    const size_t slash = path.find('/', begin);
    const std::string segment = path.substr(begin, slash == std::string::npos ? slash : slash - begin);
    segments.push_back(decode ? decode_escapes(segment) : segment);
    if (slash == std::string::npos)
      break;
    begin = slash + 1;
  }
  segments_.swap(segments);
  return 0;
}
