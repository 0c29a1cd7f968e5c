#include "json/value.h"

#include <limits>
#include <stdexcept>
#include <type_traits>

namespace json_spirit
{
namespace
{
const char* type_name(Value_type type)
{
  switch (type) {
  case obj_type:
    return "an object";
  case array_type:
    return "an array";
  case str_type:
    return "a text";
  case bool_type:
    return "a boolean";
  case int_type:
    return "an integer";
  case real_type:
    return "a real number";
  case null_type:
    return "null";
  }
  return "unknown";
}

// Names the types only: the value itself may be a secret.
[[noreturn]] void refuse(Value_type expected, Value_type found)
{
  throw std::runtime_error(std::string("JSON value is ") + type_name(found) + ", expected " +
                           type_name(expected));
}

template <class T, class Variant> T& get(Variant& value, Value_type expected, Value_type found)
{
  auto* held = std::get_if<std::remove_const_t<T>>(&value);
  if (!held)
    refuse(expected, found);
  return *held;
}

// Cuts a number of any integer type to the narrowest of the two stored types.
template <class Variant, class T> Variant integer(T number)
{
  if constexpr (std::is_unsigned_v<T>) {
    if (number > static_cast<uint64_t>(std::numeric_limits<int64_t>::max()))
      return Variant(std::in_place_type<uint64_t>, number);
  }
  return Variant(std::in_place_type<int64_t>, static_cast<int64_t>(number));
}
} // namespace

Value::Value(bool value) noexcept : value_(std::in_place_type<bool>, value) {}
Value::Value(int value) noexcept : value_(integer<decltype(value_)>(value)) {}
Value::Value(unsigned value) noexcept : value_(integer<decltype(value_)>(value)) {}
Value::Value(long value) noexcept : value_(integer<decltype(value_)>(value)) {}
Value::Value(unsigned long value) noexcept : value_(integer<decltype(value_)>(value)) {}
Value::Value(long long value) noexcept : value_(integer<decltype(value_)>(value)) {}
Value::Value(unsigned long long value) noexcept : value_(integer<decltype(value_)>(value)) {}
Value::Value(double value) noexcept : value_(std::in_place_type<double>, value) {}

Value::Value(const char* value)
{
  if (value)
    value_.emplace<std::string>(value);
}

Value::Value(std::string value) noexcept : value_(std::in_place_type<std::string>, std::move(value)) {}
Value::Value(Array value) noexcept : value_(std::in_place_type<Array>, std::move(value)) {}
Value::Value(Object value) noexcept : value_(std::in_place_type<Object>, std::move(value)) {}

Value::Value(const Value& other) = default;
Value& Value::operator=(const Value& other) = default;

Value_type Value::type() const
{
  static const Value_type types[] = {null_type, bool_type, int_type,   int_type,
                                     real_type, str_type,  array_type, obj_type};
  return types[value_.index()];
}

bool Value::is_null() const
{
  return std::holds_alternative<std::monostate>(value_);
}

bool Value::is_uint64() const
{
  return std::holds_alternative<uint64_t>(value_);
}

const Object& Value::get_obj() const
{
  return get<const Object>(value_, obj_type, type());
}

Object& Value::get_obj()
{
  return get<Object>(value_, obj_type, type());
}

const Array& Value::get_array() const
{
  return get<const Array>(value_, array_type, type());
}

Array& Value::get_array()
{
  return get<Array>(value_, array_type, type());
}

const std::string& Value::get_str() const
{
  return get<const std::string>(value_, str_type, type());
}

bool Value::get_bool() const
{
  return get<const bool>(value_, bool_type, type());
}

int Value::get_int() const
{
  const int64_t number = get_int64();
  if (is_uint64() || number < std::numeric_limits<int>::min() || number > std::numeric_limits<int>::max())
    throw std::runtime_error("JSON integer does not fit an int");
  return static_cast<int>(number);
}

int64_t Value::get_int64() const
{
  if (const uint64_t* number = std::get_if<uint64_t>(&value_))
    return static_cast<int64_t>(*number);
  return get<const int64_t>(value_, int_type, type());
}

uint64_t Value::get_uint64() const
{
  return static_cast<uint64_t>(get_int64());
}

double Value::get_real() const
{
  if (const uint64_t* number = std::get_if<uint64_t>(&value_))
    return static_cast<double>(*number);
  if (const int64_t* number = std::get_if<int64_t>(&value_))
    return static_cast<double>(*number);
  return get<const double>(value_, real_type, type());
}

bool Value::operator==(const Value& other) const
{
  return value_ == other.value_;
}

const Value& find_value(const Object& obj, const std::string& name)
{
  static const Value null;
  for (const Pair& pair : obj) {
    if (pair.name_ == name)
      return pair.value_;
  }
  return null;
}
} // namespace json_spirit
