#include "archive/mtf.h"

namespace kestrel
{
std::string archive_member_name(const std::string& path)
{
  const size_t last = path.rfind('/');
  if (last == std::string::npos)
    return path;
  const size_t before = last == 0 ? std::string::npos : path.rfind('/', last - 1);
  std::string name = path.substr(before == std::string::npos ? (last == 0 ? 1 : 0) : before + 1);
  return last + 1 == path.size() ? std::string() : name;
}

std::string archive_file_name(unsigned long long seq)
{
  return "export_" + std::to_string(seq) + ".tar";
}
} // namespace kestrel
