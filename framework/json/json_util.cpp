#include "json/json_util.h"

#include "json/wipe_json.h"
#include "json/yajl_gen.h"
#include "json/yajl_handler.h"

#include <algorithm>
#include <cerrno>
#include <clocale>
#include <cmath>
#include <cstdlib>
#include <limits>
#include <locale.h>
#include <stdexcept>

using json_spirit::Array;
using json_spirit::Object;
using json_spirit::Pair;
using json_spirit::Value;

namespace kestrel
{
namespace
{
// strtod follows the process locale, which may have a decimal comma.
double to_real(const std::string& text)
{
  static const locale_t c_locale = ::newlocale(LC_ALL_MASK, "C", nullptr);
  const double number = ::strtod_l(text.c_str(), nullptr, c_locale);
  if (!std::isfinite(number))
    throw std::runtime_error("a number is too large");
  return number;
}

Value to_number(const std::string& text)
{
  if (text.find_first_of(".eE") != std::string::npos)
    return to_real(text);
  errno = 0;
  if (text[0] == '-') {
    const long long number = ::strtoll(text.c_str(), nullptr, 10);
    if (errno == 0)
      return number;
  } else {
    const unsigned long long number = ::strtoull(text.c_str(), nullptr, 10);
    if (errno == 0)
      return number;
  }
  throw std::runtime_error("an integer does not fit 64 bits");
}

/// Builds a value from the events. The depth is bounded by the dispatcher.
class Value_Builder : public YAJL_Handler
{
public:
  Value& root() { return root_; }

  bool handle_null_i() override { return add(Value()); }
  bool handle_boolean_i(bool value) override { return add(value); }
  bool handle_number_i(char const* text, unsigned length) override { return add(to_number({text, length})); }
  bool handle_string_i(char const* text, unsigned length) override { return add(std::string(text, length)); }
  bool handle_start_map_i() override { return open(Object()); }

  bool handle_map_key_i(char const* text, unsigned length) override
  {
    open_.back().key.assign(text, length);
    return true;
  }

  bool handle_end_map_i() override { return close(); }
  bool handle_start_array_i() override { return open(Array()); }
  bool handle_end_array_i() override { return close(); }

private:
  struct Level {
    Value container;
    std::string key;
  };

  bool open(Value container)
  {
    open_.push_back({std::move(container), std::string()});
    return true;
  }

  bool close()
  {
    Value done = std::move(open_.back().container);
    open_.pop_back();
    return add(std::move(done));
  }

  static Value& value_of(Value& value) { return value; }
  static Value& value_of(json_spirit::Pair& member) { return member.value_; }

  /// As the list would grow by itself, but without leaving short texts, which may be passwords, in its former place.
  template <class List> static void make_room(List& list)
  {
    if (list.size() < list.capacity())
      return;
    List larger;
    larger.reserve(std::max<size_t>(4, 2 * list.size()));
    for (auto& element : list) {
      larger.push_back(std::move(element));
      wipe_json(value_of(element));
    }
    list.swap(larger);
  }

  bool add(Value value)
  {
    if (open_.empty()) {
      root_ = std::move(value);
    } else {
      Level& level = open_.back();
      if (level.container.type() == json_spirit::obj_type) {
        make_room(level.container.get_obj());
        level.container.get_obj().emplace_back(std::move(level.key), std::move(value));
      } else {
        make_room(level.container.get_array());
        level.container.get_array().push_back(std::move(value));
      }
    }
    return true;
  }

