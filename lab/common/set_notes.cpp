#include "lab/common/set_notes.h"

#include "lab/common/text.h"

#include <vector>

namespace oscar_lab
{

namespace
{

std::vector<std::string> split_tabs(const std::string& line)
{
  std::vector<std::string> parts;
  std::size_t begin = 0;
  for (;;) {
    const auto tab = line.find('\t', begin);
    parts.push_back(line.substr(begin, tab == std::string::npos ? tab : tab - begin));
    if (tab == std::string::npos)
      return parts;
    begin = tab + 1;
  }
}

void add_file(Set_Notes& notes, const std::string& line)
{
  const auto parts = split_tabs(line);
  File_Note note;
  if (parts.size() != 5 || parts[0].find(':') == std::string::npos ||
      !parse_number(parts[1], INT64_MAX, note.bytes) || !parse_number(parts[2], UINT64_MAX, note.inode) ||
      !parse_number(parts[3], UINT64_MAX, note.modified_nsec) ||
      !parse_number(parts[4], UINT64_MAX, note.changed_nsec))
    throw Failure("the note about a backup is damaged");
  notes.files[parts[0]] = note;
}

bool is_backup_id(const std::string& id)
{
  return !id.empty() && id.find_first_not_of("0123456789-") == std::string::npos;
}

} // namespace

bool operator==(const File_Note& a, const File_Note& b)
{
  return a.bytes == b.bytes && a.inode == b.inode && a.modified_nsec == b.modified_nsec &&
         a.changed_nsec == b.changed_nsec;
}

std::string note_key(const std::string& oid, const std::string& path)
{
  return oid + ":" + path;
}

std::string format_notes(const Set_Notes& notes)
{
  std::string text = "full_id=" + notes.full_id + "\nmode=" + notes.mode + "\nsystem=" + notes.system +
                     "\ntimeline=" + std::to_string(notes.timeline) + "\nlsn=" + std::to_string(notes.lsn) +
                     "\n";
  for (const auto& file : notes.files)
    text += "file=" + file.first + "\t" + std::to_string(file.second.bytes) + "\t" +
            std::to_string(file.second.inode) + "\t" + std::to_string(file.second.modified_nsec) + "\t" +
            std::to_string(file.second.changed_nsec) + "\n";
  return text + "end=\n";
}

Set_Notes parse_notes(const std::string& text)
{
  Set_Notes notes;
  std::map<std::string, std::string> values;
  for (const std::string& line : split_lines(text)) {
    const auto equals = line.find('=');
    if (equals == std::string::npos)
      throw Failure("the note about a backup is damaged");
    const std::string key = line.substr(0, equals);
    if (key == "file")
      add_file(notes, line.substr(equals + 1));
    else
      values[key] = line.substr(equals + 1);
  }
  std::uint64_t timeline = 0;
  notes.full_id = values["full_id"];
  notes.mode = values["mode"];
  notes.system = values["system"];
  if (values.count("end") == 0 || notes.full_id.empty() ||
      (notes.mode != "online" && notes.mode != "offline") || notes.system.empty() ||
      !parse_number(values["timeline"], UINT32_MAX, timeline) ||
      !parse_number(values["lsn"], UINT64_MAX, notes.lsn) || notes.lsn == 0)
    throw Failure("the note about a backup is damaged");
  notes.timeline = static_cast<unsigned>(timeline);
  return notes;
}

void write_notes(const Instance_Files& files, const std::string& id, const Set_Notes& notes)
{
  make_directory(files.chain_notes(), 0700);
  give_to(files.chain_notes(), owner_of(files.directory()));
  replace_file(files.chain_notes() + "/" + id, format_notes(notes), 0640);
}

Set_Notes read_notes(const Instance_Files& files, const std::string& id)
{
  const std::string path = files.chain_notes() + "/" + id;
  if (!is_backup_id(id) || !is_regular_file(path))
    throw Failure("backup " + id + " of lastlsn.dat was not made from these data; take a full backup");
  try {
    return parse_notes(read_file(path));
  } catch (const Failure& failure) {
    throw Failure(path + ": " + failure.what() + "; take a full backup");
  }
}

void remove_notes_except(const Instance_Files& files, const std::set<std::string>& ids)
{
  for (const std::string& name : names_in(files.chain_notes()))
    if (ids.count(name) == 0)
      remove_tree(files.chain_notes() + "/" + name);
}

} // namespace oscar_lab
