#include "json/yajl_handler.h"

#include "base/scope_guard.h"
#include "json/wiping_memory.h"

#include <exception>
#include <limits>
#include <yajl/yajl_parse.h>

YAJL_Handler::~YAJL_Handler() = default;
bool YAJL_Handler::handle_null_i()
{
  return true;
}
bool YAJL_Handler::handle_boolean_i(bool)
{
  return true;
}
bool YAJL_Handler::handle_integer_i(long long)
{
  return true;
}
bool YAJL_Handler::handle_double_i(double)
{
  return true;
}
bool YAJL_Handler::handle_number_i(char const*, unsigned)
{
  return true;
}
bool YAJL_Handler::handle_string_i(char const*, unsigned)
{
  return true;
}
bool YAJL_Handler::handle_start_map_i()
{
  return true;
}
bool YAJL_Handler::handle_map_key_i(char const*, unsigned)
{
  return true;
}
bool YAJL_Handler::handle_end_map_i()
{
  return true;
}

bool YAJL_Handler::handle_start_array_i()
{
  skip_array_ = true;
  return true;
}

bool YAJL_Handler::handle_end_array_i()
{
  return true;
}

bool YAJL_Handler::take_skip_array()
{
  const bool skip = skip_array_;
  skip_array_ = false;
  return skip;
}

namespace kestrel
{
namespace
{
/// Stands between the C parser and the handler: counts against the limits, leaves out skipped arrays and
/// keeps every exception away from the parser's frames.
class Dispatcher
{
public:
  Dispatcher(YAJL_Handler& handler, const Json_Limits& limits, Json_Top top)
      : handler_(handler), limits_(limits), top_(top)
  {
  }

  const std::string& reason() const { return reason_; }

  template <class Call> int value(Call call) { return begin_value(false) && (skipping() || ask(call)); }

  template <class Call> int text(size_t length, Call call)
  {
    if (length > std::numeric_limits<unsigned>::max())
      return fail("a text is too long");
    return value([&](YAJL_Handler& handler) { return call(handler, static_cast<unsigned>(length)); });
  }

  int start_map() { return begin_value(true) && open() && (skipping() || ask_start_map()); }

  int map_key(const unsigned char* text, size_t length)
  {
    if (length > std::numeric_limits<unsigned>::max())
      return fail("a name is too long");
    return skipping() || ask([&](YAJL_Handler& handler) {
             return handler.handle_map_key_i(reinterpret_cast<const char*>(text),
                                             static_cast<unsigned>(length));
           });
  }

  int end_map()
  {
    --depth_;
    return skipping() || ask([](YAJL_Handler& handler) { return handler.handle_end_map_i(); });
  }

  int start_array()
  {
    if (!begin_value(false) || !open())
      return 0;
    if (skipping())
      return 1;
    if (!ask([](YAJL_Handler& handler) { return handler.handle_start_array_i(); }))
      return 0;
    if (handler_.take_skip_array())
      skip_depth_ = depth_;
    return 1;
  }

  int end_array()
  {
    const bool skipped = skipping();
    if (skipped && skip_depth_ == depth_)
      skip_depth_ = 0;
    --depth_;
    return skipped || ask([](YAJL_Handler& handler) { return handler.handle_end_array_i(); });
  }

private:
  bool skipping() const { return skip_depth_ != 0; }

  bool ask_start_map()
  {
    return ask([](YAJL_Handler& handler) { return handler.handle_start_map_i(); });
  }

  bool fail(const std::string& reason)
  {
    reason_ = reason;
    return false;
  }

  bool begin_value(bool object)
  {
    if (depth_ == 0 && top_ == Json_Top::object && !object)
      return fail("the top level must be an object");
    if (++values_ > limits_.values)
      return fail("more than " + std::to_string(limits_.values) + " values");
    return true;
  }

  bool open()
  {
    if (++depth_ > limits_.depth)
      return fail("nested deeper than " + std::to_string(limits_.depth) + " levels");
    return true;
  }

