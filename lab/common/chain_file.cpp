#include "lab/common/chain_file.h"

#include "lab/common/text.h"

namespace oscar_lab
{

namespace
{

const char* const keys[] = {"_lastfullbackupid=", "_lastfullbackuplsn=", "_lastfullbackupscn=",
                            "_lastbackupid=",     "_lastbackuplsn=",     "_lastbackupscn="};
constexpr int lock_timeout_msec = 10 * 1000;

std::string lines_of_others(const Instance_Files& files)
{
  std::string kept;
  if (!is_regular_file(files.chain_file()))
    return kept;
  for (const std::string& line : split_lines(read_file(files.chain_file()))) {
    bool ours = false;
    for (const char* const key : keys)
      ours = ours || starts_with(line, files.name + key);
    if (!ours)
      kept += line + "\n";
  }
  return kept;
}

void replace_lines(const Instance_Files& files, const std::string& lines)
{
  const File_Lock lock(files.home + "/agent/lastlsn.lock", lock_timeout_msec);
  if (!lock.held())
    throw Failure("another process holds " + files.chain_file());
  replace_file(files.chain_file(), lines_of_others(files) + lines, 0644);
}

std::string lines_of(const std::string& name, const Backup_Point& point, int first_key)
{
  return name + keys[first_key] + point.id + "\n" + name + keys[first_key + 1] + std::to_string(point.lsn) +
         "\n" + name + keys[first_key + 2] + std::to_string(point.scn) + "\n";
}

} // namespace

bool Chain::complete() const
{
  const auto set = [](const Backup_Point& point) {
    return !point.id.empty() && point.lsn != 0 && point.scn != 0;
  };
  return set(last_full) && set(last);
}

Chain read_chain(const Instance_Files& files)
{
  Chain chain;
  if (!is_regular_file(files.chain_file()))
    return chain;
  for (const std::string& line : split_lines(read_file(files.chain_file()))) {
    for (int i = 0; i < 6; ++i) {
      const std::string prefix = files.name + keys[i];
      if (!starts_with(line, prefix))
        continue;
      Backup_Point& point = i < 3 ? chain.last_full : chain.last;
      const std::string value = line.substr(prefix.size());
      std::uint64_t number = 0;
      if (i % 3 == 0)
        point.id = value;
      else if (parse_number(value, UINT64_MAX, number))
        (i % 3 == 1 ? point.lsn : point.scn) = number;
    }
  }
  return chain;
}

void write_chain(const Instance_Files& files, const Chain& chain)
{
  replace_lines(files, lines_of(files.name, chain.last_full, 0) + lines_of(files.name, chain.last, 3));
}

void forget_chain(const Instance_Files& files)
{
  if (is_regular_file(files.chain_file()))
    replace_lines(files, "");
}

} // namespace oscar_lab
