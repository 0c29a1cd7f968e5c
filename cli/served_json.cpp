#include "cli/served_json.h"

#include "cli/text_format.h"

namespace kestrel
{
std::string text_in(const json_spirit::Object& object, const char* key)
{
  const json_spirit::Value& value = find_value(object, key);
  return value.type() == json_spirit::str_type ? value.get_str() : std::string();
}

int64_t number_in(const json_spirit::Object& object, const char* key)
{
  const json_spirit::Value& value = find_value(object, key);
  if (value.type() == json_spirit::real_type)
    return static_cast<int64_t>(value.get_real());
  return value.type() == json_spirit::int_type ? value.get_int64() : 0;
}

bool flag_in(const json_spirit::Object& object, const char* key)
{
  const json_spirit::Value& value = find_value(object, key);
  return value.type() == json_spirit::bool_type && value.get_bool();
}

json_spirit::Object object_in(const json_spirit::Object& object, const char* key)
{
  const json_spirit::Value& value = find_value(object, key);
  return value.type() == json_spirit::obj_type ? value.get_obj() : json_spirit::Object();
}

json_spirit::Array array_in(const json_spirit::Object& object, const char* key)
{
  const json_spirit::Value& value = find_value(object, key);
  return value.type() == json_spirit::array_type ? value.get_array() : json_spirit::Array();
}

std::vector<json_spirit::Object> objects_in(const json_spirit::Object& object, const char* key)
{
  std::vector<json_spirit::Object> found;
  for (const json_spirit::Value& value : array_in(object, key))
    if (value.type() == json_spirit::obj_type)
      found.push_back(value.get_obj());
  return found;
}

std::vector<std::string> texts_in(const json_spirit::Object& object, const char* key)
{
  std::vector<std::string> found;
  for (const json_spirit::Value& value : array_in(object, key))
    if (value.type() == json_spirit::str_type)
      found.push_back(value.get_str());
  return found;
}

std::string minute_in(const json_spirit::Object& object, const char* key)
{
  const int64_t time = number_in(object, key);
  return time > 0 ? format_time(static_cast<time_t>(time)).substr(0, 16) : "-";
}

std::string or_dash(const std::string& text)
{
  return text.empty() ? "-" : text;
}

std::string short_id(const std::string& id)
{
  return id.substr(0, 8);
}

std::string cut_to(const std::string& text, size_t columns)
{
  if (display_width(text) <= columns)
    return text;
  std::string kept;
  size_t width = 0;
  for (size_t i = 0; i < text.size(); ++i) {
    const bool begins = (static_cast<unsigned char>(text[i]) & 0xC0) != 0x80;
    if (begins && ++width + 3 > columns)
      break;
    kept += text[i];
  }
  return kept + "...";
}
} // namespace kestrel
