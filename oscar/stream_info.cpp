#include "oscar/stream_info.h"

#include <cstring>
#include <limits>
#include <string>

#include "base/files.h"
#include "base/natoi.h"

namespace oscar
{
namespace
{
/// Size given by one line, 0 when the line does not count.
uint64_t line_size(const char* line, size_t length)
{
  const char* const equals = static_cast<const char*>(std::memchr(line, '=', length));
  if (!equals)
    return 0;
  const std::string path(line, equals);
  // A zero byte would cut the path short and name another file.
  if (path.find('\0') != std::string::npos || !is_regular_file(path.c_str()))
    return 0;
  return natoi<uint64_t>(equals + 1, static_cast<size_t>(line + length - (equals + 1)), nullptr);
}
} // namespace

uint32_t stream_info_length(const void* head)
{
  const unsigned char* const bytes = static_cast<const unsigned char*>(head);
  return (uint32_t(bytes[0]) << 24) | (uint32_t(bytes[1]) << 16) | (uint32_t(bytes[2]) << 8) |
         uint32_t(bytes[3]);
}

uint64_t stream_backup_set_size(const char* data, unsigned len)
{
  uint64_t sum = 0;
  const char* const end = data + len;
  for (const char* line = data; line < end;) {
    const char* line_end = static_cast<const char*>(std::memchr(line, '\n', static_cast<size_t>(end - line)));
    if (!line_end)
      line_end = end;
    const uint64_t size = line_size(line, static_cast<size_t>(line_end - line));
    sum =
        size > std::numeric_limits<uint64_t>::max() - sum ? std::numeric_limits<uint64_t>::max() : sum + size;
    line = line_end + 1;
  }
  return sum;
}
} // namespace oscar
