#include "lab/logical/export_file.h"

#include "lab/common/text.h"

#include <cerrno>
#include <cstring>
#include <sys/stat.h>
#include <unistd.h>
#include <xxhash.h>

namespace oscar_lab
{

namespace
{

constexpr char end_mark[] = "OSRXEND1";
constexpr std::size_t end_bytes = 8 + 3 * 8;
constexpr std::uint64_t largest_record = 256U << 20;

std::string escape(const std::string& text)
{
  const char digits[] = "0123456789ABCDEF";
  std::string word;
  for (const char c : text) {
    const auto byte = static_cast<unsigned char>(c);
    if (byte > 0x20 && byte < 0x7f && c != '%')
      word += c;
    else
      word += {'%', digits[byte >> 4], digits[byte & 15]};
  }
  return word.empty() ? "%" : word; // a lone "%" is the empty text
}

std::string unescape(const std::string& word)
{
  std::string text;
  if (word == "%")
    return text;
  for (std::size_t i = 0; i < word.size(); ++i) {
    if (word[i] != '%') {
      text += word[i];
      continue;
    }
    if (i + 2 >= word.size())
      throw Failure("bad record");
    text += static_cast<char>(std::stoi(word.substr(i + 1, 2), nullptr, 16));
    i += 2;
  }
  return text;
}

std::string line(const std::vector<std::string>& words)
{
  std::string text;
  for (const std::string& word : words)
    text += (text.empty() ? "" : " ") + escape(word);
  return text + "\n";
}

std::string record_text(const Export_Record& record)
{
  std::string text = line({"level", level_name(record.level)});
  if (record.level != Level::database)
    text += line({"object", record.schema, record.table});
  for (const Object_Kind kind : record.left_out)
    text += line({"without", kind_name(kind)});
  for (const std::string& schema : record.schemas)
    text += line({"schema", schema});
  for (const std::string& role : record.roles)
    text += line({"role", role});
  for (const std::string& tablespace : record.tablespaces)
    text += line({"tablespace", tablespace});
  for (const std::string& tablespace : record.index_tablespaces)
    text += line({"index-tablespace", tablespace});
  for (const Reference& key : record.foreign_keys)
    text += line({"foreign-key", key.schema, key.table, key.name, key.needed_schema, key.needed_name});
  for (const Reference& trigger : record.triggers)
    text += line(
        {"trigger", trigger.schema, trigger.table, trigger.name, trigger.needed_schema, trigger.needed_name});
  for (const auto& sequence : record.free_sequences)
    text += line({"sequence", sequence.first, sequence.second});
  for (const auto& view : record.keyed_views)
    text += line({"keyed-view", view.first, view.second});
  return text;
}

std::vector<std::string> words_of(const std::string& text)
{
  std::vector<std::string> words;
  std::size_t begin = 0;
  while (begin <= text.size()) {
    const auto end = std::min(text.find(' ', begin), text.size());
    words.push_back(unescape(text.substr(begin, end - begin)));
    begin = end + 1;
  }
  return words;
}

void read_line(const std::vector<std::string>& words, Export_Record& record)
{
  const std::string& key = words.at(0);
  if (key == "level") {
    for (const Level level : {Level::database, Level::schema, Level::table})
      if (words.at(1) == level_name(level))
        record.level = level;
  } else if (key == "object") {
    record.schema = words.at(1);
    record.table = words.at(2);
  } else if (key == "without") {
    for (const Object_Kind kind : all_object_kinds)
      if (words.at(1) == kind_name(kind))
        record.left_out.insert(kind);
  } else if (key == "schema") {
    record.schemas.push_back(words.at(1));
  } else if (key == "role") {
    record.roles.push_back(words.at(1));
  } else if (key == "tablespace") {
    record.tablespaces.insert(words.at(1));
  } else if (key == "index-tablespace") {
    record.index_tablespaces.insert(words.at(1));
  } else if (key == "foreign-key" || key == "trigger") {
    auto& list = key == "trigger" ? record.triggers : record.foreign_keys;
    list.push_back(Reference{words.at(1), words.at(2), words.at(3), words.at(4), words.at(5)});
  } else if (key == "sequence") {
    record.free_sequences.emplace_back(words.at(1), words.at(2));
  } else if (key == "keyed-view") {
    record.keyed_views.emplace_back(words.at(1), words.at(2));
  } else {
    throw Failure("bad record");
  }
}

void put64(std::string& text, std::uint64_t value)
{
  for (int i = 0; i < 8; ++i)
    text += static_cast<char>(value >> (8 * i));
}

std::uint64_t get64(const char* bytes)
{
  std::uint64_t value = 0;
  for (int i = 7; i >= 0; --i)
    value = (value << 8) | static_cast<unsigned char>(bytes[i]);
  return value;
}

/// The checksum of the first size bytes; last_text gets the final last_size of them.
std::uint64_t checksum_of(int fd, std::uint64_t size, std::uint64_t last_size, std::string& last_text)
{
  XXH64_state_t* const state = XXH64_createState();
  if (!state)
    throw Failure("out of memory");
  XXH64_reset(state, 0);
  std::string buffer(1 << 20, '\0');
  std::uint64_t done = 0;
  last_text.clear();
  while (done < size) {
    const ssize_t count =
        ::pread(fd, &buffer[0], static_cast<std::size_t>(std::min<std::uint64_t>(buffer.size(), size - done)),
                static_cast<off_t>(done));
    if (count < 0 && errno == EINTR)
      continue;
    if (count <= 0)
      break;
    const auto got = static_cast<std::uint64_t>(count);
    XXH64_update(state, buffer.data(), static_cast<std::size_t>(got));
    const std::uint64_t skipped =
        done + got <= size - last_size ? got : size - last_size - std::min(done, size - last_size);
    last_text.append(buffer, static_cast<std::size_t>(skipped), static_cast<std::size_t>(got - skipped));
    done += got;
  }
  const std::uint64_t checksum = XXH64_digest(state);
  XXH64_freeState(state);
  if (done != size)
    fail_errno("cannot read the export file");
  return checksum;
}

std::uint64_t size_of(int fd)
{
  struct stat status;
  if (::fstat(fd, &status) != 0)
    fail_errno("cannot look at the export file");
  return static_cast<std::uint64_t>(status.st_size);
}

} // namespace

void finish_export(int fd, const Export_Record& record)
{
  const std::uint64_t archive_bytes = size_of(fd);
  if (::lseek(fd, 0, SEEK_END) < 0)
    fail_errno("cannot write the export file");
  const std::string text = record_text(record);
  write_all(fd, text.data(), text.size(), "the export file");
  std::string ignored;
  const std::uint64_t checksum = checksum_of(fd, archive_bytes + text.size(), 0, ignored);
  std::string end = end_mark;
  put64(end, archive_bytes);
  put64(end, text.size());
  put64(end, checksum);
  write_all(fd, end.data(), end.size(), "the export file");
}

Export_Record read_export(int fd, const std::string& path)
{
  const std::uint64_t size = size_of(fd);
  char end[end_bytes];
  const Failure incomplete(path + " is not a complete export file");
  if (size < end_bytes ||
      ::pread(fd, end, end_bytes, static_cast<off_t>(size - end_bytes)) != static_cast<ssize_t>(end_bytes) ||
      std::memcmp(end, end_mark, 8) != 0)
    throw incomplete;
  const std::uint64_t archive_bytes = get64(end + 8);
  const std::uint64_t record_bytes = get64(end + 16);
  const std::uint64_t body = size - end_bytes;
  if (record_bytes > largest_record || record_bytes > body || archive_bytes != body - record_bytes)
    throw incomplete;
  std::string text;
  if (checksum_of(fd, body, record_bytes, text) != get64(end + 24))
    throw Failure(path + " is damaged: its checksum is wrong");
  Export_Record record;
  try {
    for (const std::string& record_line : split_lines(text))
      read_line(words_of(record_line), record);
  } catch (const std::exception&) {
    throw Failure(path + " holds a record that this version does not understand");
  }
  return record;
}

} // namespace oscar_lab
