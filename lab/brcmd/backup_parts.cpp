#include "lab/brcmd/backup_parts.h"

#include "lab/brcmd/pipe.h"
#include "lab/common/text.h"

#include <algorithm>
#include <cerrno>
#include <ctime>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace oscar_lab
{

namespace
{

constexpr const char* take_full = "; take a full backup";

/// Places inside the instance's own directory stay relative, so that another home can take the backup.
std::string portable_location(const Instance_Files& files, const std::string& location)
{
  const std::string own = files.directory() + "/";
  return starts_with(location, own) ? "@/" + location.substr(own.size()) : location;
}

} // namespace

void find_base(const Instance_Files& files, Backup_Set& set)
{
  set.chain = read_chain(files);
  if (!set.chain.complete())
    throw Failure("there is no backup of " + files.name + " to continue" + take_full);
  const Backup_Point& point = set.level == "diff" ? set.chain.last_full : set.chain.last;
  set.base_id = point.id;
  set.base = read_notes(files, point.id);
  if (set.base.mode != set.notes.mode)
    throw Failure(std::string("archive logging was switched ") + (set.notes.mode == "online" ? "on" : "off") +
                  " since the last backup" + take_full);
  if (set.base.system != set.notes.system || set.base.timeline != set.log_shape.timeline ||
      set.base.full_id != set.chain.last_full.id || set.base.lsn != point.lsn)
    throw Failure("lastlsn.dat does not fit the data of " + files.name + take_full);
}

std::string new_backup_id()
{
  const std::time_t now = std::time(nullptr);
  std::tm local{};
  ::localtime_r(&now, &local);
  char stamp[32];
  std::strftime(stamp, sizeof stamp, "%Y%m%d%H%M%S", &local);
  return std::string(stamp) + "-" + std::to_string(::getpid());
}

std::string info_text(const Instance_Files& files, const Backup_Set& set,
                      const std::vector<Tablespace>& tablespaces, const std::vector<std::uint64_t>& bytes)
{
  const std::string system_file = files.directory() + "/SYSTEM.dbf";
  const std::string head =
      "brcmd 2.5.6x20230817132129\ninstance " + files.name + "\nlevel " + set.level + "\n";
  std::string text = head + system_file + "=" + std::to_string(bytes[0]) + "\n";
  std::uint64_t total = bytes[0];
  for (std::size_t i = 0; i < tablespaces.size() && i + 1 < bytes.size(); ++i) {
    const std::string datafile = datafile_of(tablespaces[i].location);
    total += bytes[i + 1];
    if (is_regular_file(datafile))
      text += datafile + "=" + std::to_string(bytes[i + 1]) + "\n";
  }
  if (text.size() > max_info_bytes - info_head_bytes)
    text = head + system_file + "=" + std::to_string(total) + "\n";
  return text;
}

void write_head(Image_Writer& image, const Instance_Files& files, const Backup_Set& set,
                const std::string& info)
{
  image.info(info);
  Properties head = {{"format", "1"},
                     {"instance", files.name},
                     {"directory", files.directory()},
                     {"level", set.level},
                     {"mode", set.notes.mode},
                     {"system", set.notes.system},
                     {"timeline", std::to_string(set.log_shape.timeline)},
                     {"segment_bytes", std::to_string(set.log_shape.segment_bytes)},
                     {"backup_id", set.point.id},
                     {"version", trim(read_file(files.data() + "/PG_VERSION"))}};
  if (!set.is_full()) {
    head["base_id"] = set.base_id;
    head["full_id"] = set.base.full_id;
    head["first_lsn"] = std::to_string(set.base.lsn);
  }
  image.properties(Frame_Type::head, head);
}

void write_roots(Image_Writer& image, const Instance_Files& files, const Data_Files& data)
{
  for (std::size_t i = 0; i < data.tablespaces.size(); ++i)
    image.tablespace(static_cast<std::uint16_t>(i + 1), data.tablespaces[i].oid,
                     portable_location(files, data.tablespaces[i].location));
}

void write_entry(Image_Writer& image, const Data_Files& data, const Data_File& entry, bool may_vanish)
{
  if (entry.is_directory) {
    image.directory(entry.root, entry.path, entry.mode);
    return;
  }
  const std::string path = data.root_path(entry.root) + "/" + entry.path;
  const Descriptor file(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
  struct stat status;
  if (!file.valid()) {
    if (errno == ENOENT && may_vanish)
      return;
    fail_errno("cannot open " + path);
  }
  if (::fstat(file.get(), &status) != 0)
    fail_errno("cannot look at " + path);
  Frame frame;
  frame.type = Frame_Type::file;
  frame.root = entry.root;
  frame.mode = entry.mode;
  frame.path = entry.path;
  frame.payload_bytes = frame.file_bytes = static_cast<std::uint64_t>(status.st_size);
  ::posix_fadvise(file.get(), 0, 0, POSIX_FADV_SEQUENTIAL);
  image.file(frame, file.get());
}

void write_small_file(Image_Writer& image, const std::string& path, const std::string& content)
{
  Frame frame;
  frame.type = Frame_Type::file;
  frame.mode = 0600;
  frame.path = path;
  image.file(frame, content);
}

/// The server rewrites this file in place; the same content twice in a row is not a half-written one.
void write_control_file(Image_Writer& image, const std::string& data_directory)
{
  std::string content = read_file(data_directory + "/" + control_file);
  for (int attempt = 0; attempt < 100; ++attempt) {
    const std::string again = read_file(data_directory + "/" + control_file);
    if (again == content)
      break;
    content = again;
  }
  write_small_file(image, control_file, content);
}

void write_log_files(Image_Writer& image, const std::string& data_directory, const Log_Shape& shape,
                     const Log_Range& range)
{
  const std::uint64_t first = range.first_lsn / shape.segment_bytes;
  const std::uint64_t last = (range.end_lsn - 1) / shape.segment_bytes;
  for (std::uint64_t segment = first; segment <= last; ++segment) {
    Frame frame;
    frame.type = Frame_Type::file;
    frame.mode = 0600;
    frame.path = "pg_wal/" + segment_name(shape, segment);
    frame.file_bytes = frame.payload_bytes = shape.segment_bytes;
    if (segment == last) {
      // Up to the end of the page after the one with the last record; the rest may be left from an older
      // segment.
      const std::uint64_t used = range.end_lsn - segment * shape.segment_bytes;
      frame.payload_bytes =
          std::min(shape.segment_bytes,
                   (used + log_page_bytes - 1) / log_page_bytes * log_page_bytes + log_page_bytes);
    }
    const Descriptor file = open_file(data_directory + "/" + frame.path, O_RDONLY);
    image.file(frame, file.get());
  }
}

std::string note_key_of(const Data_Files& data, const Data_File& entry)
{
  return note_key(entry.root == 0 ? std::string() : data.tablespaces.at(entry.root - 1U).oid, entry.path);
}

void conclude(Image_Writer& image, int pipe, const Instance_Files& files, Backup_Set& set,
              const Log_Range& log_part, Run_Log& log)
{
  image.properties(Frame_Type::end, {{"lsn", std::to_string(set.point.lsn)},
                                     {"scn", std::to_string(set.point.scn)},
                                     {"log_first", std::to_string(log_part.first_lsn)},
                                     {"log_end", std::to_string(log_part.end_lsn)}});
  image.flush();
  wait_until_drained(pipe);
  set.notes.timeline = set.log_shape.timeline;
  set.notes.lsn = set.point.lsn;
  set.notes.full_id = set.is_full() ? set.point.id : set.base.full_id;
  write_notes(files, set.point.id, set.notes);
  set.chain.last = set.point;
  if (set.is_full())
    set.chain.last_full = set.point;
  write_chain(files, set.chain);
  remove_notes_except(files, {set.chain.last.id, set.chain.last_full.id});
  log.info("backup " + set.point.id + " of " + files.name + ": " + std::to_string(image.written_bytes()) +
           " bytes, lsn " + format_lsn(set.point.lsn) + ", scn " + std::to_string(set.point.scn));
}

} // namespace oscar_lab
