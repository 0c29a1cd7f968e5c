#include "storage/side_file.h"

#include "base/checksum.h"
#include "json/json_util.h"

#include <cstring>
#include <exception>

namespace kestrel
{
namespace
{
const int FORMAT_VERSION = 1;
const char CHECKSUM_KIND[] = "xxh3-128";
const size_t CHECKSUM_DIGITS = 32;

// The last member of the object; the checksum covers every byte before this text.
const char SEAL_BEGIN[] = ",\"side_file_checksum\":\"";
const char SEAL_END[] = "\"}\n";

bool is_checksum(const std::string& text)
{
  return text.size() == CHECKSUM_DIGITS && text.find_first_not_of("0123456789abcdef") == std::string::npos;
}

bool is_sealed(const std::string& text)
{
  const size_t seal = text.rfind(SEAL_BEGIN);
  if (seal == std::string::npos)
    return false;
  return text.substr(seal) == SEAL_BEGIN + xxh3_128_hex(text.data(), seal) + SEAL_END;
}

// Throws on a missing or ill-typed key.
bool extract(const json_spirit::Object& object, Side_File& content, std::string& error)
{
  if (required<int>(object, "version") != FORMAT_VERSION) {
    error = "it has a newer format; read it with a newer release";
    return false;
  }
  const std::string method = required<std::string>(object, "method");
  content.method = compression_name_to_value(method.data(), static_cast<unsigned>(method.size()));
  if (method != compression_value_to_name(content.method)) {
    error = "it names the compression method \"" + method + "\", which this release does not have";
    return false;
  }
  content.original_size = required<uint64_t>(object, "original_size");
  content.original_checksum = required<std::string>(object, "original_checksum");
  content.storage_size = required<uint64_t>(object, "storage_size");
  content.storage_checksum = required<std::string>(object, "storage_checksum");
  content.time = required<int64_t>(object, "time");
  if (required<std::string>(object, "checksum_kind") != CHECKSUM_KIND ||
      !is_checksum(content.original_checksum) || !is_checksum(content.storage_checksum)) {
    error = "its checksums are of an unknown kind";
    return false;
  }
  return true;
}
} // namespace

std::string side_file_text(const Side_File& content)
{
  using json_spirit::Pair;
  json_spirit::Object object;
  object.push_back(Pair("version", FORMAT_VERSION));
  object.push_back(Pair("method", compression_value_to_name(content.method)));
  object.push_back(Pair("original_size", content.original_size));
  object.push_back(Pair("storage_size", content.storage_size));
  object.push_back(Pair("checksum_kind", CHECKSUM_KIND));
  object.push_back(Pair("original_checksum", content.original_checksum));
  object.push_back(Pair("storage_checksum", content.storage_checksum));
  object.push_back(Pair("time", content.time));
  std::string text = write_json(object);
  text.erase(text.rfind('}'));
  return text + SEAL_BEGIN + xxh3_128_hex(text.data(), text.size()) + SEAL_END;
}

bool parse_side_file(const std::string& text, Side_File& content, std::string& error)
{
  if (!is_sealed(text)) {
    error = "it is damaged or incomplete";
    return false;
  }
  try {
    json_spirit::Value value;
    Side_File read;
    if (!read_json(text, value, error) || !extract(value.get_obj(), read, error))
      return false;
    content = read;
    return true;
  } catch (const std::exception& failure) {
    error = failure.what();
    return false;
  }
}
} // namespace kestrel
