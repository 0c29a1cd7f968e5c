#include "oscar/backup_source_collector.h"

#include "base/ignore_result.h"
#include "base/uri.h"

#include <ace/Log_Msg.h>

namespace oscar
{
namespace
{
const char prefix[] = "oscar";

std::string segment(const std::vector<std::string>& segments, size_t index)
{
  return index < segments.size() ? segments[index] : std::string();
}
} // namespace

int Backup_Source_Collector::collect(std::vector<std::string> const& entries)
{
  sources_.reserve(sources_.size() + entries.size());
  for (const std::string& entry : entries) {
    if (entry.compare(0, sizeof prefix - 1, prefix) != 0) {
      ACE_ERROR((LM_ERROR, "Failed to collect %s source:\"%s\" to backup", prefix, entry.c_str()));
      return -1;
    }
    URI uri;
    kestrel::ignore_result(uri.path(entry, true), "every text is a path");
    const std::vector<std::string>& segments = uri.segments();
    if (segments.size() > 1)
      sources_.push_back({segments[1], segment(segments, 2), segment(segments, 3), segment(segments, 4)});
  }
  return 0;
}
} // namespace oscar
