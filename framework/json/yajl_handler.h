#pragma once

#include "json/json_util.h"

#include <ace/Refcounted_Auto_Ptr.h>
#include <ace/Thread_Mutex.h>

#include <memory>
#include <string>

/// Receives the events of one JSON document. A handler returns true to continue, false to stop.
/// Not for: whole values in memory (json_util.h).
/// Threads:   one thread.
/// Ownership: texts are valid during the call only and are not NUL-terminated.
/// Units:     lengths in bytes. The order of the virtual functions is binary interface between module and
///            framework: never insert one.
class YAJL_Handler
{
public:
  virtual ~YAJL_Handler();
  /// The defaults ignore the value. The default of handle_start_array_i makes the dispatcher leave out the
  /// whole array with everything in it, handle_end_array_i included: its members would otherwise arrive as if
  /// they belonged to the key in force.
  virtual bool handle_null_i();
  virtual bool handle_boolean_i(bool value);
  /// Never called by the dispatcher, which passes every number as text through handle_number_i.
  virtual bool handle_integer_i(long long value);
  virtual bool handle_double_i(double value);
  virtual bool handle_number_i(char const* text, unsigned length);
  virtual bool handle_string_i(char const* text, unsigned length);
  virtual bool handle_start_map_i();
  virtual bool handle_map_key_i(char const* text, unsigned length);
  virtual bool handle_end_map_i();
  virtual bool handle_start_array_i();
  virtual bool handle_end_array_i();

  /// True once after the default handle_start_array_i ran; for dispatchers.
  bool take_skip_array();

private:
  bool skip_array_ = false;
};

/// A handler that fills an object of type T. result() is null when there was no memory for it.
/// err_ is 0, or the code of the failure that stopped the parse.
template <class T> class YAJL_Parser : public YAJL_Handler
{
public:
  virtual ACE_Refcounted_Auto_Ptr<T, ACE_Thread_Mutex> result() { return result_; }
  int error() const { return err_; }

protected:
  /// Takes over `object`. Throws std::bad_alloc, with it freed, when there is no memory to count its
  /// references.
  explicit YAJL_Parser(T* object) : YAJL_Parser(std::unique_ptr<T>(object)) {}

  int err_ = 0;
  ACE_Refcounted_Auto_Ptr<T, ACE_Thread_Mutex> result_;

private:
  explicit YAJL_Parser(std::unique_ptr<T> object) : result_(object.get())
  {
    static_cast<void>(object.release());
  }
};

namespace kestrel
{
enum class Json_Top { any, object };

/// Parses `text` and passes its events to `handler`.
/// Errors: false with an error text that never quotes the document: bad JSON, a limit, a top-level value of
///         another kind than `top`, or a handler that returned false or threw (the text then says so; the
///         handler knows why).
[[nodiscard]] bool dispatch_json(const std::string& text, const Json_Limits& limits, Json_Top top,
                                 YAJL_Handler& handler, std::string& error);
/// Passes a value already read to `handler`, through its text.
[[nodiscard]] bool dispatch_json(const json_spirit::Value& value, Json_Top top, YAJL_Handler& handler,
                                 std::string& error);
} // namespace kestrel
