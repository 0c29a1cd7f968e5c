#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <utility>
#include <variant>
#include <vector>

namespace json_spirit
{
class Value;
struct Pair;
typedef std::vector<Pair>
    Object; ///< keeps insertion order; a name may occur twice, find_value takes the first
typedef std::vector<Value> Array;

/// The numbers differ between releases of libraries with this interface: compare by name only.
enum Value_type { obj_type = 0, array_type, str_type, bool_type, int_type, real_type, null_type = 7 };

/// One JSON value: null, boolean, integer, real, text, array or object.
/// Not for:   numbers beyond 64 bits, comments, or any order of names other than insertion order.
/// Threads:   as a std::string; const access from many threads is safe.
/// Ownership: owns everything below it; moving is cheap and leaves a valid value of the same type.
/// Units:     integers -2^63 to 2^64-1, kept exactly. get_int64 and get_uint64 convert into each other by bit
///            pattern, so a number of 64 bits survives whichever of the two stored it.
/// Errors:    get_* throw std::runtime_error when the value has another type (and get_int when the number
///            does not fit an int); the value is unchanged. Catch at the caller's own edge.
class Value
{
public:
  Value() noexcept;
  Value(std::nullptr_t) noexcept;
  Value(bool value) noexcept;
  Value(int value) noexcept;
  Value(unsigned value) noexcept;
  Value(long value) noexcept;
  Value(unsigned long value) noexcept;
  Value(long long value) noexcept;
  Value(unsigned long long value) noexcept;
  Value(double value) noexcept;
  /// A null pointer gives a null value.
  Value(const char* value);
  Value(std::string value) noexcept;
  Value(Array value) noexcept;
  Value(Object value) noexcept;
  /// Any other pointer would silently become a boolean.
  Value(const void*) = delete;

  Value(const Value& other);
  Value(Value&& other) noexcept;
  Value& operator=(const Value& other);
  Value& operator=(Value&& other) noexcept;
  ~Value();

  Value_type type() const;
  bool is_null() const;
  /// True for an integer above 2^63-1, the only ones that get_int64 shows as negative.
  bool is_uint64() const;

  const Object& get_obj() const;
  Object& get_obj();
  const Array& get_array() const;
  Array& get_array();
  const std::string& get_str() const;
  bool get_bool() const;
  int get_int() const;
  int64_t get_int64() const;
  uint64_t get_uint64() const;
  /// Integers are accepted too, as the nearest real.
  double get_real() const;

  /// Integers are equal when the numbers are: -1 is not 2^64-1. An integer never equals a real.
  bool operator==(const Value& other) const;
  bool operator!=(const Value& other) const { return !(*this == other); }

private:
  // uint64_t holds only what int64_t cannot, so that equal numbers are stored alike.
  std::variant<std::monostate, bool, int64_t, uint64_t, double, std::string, Array, Object> value_;
};

/// A member of an object: a name and its value.
struct Pair {
  Pair() = default;
  Pair(std::string name, Value value) : name_(std::move(name)), value_(std::move(value)) {}
  bool operator==(const Pair& other) const { return name_ == other.name_ && value_ == other.value_; }

  std::string name_;
  Value value_;
};

/// The value of the first member called `name`; a null value when there is none. The reference lives as long
/// as `obj` is unchanged.
const Value& find_value(const Object& obj, const std::string& name);

inline Value::Value() noexcept = default;
inline Value::Value(std::nullptr_t) noexcept {}
inline Value::Value(Value&& other) noexcept = default;
inline Value& Value::operator=(Value&& other) noexcept = default;
inline Value::~Value() = default;
} // namespace json_spirit
