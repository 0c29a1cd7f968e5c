#include "archive/archive_format.h"

#include "json/json_util.h"

#include <set>
#include <stdexcept>

namespace kestrel
{
const char* const archive_record_name = ".kestrel/metadata.json";
const char* const archive_index_name = ".kestrel/index.json";
const char* const archive_tail_name = ".kestrel/tail";

namespace
{
const char own_folder[] = ".kestrel";
const int format_version = 1;
const size_t longest_component = 255;

void add_version(json_spirit::Object& object)
{
  object.emplace_back("format", format_version);
}

/// The members of a document of our version. Throws with a text for the user.
json_spirit::Object read_document(const std::string& text)
{
  json_spirit::Value value;
  std::string error;
  if (!read_json(text, json_file_limits(), value, error))
    throw std::runtime_error(error);
  if (value.type() != json_spirit::obj_type)
    throw std::runtime_error("it is no JSON object");
  const int format = required<int>(value.get_obj(), "format");
  if (format != format_version)
    throw std::runtime_error("its format is " + std::to_string(format) + ", this program reads " +
                             std::to_string(format_version) + "; use a newer one");
  return std::move(value.get_obj());
}

std::string read_checksum(const json_spirit::Object& object)
{
  const std::string checksum = required<std::string>(object, "checksum");
  if (checksum.size() != 32 || checksum.find_first_not_of("0123456789abcdef") != std::string::npos)
    throw std::runtime_error("a checksum in it is none");
  return checksum;
}

std::string read_name(const json_spirit::Object& object, std::set<std::string>& seen)
{
  const std::string name = required<std::string>(object, "name");
  std::string error;
  if (!is_archive_member_name(name, error))
    throw std::runtime_error(error);
  if (!seen.insert(name).second)
    throw std::runtime_error("it has two files named " + shown_name(name));
  return name;
}

/// Runs read(); its exception becomes `error`.
template <class Read> bool parsed(const char* what, std::string& error, Read read)
{
  try {
    read();
    return true;
  } catch (const std::exception& failure) {
    error = std::string("the archive's ") + what + " cannot be used: " + failure.what();
    return false;
  }
}
} // namespace

std::string shown_name(const std::string& name)
{
  std::string shown = utf8_without_invalid(name);
  for (char& c : shown)
    if (static_cast<unsigned char>(c) < 0x20 || c == 0x7f)
      c = '?';
  return shown;
}

bool is_archive_member_name(const std::string& name, std::string& error)
{
  const size_t slash = name.find('/');
  const std::string folder = slash == std::string::npos ? std::string() : name.substr(0, slash);
  const std::string last = slash == std::string::npos ? name : name.substr(slash + 1);
  const bool two = slash != std::string::npos;
  bool plain = name.find('\0') == std::string::npos && last.find('/') == std::string::npos;
  for (const std::string* component : {&folder, &last}) {
    const bool wanted = component == &last || two;
    if (wanted && (component->empty() || *component == "." || *component == ".." ||
                   component->size() > longest_component))
      plain = false;
  }
  if (plain && folder != own_folder && last != own_folder)
    return true;
  error = "\"" + shown_name(name) +
          "\" cannot be a file of an archive: it would not lie in the directory that is restored into";
  if (plain)
    error = "\"" + shown_name(name) + "\" cannot be a file of an archive: the name is the archive's own";
  return false;
}

std::string archive_record_text(const Archive_Record& record)
{
  json_spirit::Object object;
  add_version(object);
  object.emplace_back("uuid", record.uuid);
  object.emplace_back("definition_uuid", record.definition_uuid);
  object.emplace_back("host_uuid", record.host_uuid);
  object.emplace_back("minor_resource_id", record.minor_resource_id);
  object.emplace_back("pool_uuid", record.pool_uuid);
  object.emplace_back("device_uuid", record.device_uuid);
  object.emplace_back("seq", record.seq);
  object.emplace_back("incremental", record.incremental);
  object.emplace_back("compression", record.compression);
  object.emplace_back("time", record.time);
  json_spirit::Array files;
  for (const Archive_Record::File& file : record.files) {
    json_spirit::Object entry;
    entry.emplace_back("name", file.name);
    entry.emplace_back("path", file.path);
    entry.emplace_back("size", file.size);
    files.push_back(std::move(entry));
  }
  object.emplace_back("files", std::move(files));
  object.emplace_back("metadata", record.metadata);
  return write_json_pretty(object);
}

bool parse_archive_record(const std::string& text, Archive_Record& record, std::string& error)
{
  return parsed("metadata record", error, [&] {
    const json_spirit::Object object = read_document(text);
    Archive_Record read;
    read.uuid = required<std::string>(object, "uuid");
    read.definition_uuid = required<std::string>(object, "definition_uuid");
    read.host_uuid = required<std::string>(object, "host_uuid");
    read.minor_resource_id = required<std::string>(object, "minor_resource_id");
    read.pool_uuid = required<std::string>(object, "pool_uuid");
    read.device_uuid = required<std::string>(object, "device_uuid");
    read.seq = required<uint64_t>(object, "seq");
    read.incremental = required<bool>(object, "incremental");
    read.compression = required<std::string>(object, "compression");
    read.time = required<int64_t>(object, "time");
    std::set<std::string> seen;
    for (const json_spirit::Value& value : required<json_spirit::Array>(object, "files")) {
      const json_spirit::Object& entry = value.get_obj();
      const std::string name = read_name(entry, seen);
      read.files.push_back({name, required<std::string>(entry, "path"), required<uint64_t>(entry, "size")});
    }
    read.metadata = json_spirit::find_value(object, "metadata");
    record = std::move(read);
  });
}

std::string archive_index_text(const Archive_Index& index)
{
  json_spirit::Object object;
  add_version(object);
  json_spirit::Object record;
  record.emplace_back("offset", index.record_offset);
  record.emplace_back("size", index.record_size);
  record.emplace_back("checksum", index.record_checksum);
  object.emplace_back("record", std::move(record));
  json_spirit::Array files;
  for (const Archive_Index::File& file : index.files) {
    json_spirit::Object entry;
    entry.emplace_back("name", file.member.name);
    entry.emplace_back("path", file.member.path);
    entry.emplace_back("size", file.member.size);
    entry.emplace_back("checksum", file.member.checksum);
    entry.emplace_back("mode", file.mode);
    entry.emplace_back("header_offset", file.header_offset);
    entry.emplace_back("offset", file.data_offset);
    files.push_back(std::move(entry));
  }
  object.emplace_back("files", std::move(files));
  return write_json_pretty(object);
}

bool parse_archive_index(const std::string& text, Archive_Index& index, std::string& error)
{
  return parsed("index", error, [&] {
    const json_spirit::Object object = read_document(text);
    Archive_Index read;
    const auto record = required<json_spirit::Object>(object, "record");
    read.record_offset = required<uint64_t>(record, "offset");
    read.record_size = required<uint64_t>(record, "size");
    read.record_checksum = read_checksum(record);
    std::set<std::string> seen;
    for (const json_spirit::Value& value : required<json_spirit::Array>(object, "files")) {
      const json_spirit::Object& entry = value.get_obj();
      Archive_Index::File file;
      file.member.name = read_name(entry, seen);
      file.member.path = required<std::string>(entry, "path");
      file.member.size = required<uint64_t>(entry, "size");
      file.member.checksum = read_checksum(entry);
      file.mode = required<unsigned>(entry, "mode") & 0777;
      file.header_offset = required<uint64_t>(entry, "header_offset");
      file.data_offset = required<uint64_t>(entry, "offset");
      read.files.push_back(std::move(file));
    }
    index = std::move(read);
  });
}

std::string archive_tail_text(const Archive_Tail& tail)
{
  json_spirit::Object object;
  add_version(object);
  object.emplace_back("offset", tail.index_offset);
  object.emplace_back("size", tail.index_size);
  object.emplace_back("checksum", tail.index_checksum);
  std::string text = write_json(object);
  text.resize(archive_tail_bytes - 1, ' ');
  return text + '\n';
}

bool parse_archive_tail(const std::string& text, Archive_Tail& tail, std::string& error)
{
  return parsed("tail", error, [&] {
    const json_spirit::Object object = read_document(text);
    Archive_Tail read;
    read.index_offset = required<uint64_t>(object, "offset");
    read.index_size = required<uint64_t>(object, "size");
    read.index_checksum = read_checksum(object);
    tail = read;
  });
}

bool index_agrees(const Archive_Index& index, const Archive_Record& record, std::string& error)
{
  bool agrees = index.files.size() == record.files.size();
  for (size_t i = 0; agrees && i < index.files.size(); ++i) {
    const MTF::Stored_Member& member = index.files[i].member;
    const Archive_Record::File& file = record.files[i];
    agrees = member.name == file.name && member.path == file.path && member.size == file.size;
  }
  if (!agrees)
    error = "the archive's index does not list the files of its metadata record";
  return agrees;
}

std::string archive_member_name(const std::string& path)
{
  const size_t last = path.rfind('/');
  if (last == std::string::npos)
    return path;
  if (last + 1 == path.size())
    return std::string();
  const size_t before = last == 0 ? std::string::npos : path.rfind('/', last - 1);
  if (before == std::string::npos)
    return path.substr(last == 0 ? 1 : 0);
  return path.substr(before + 1);
}

std::string archive_file_name(unsigned long long seq)
{
  return "export_" + std::to_string(seq) + ".tar";
}
} // namespace kestrel