  std::vector<Level> open_;
  Value root_;
};

std::string write(const Value& value, Json_Form form)
{
  Json_Generator generator(form);
  if (!YAJL_Gen(generator.handle()).value(value).ok())
    throw std::runtime_error("JSON value cannot be written: nested deeper than 64 levels");
  return generator.text();
}

constexpr const char* not_unsigned = "an unsigned integer in range";

template <class T> struct Extractor;

template <> struct Extractor<std::string> {
  static constexpr const char* expected = "a text";
  static std::string get(const Value& value) { return value.get_str(); }
};

template <> struct Extractor<bool> {
  static constexpr const char* expected = "a boolean";
  static bool get(const Value& value) { return value.get_bool(); }
};

template <> struct Extractor<int> {
  static constexpr const char* expected = "an integer of 32 bits";
  static int get(const Value& value) { return value.get_int(); }
};

template <> struct Extractor<int64_t> {
  static constexpr const char* expected = "a signed integer of 64 bits";
  static int64_t get(const Value& value)
  {
    if (value.is_uint64())
      throw std::runtime_error(expected);
    return value.get_int64();
  }
};

template <> struct Extractor<uint64_t> {
  static constexpr const char* expected = not_unsigned;
  static uint64_t get(const Value& value)
  {
    if (!value.is_uint64() && value.get_int64() < 0)
      throw std::runtime_error(expected);
    return value.get_uint64();
  }
};

template <> struct Extractor<unsigned> {
  static constexpr const char* expected = not_unsigned;
  static unsigned get(const Value& value)
  {
    const uint64_t number = Extractor<uint64_t>::get(value);
    if (number > std::numeric_limits<unsigned>::max())
      throw std::runtime_error(expected);
    return static_cast<unsigned>(number);
  }
};

template <> struct Extractor<double> {
  static constexpr const char* expected = "a number";
  static double get(const Value& value) { return value.get_real(); }
};

template <> struct Extractor<Object> {
  static constexpr const char* expected = "an object";
  static Object get(const Value& value) { return value.get_obj(); }
};

template <> struct Extractor<Array> {
  static constexpr const char* expected = "an array";
  static Array get(const Value& value) { return value.get_array(); }
};

template <> struct Extractor<Value> {
  static constexpr const char* expected = "a value";
  static Value get(const Value& value) { return value; }
};

template <class T> T extract(const Value& value, const std::string& key)
{
  try {
    return Extractor<T>::get(value);
  } catch (const std::runtime_error&) {
    throw std::runtime_error("JSON key \"" + key + "\" is not " + Extractor<T>::expected);
  }
}
} // namespace

Json_Limits json_network_limits()
{
  return Json_Limits();
}

Json_Limits json_file_limits()
{
  Json_Limits limits;
  limits.bytes = 64u << 20;
  return limits;
}

bool read_json(const std::string& text, Value& value, std::string& error)
{
  return read_json(text, json_network_limits(), value, error);
}

bool read_json(const std::string& text, const Json_Limits& limits, Value& value, std::string& error)
{
  Value_Builder builder;
  if (!dispatch_json(text, limits, Json_Top::any, builder, error))
    return false;
  value = std::move(builder.root());
  return true;
}

std::string write_json(const Value& value)
{
  return write(value, Json_Form::compact);
}

std::string write_json_pretty(const Value& value)
{
  return write(value, Json_Form::pretty);
}

template <class T> T required(const Object& obj, const std::string& key)
{
  const Value& value = json_spirit::find_value(obj, key);
  if (value.is_null())
    throw std::runtime_error("JSON key \"" + key + "\" is missing");
  return extract<T>(value, key);
}

template <class T> bool optional(const Object& obj, const std::string& key, T& out)
{
  const Value& value = json_spirit::find_value(obj, key);
  if (value.is_null())
    return false;
  out = extract<T>(value, key);
  return true;
}

void set_value(Object& obj, const std::string& name, Value value)
{
  for (Pair& pair : obj) {
    if (pair.name_ == name) {
      pair.value_ = std::move(value);
      return;
    }
  }
  obj.emplace_back(name, std::move(value));
}

#define KESTREL_JSON_EXTRACTORS(T)                                                                           \
  template T required<T>(const Object&, const std::string&);                                                 \
  template bool optional<T>(const Object&, const std::string&, T&);

KESTREL_JSON_EXTRACTORS(std::string)
KESTREL_JSON_EXTRACTORS(bool)
KESTREL_JSON_EXTRACTORS(int)
KESTREL_JSON_EXTRACTORS(unsigned)
KESTREL_JSON_EXTRACTORS(int64_t)
KESTREL_JSON_EXTRACTORS(uint64_t)
KESTREL_JSON_EXTRACTORS(double)
KESTREL_JSON_EXTRACTORS(Object)
KESTREL_JSON_EXTRACTORS(Array)
KESTREL_JSON_EXTRACTORS(Value)
#undef KESTREL_JSON_EXTRACTORS
} // namespace kestrel

namespace json_spirit
{
Array& to_new_array(Value& value)
{
  value = Array();
  return value.get_array();
}

Object& append_new_object(Array& array)
{
  array.emplace_back(Object());
  return array.back().get_obj();
}

Array& operator+=(Array& array, const std::vector<std::string>& texts)
{
  array.insert(array.end(), texts.begin(), texts.end());
  return array;
}
} // namespace json_spirit
