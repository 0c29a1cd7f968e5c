#pragma once

#include "json/value.h"

#include <cstdint>
#include <string>

struct yajl_gen_t;

/// Writes JSON events to a generator. A thin view: it owns nothing and can be made again for the same
/// generator.
/// Threads:   one thread per generator.
/// Ownership: the generator is not owned and must outlive the object.
/// Units:     integers as 64 bits, signed and unsigned, exact.
/// Errors:    the first failure sticks: ok() is false from then on and what follows is dropped. It fails when
///            a value stands where a key belongs, when something is closed that is not open, and beyond 128
///            levels.
class YAJL_Gen
{
public:
  explicit YAJL_Gen(yajl_gen_t* gen);

  YAJL_Gen& map_open();
  YAJL_Gen& map_close();
  YAJL_Gen& array_open();
  YAJL_Gen& array_close();
  /// A key or a text value; invalid UTF-8 becomes U+FFFD.
  YAJL_Gen& string(const std::string& text);
  YAJL_Gen& integer(int64_t value);
  /// Any unsigned number; integer() would show one above 2^63-1 as negative.
  YAJL_Gen& number(uint64_t value);
  /// Shortest text that reads back as the same number, whatever the locale; null when not finite.
  YAJL_Gen& real(double value);
  YAJL_Gen& boolean(bool value);
  YAJL_Gen& null();
  YAJL_Gen& value(const json_spirit::Value& value);

  bool ok() const { return status_ == 0; }

private:
  YAJL_Gen& keep(int status);

  yajl_gen_t* gen_;
  int status_ = 0;
};

namespace kestrel
{
enum class Json_Form { compact, pretty };

/// Owns a generator and its output, for those who write a document from objects with a generate operation.
/// Errors: throws std::bad_alloc when there is no memory for the generator.
class Json_Generator
{
public:
  explicit Json_Generator(Json_Form form = Json_Form::compact);
  ~Json_Generator();
  Json_Generator(const Json_Generator&) = delete;
  Json_Generator& operator=(const Json_Generator&) = delete;

  yajl_gen_t* handle() { return gen_; }
  /// What was written so far.
  std::string text() const;

private:
  yajl_gen_t* gen_;
};
} // namespace kestrel
