#include "lab/common/pending_restore.h"

#include "lab/common/text.h"

#include <map>

namespace oscar_lab
{

namespace
{

std::string note_path(const Instance_Files& files)
{
  return files.directory() + "/restore.state";
}

} // namespace

std::string format_pending(const Pending_Restore& pending)
{
  std::string text = std::string("complete=") + (pending.complete ? "1" : "0") +
                     "\nfull_id=" + pending.full_id + "\nid=" + pending.id + "\nmode=" + pending.mode +
                     "\nsystem=" + pending.system + "\ntimeline=" + std::to_string(pending.timeline) +
                     "\nsegment_bytes=" + std::to_string(pending.segment_bytes) +
                     "\nlsn=" + std::to_string(pending.lsn) + "\n";
  for (const Restored_Root& root : pending.roots)
    text += "root=" + root.oid + "\t" + root.target + "\n";
  return text + "end=\n";
}

Pending_Restore parse_pending(const std::string& text)
{
  Pending_Restore pending;
  std::map<std::string, std::string> values;
  for (const std::string& line : split_lines(text)) {
    const auto equals = line.find('=');
    if (equals == std::string::npos)
      throw Failure("the note about a restore is damaged");
    const std::string key = line.substr(0, equals);
    const std::string value = line.substr(equals + 1);
    if (key != "root") {
      values[key] = value;
      continue;
    }
    const auto tab = value.find('\t');
    if (tab == std::string::npos || tab + 1 == value.size())
      throw Failure("the note about a restore is damaged");
    pending.roots.push_back({value.substr(0, tab), value.substr(tab + 1)});
  }
  std::uint64_t timeline = 0;
  pending.complete = values["complete"] == "1";
  pending.full_id = values["full_id"];
  pending.id = values["id"];
  pending.mode = values["mode"];
  pending.system = values["system"];
  if (values.count("end") == 0 || pending.full_id.empty() || pending.id.empty() || pending.roots.empty() ||
      !pending.roots[0].oid.empty() || !parse_number(values["timeline"], UINT32_MAX, timeline) ||
      !parse_number(values["segment_bytes"], INT64_MAX, pending.segment_bytes) ||
      !parse_number(values["lsn"], UINT64_MAX, pending.lsn))
    throw Failure("the note about a restore is damaged");
  pending.timeline = static_cast<unsigned>(timeline);
  return pending;
}

bool read_pending(const Instance_Files& files, Pending_Restore& pending)
{
  if (!is_regular_file(note_path(files)))
    return false;
  pending = parse_pending(read_file(note_path(files)));
  return true;
}

void write_pending(const Instance_Files& files, const Pending_Restore& pending)
{
  replace_file(note_path(files), format_pending(pending), 0640);
}

void remove_pending(const Instance_Files& files)
{
  remove_tree(note_path(files));
  // Of a brcmd that was killed while it wrote the note.
  remove_tree(note_path(files) + ".new");
}

} // namespace oscar_lab
