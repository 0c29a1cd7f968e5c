#include "base/descriptor.h"
#include "oscar/brcmd_chain_state.h"
#include "support/corpus.h"

#include <cstdlib>
#include <limits>
#include <map>
#include <string>
#include <sys/mman.h>
#include <unistd.h>

// The file lastlsn.dat, which brcmd writes and users may edit.
namespace
{
void check(bool holds)
{
  if (!holds)
    ::abort();
}

/// The rule for numbers, written out: one sign at most, digits up to the first other character, no wrap.
uint64_t number_of(const std::string& text)
{
  uint64_t value = 0;
  for (size_t at = !text.empty() && text[0] == '+'; at < text.size(); ++at) {
    if (text[at] < '0' || text[at] > '9')
      break;
    const uint64_t digit = static_cast<uint64_t>(text[at] - '0');
    if (value > (std::numeric_limits<uint64_t>::max() - digit) / 10)
      return std::numeric_limits<uint64_t>::max();
    value = value * 10 + digit;
  }
  return value;
}

/// The last value of each key of the instance.
std::map<std::string, std::string> values_of(const std::string& content, const std::string& instance)
{
  std::map<std::string, std::string> values;
  for (size_t begin = 0; begin < content.size();) {
    const size_t newline = content.find('\n', begin);
    const size_t end = newline == std::string::npos ? content.size() : newline;
    const std::string line = content.substr(begin, end - begin);
    for (const char* const key : {"_lastfullbackupid=", "_lastfullbackuplsn=", "_lastfullbackupscn=",
                                  "_lastbackupid=", "_lastbackuplsn=", "_lastbackupscn="})
      if (line.rfind(instance + key, 0) == 0)
        values[key] = line.substr(instance.size() + std::string(key).size());
    begin = end + 1;
  }
  return values;
}
} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
  const kestrel::Auto_Fd file(::memfd_create("lastlsn.dat", MFD_CLOEXEC));
  check(::write(file.get(), data, size) == static_cast<ssize_t>(size));
  const std::string path = "/proc/self/fd/" + std::to_string(file.get());
  const std::string content(reinterpret_cast<const char*>(data), size);
  for (const char* const instance : {"DB1", "DB", ""}) {
    std::map<std::string, std::string> values = values_of(content, instance);
    oscar::Last_Backup_Info info;
    const bool complete = oscar::read_chain_state(path, instance, info);
    check(info.last_full_backup_id == values["_lastfullbackupid="]);
    check(info.last_full_backup_lsn == number_of(values["_lastfullbackuplsn="]));
    check(info.last_full_backup_scn == number_of(values["_lastfullbackupscn="]));
    check(info.last_backup_id == values["_lastbackupid="]);
    check(info.last_backup_lsn == number_of(values["_lastbackuplsn="]));
    check(info.last_backup_scn == number_of(values["_lastbackupscn="]));
    check(complete ==
          (!info.last_full_backup_id.empty() && info.last_full_backup_lsn && info.last_full_backup_scn &&
           !info.last_backup_id.empty() && info.last_backup_lsn && info.last_backup_scn));
  }
  return 0;
}
