#include "tar_builder.h"

#include <cstdio>
#include <cstring>

namespace kestrel_test
{
namespace
{
const size_t record_bytes = 512;
}

void Tar_Builder::add_header(const std::string& name, uint64_t size, char type, const std::string& link)
{
  char header[record_bytes] = {};
  ::strncpy(header, name.c_str(), 100);
  ::snprintf(header + 100, 8, "%07o", 0640);
  ::snprintf(header + 108, 8, "%07o", 0);
  ::snprintf(header + 116, 8, "%07o", 0);
  ::snprintf(header + 124, 12, "%011llo", static_cast<unsigned long long>(size));
  ::snprintf(header + 136, 12, "%011o", 0);
  ::memset(header + 148, ' ', 8);
  header[156] = type;
  ::strncpy(header + 157, link.c_str(), 100);
  ::memcpy(header + 257, "ustar\00000", 8);
  unsigned sum = 0;
  for (const char c : header)
    sum += static_cast<unsigned char>(c);
  ::snprintf(header + 148, 8, "%06o", sum);
  tar_.append(header, record_bytes);
}

void Tar_Builder::add_bytes(const std::string& bytes)
{
  tar_ += bytes;
  tar_.append((record_bytes - bytes.size() % record_bytes) % record_bytes, '\0');
}

uint64_t Tar_Builder::add(const std::string& name, const std::string& content, char type,
                          const std::string& link)
{
  add_header(name, content.size(), type, link);
  const uint64_t offset = tar_.size();
  add_bytes(content);
  return offset;
}
} // namespace kestrel_test