  template <class Call> bool ask(Call call)
  {
    try {
      return call(handler_) || fail("the content is not accepted");
    } catch (const std::exception& e) {
      return fail(e.what());
    } catch (...) {
      return fail("unexpected failure");
    }
  }

  YAJL_Handler& handler_;
  const Json_Limits& limits_;
  const Json_Top top_;
  unsigned depth_ = 0;
  unsigned skip_depth_ = 0;
  uint64_t values_ = 0;
  std::string reason_;
};

Dispatcher& to(void* context)
{
  return *static_cast<Dispatcher*>(context);
}

int on_null(void* context)
{
  return to(context).value([](YAJL_Handler& handler) { return handler.handle_null_i(); });
}

int on_boolean(void* context, int value)
{
  return to(context).value([&](YAJL_Handler& handler) { return handler.handle_boolean_i(value != 0); });
}

int on_number(void* context, const char* text, size_t length)
{
  return to(context).text(
      length, [&](YAJL_Handler& handler, unsigned n) { return handler.handle_number_i(text, n); });
}

int on_string(void* context, const unsigned char* text, size_t length)
{
  return to(context).text(length, [&](YAJL_Handler& handler, unsigned n) {
    return handler.handle_string_i(reinterpret_cast<const char*>(text), n);
  });
}

int on_start_map(void* context)
{
  return to(context).start_map();
}

int on_map_key(void* context, const unsigned char* text, size_t length)
{
  return to(context).map_key(text, length);
}

int on_end_map(void* context)
{
  return to(context).end_map();
}

int on_start_array(void* context)
{
  return to(context).start_array();
}

int on_end_array(void* context)
{
  return to(context).end_array();
}

// No integer and no double callback: the parser then gives every number as text, exact at any size.
const yajl_callbacks callbacks = {on_null,    on_boolean,     nullptr,      nullptr,
                                  on_number,  on_string,      on_start_map, on_map_key,
                                  on_end_map, on_start_array, on_end_array};

// Asks for the short form: the long one quotes the document, which may hold passwords.
std::string parser_error(yajl_handle parser)
{
  unsigned char* text = yajl_get_error(parser, 0, nullptr, 0);
  if (!text)
    return "out of memory";
  Scope_Guard free_text([&] { yajl_free_error(parser, text); });
  std::string error(reinterpret_cast<const char*>(text));
  while (!error.empty() && (error.back() == '\n' || error.back() == '.'))
    error.pop_back();
  return error;
}
} // namespace

bool dispatch_json(const std::string& text, const Json_Limits& limits, Json_Top top, YAJL_Handler& handler,
                   std::string& error)
{
  if (text.size() > limits.bytes) {
    error = "JSON document refused: longer than " + std::to_string(limits.bytes) + " bytes";
    return false;
  }
  Dispatcher dispatcher(handler, limits, top);
  // The library asks for functions that may be changed, and does not.
  yajl_alloc_funcs memory = json_wiping_memory();
  yajl_handle parser = yajl_alloc(&callbacks, &memory, &dispatcher);
  if (!parser) {
    error = "JSON document refused: out of memory";
    return false;
  }
  Scope_Guard free_parser([&] { yajl_free(parser); });
  yajl_status status = yajl_parse(parser, reinterpret_cast<const unsigned char*>(text.data()), text.size());
  if (status == yajl_status_ok)
    status = yajl_complete_parse(parser);
  if (status != yajl_status_ok) {
    const std::string& reason = dispatcher.reason();
    error = "JSON document refused near byte " + std::to_string(yajl_get_bytes_consumed(parser)) + ": " +
            (reason.empty() ? parser_error(parser) : reason);
  }
  return status == yajl_status_ok;
}

bool dispatch_json(const json_spirit::Value& value, Json_Top top, YAJL_Handler& handler, std::string& error)
{
  std::string text;
  try {
    text = write_json(value);
  } catch (const std::exception& e) {
    error = e.what();
    return false;
  }
  Json_Limits limits = json_network_limits();
  limits.bytes = text.size();
  return dispatch_json(text, limits, top, handler, error);
}
} // namespace kestrel
