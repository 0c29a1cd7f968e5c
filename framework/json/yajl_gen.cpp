#include "json/yajl_gen.h"

#include "base/secure_allocator.h"
#include "json/json_util.h"
#include "json/wiping_memory.h"

#include <charconv>
#include <cmath>
#include <new>
#include <yajl/yajl_gen.h>

namespace
{
const unsigned max_value_depth = 64;

const unsigned char* bytes(const std::string& text)
{
  return reinterpret_cast<const unsigned char*>(text.data());
}

void write_value(YAJL_Gen& gen, const json_spirit::Value& value, unsigned depth, int& status);

void write_object(YAJL_Gen& gen, const json_spirit::Object& object, unsigned depth, int& status)
{
  gen.map_open();
  for (const json_spirit::Pair& pair : object) {
    gen.string(pair.name_);
    write_value(gen, pair.value_, depth, status);
  }
  gen.map_close();
}

void write_array(YAJL_Gen& gen, const json_spirit::Array& array, unsigned depth, int& status)
{
  gen.array_open();
  for (const json_spirit::Value& element : array)
    write_value(gen, element, depth, status);
  gen.array_close();
}

// The recursion is bounded here, not by the generator: a document that the reader would refuse is not
// written.
void write_value(YAJL_Gen& gen, const json_spirit::Value& value, unsigned depth, int& status)
{
  switch (value.type()) {
  case json_spirit::obj_type:
  case json_spirit::array_type:
    if (depth == max_value_depth)
      status = yajl_max_depth_exceeded;
    else if (value.type() == json_spirit::obj_type)
      write_object(gen, value.get_obj(), depth + 1, status);
    else
      write_array(gen, value.get_array(), depth + 1, status);
    break;
  case json_spirit::str_type:
    gen.string(value.get_str());
    break;
  case json_spirit::bool_type:
    gen.boolean(value.get_bool());
    break;
  case json_spirit::int_type:
    if (value.is_uint64())
      gen.number(value.get_uint64());
    else
      gen.integer(value.get_int64());
    break;
  case json_spirit::real_type:
    gen.real(value.get_real());
    break;
  case json_spirit::null_type:
    gen.null();
    break;
  }
}
} // namespace

YAJL_Gen::YAJL_Gen(yajl_gen_t* gen) : gen_(gen) {}

YAJL_Gen& YAJL_Gen::keep(int status)
{
  if (status_ == yajl_gen_status_ok)
    status_ = status;
  return *this;
}

YAJL_Gen& YAJL_Gen::map_open()
{
  return ok() ? keep(yajl_gen_map_open(gen_)) : *this;
}

YAJL_Gen& YAJL_Gen::map_close()
{
  return ok() ? keep(yajl_gen_map_close(gen_)) : *this;
}

YAJL_Gen& YAJL_Gen::array_open()
{
  return ok() ? keep(yajl_gen_array_open(gen_)) : *this;
}

YAJL_Gen& YAJL_Gen::array_close()
{
  return ok() ? keep(yajl_gen_array_close(gen_)) : *this;
}

YAJL_Gen& YAJL_Gen::string(const std::string& text)
{
  if (!ok())
    return *this;
  std::string clean = kestrel::utf8_without_invalid(text);
  const kestrel::Wipe_Guard<std::string> wipe_clean(clean);
  return keep(yajl_gen_string(gen_, bytes(clean), clean.size()));
}

YAJL_Gen& YAJL_Gen::integer(int64_t value)
{
  return ok() ? keep(yajl_gen_integer(gen_, value)) : *this;
}

YAJL_Gen& YAJL_Gen::number(uint64_t value)
{
  if (!ok())
    return *this;
  const std::string text = std::to_string(value);
  return keep(yajl_gen_number(gen_, text.data(), text.size()));
}

YAJL_Gen& YAJL_Gen::real(double value)
{
  if (!ok())
    return *this;
  if (!std::isfinite(value))
    return null();
  // yajl_gen_double prints through the process locale, which may have a decimal comma.
  char buffer[40];
  const auto end = std::to_chars(buffer, buffer + sizeof buffer, value).ptr;
  std::string text(buffer, end);
  if (text.find_first_of(".e") == std::string::npos)
    text += ".0";
  return keep(yajl_gen_number(gen_, text.data(), text.size()));
}

YAJL_Gen& YAJL_Gen::boolean(bool value)
{
  return ok() ? keep(yajl_gen_bool(gen_, value)) : *this;
}

YAJL_Gen& YAJL_Gen::null()
{
  return ok() ? keep(yajl_gen_null(gen_)) : *this;
}

YAJL_Gen& YAJL_Gen::value(const json_spirit::Value& value)
{
  int status = yajl_gen_status_ok;
  write_value(*this, value, 0, status);
  return keep(status);
}

namespace kestrel
{
Json_Generator::Json_Generator(Json_Form form) : gen_(yajl_gen_alloc(&json_wiping_memory()))
{
  if (!gen_)
    throw std::bad_alloc();
  if (form == Json_Form::pretty) {
    yajl_gen_config(gen_, yajl_gen_beautify, 1);
    yajl_gen_config(gen_, yajl_gen_indent_string, "  ");
  }
}

Json_Generator::~Json_Generator()
{
  yajl_gen_free(gen_);
}

std::string Json_Generator::text() const
{
  const unsigned char* buffer = nullptr;
  size_t length = 0;
  if (yajl_gen_get_buf(gen_, &buffer, &length) != yajl_gen_status_ok)
    return std::string();
  return std::string(reinterpret_cast<const char*>(buffer), length);
}
} // namespace kestrel
