#include "agent/job_log_reader.h"

#include "base/descriptor.h"
#include "base/path_conf.h"

#include <ace/Log_Msg.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstring>
#include <fcntl.h>
#include <unistd.h>

namespace kestrel
{
namespace
{
/// The bytes at the end that begin a character whose rest is missing.
size_t cut_character(const std::string& text)
{
  for (size_t back = 1; back <= 3 && back <= text.size(); ++back) {
    const unsigned char byte = static_cast<unsigned char>(text[text.size() - back]);
    if (byte >= 0xc0)
      return (byte >= 0xf0 ? 4u : byte >= 0xe0 ? 3u : 2u) > back ? back : 0;
    if (byte < 0x80)
      return 0;
  }
  return 0;
}
} // namespace

bool read_job_log(const std::string& path, uint64_t offset, uint64_t limit, Job_Log_Part& part,
                  std::string& error)
{
  Job_Log_Part found;
  found.next_offset = offset;
  if (path.empty() || offset > INT64_MAX / 2) {
    part = found;
    return true;
  }
  const Auto_Fd file(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
  if (file.get() < 0) {
    error = errno == ENOENT ? "the log " + path + " is no longer there" : path + ": " + std::strerror(errno);
    return false;
  }
  const uint64_t wanted = limit == 0 ? max_log_part_bytes : std::min(limit, max_log_part_bytes);
  // One byte more tells whether anything follows.
  found.text.resize(static_cast<size_t>(wanted) + 1);
  size_t size = 0;
  while (size < found.text.size()) {
    const ssize_t count =
        ::pread(file.get(), &found.text[size], found.text.size() - size, static_cast<off_t>(offset + size));
    if (count < 0 && errno == EINTR)
      continue;
    if (count < 0) {
      error = path + ": " + std::strerror(errno);
      return false;
    }
    if (count == 0)
      break;
    size += static_cast<size_t>(count);
  }
  found.at_end = size <= wanted;
  found.text.resize(std::min(size, static_cast<size_t>(wanted)));
  const size_t cut = found.at_end ? 0 : cut_character(found.text);
  // A limit below one character's length would otherwise never get on.
  if (cut < found.text.size())
    found.text.resize(found.text.size() - cut);
  found.next_offset = offset + found.text.size();
  part = std::move(found);
  return true;
}

void remove_job_logs(const std::vector<std::string>& paths)
{
  const std::string directory = Path_Conf("/var/log/kestrel3", "jobs").directory() + "/";
  for (const std::string& path : paths) {
    if (path.compare(0, directory.size(), directory) != 0 ||
        path.find('/', directory.size()) != std::string::npos)
      continue;
    if (::unlink(path.c_str()) != 0 && errno != ENOENT)
      ACE_ERROR((LM_WARNING, "(%P|%t) remove_job_logs: %C: %m\n", path.c_str()));
  }
}
} // namespace kestrel
