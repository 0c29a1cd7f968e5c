#include "json/yajl_handler.h"

#include <gtest/gtest.h>

#include <stdexcept>

using kestrel::Json_Limits;
using kestrel::Json_Top;

namespace
{
/// Writes down what it gets; overrides the start of an array or not.
class Recorder : public YAJL_Handler
{
public:
  bool handle_null_i() override { return note("null"); }
  bool handle_boolean_i(bool value) override { return note(value ? "true" : "false"); }
  bool handle_integer_i(long long) override { return note("integer"); }
  bool handle_double_i(double) override { return note("double"); }
  bool handle_number_i(char const* text, unsigned length) override { return note(std::string(text, length)); }
  bool handle_string_i(char const* text, unsigned length) override
  {
    return note("'" + std::string(text, length) + "'");
  }
  bool handle_start_map_i() override { return note("{"); }
  bool handle_map_key_i(char const* text, unsigned length) override
  {
    return note(std::string(text, length) + ":");
  }
  bool handle_end_map_i() override { return note("}"); }
  bool handle_end_array_i() override { return note("]"); }

  std::string events;
  std::string stop_at; ///< the event at which it returns false
  bool throws = false; ///< throws there instead

protected:
  bool note(const std::string& event)
  {
    events += (events.empty() ? "" : " ") + event;
    if (event != stop_at)
      return true;
    if (throws)
      throw std::runtime_error("thrown at " + event);
    return false;
  }
};

class Array_Recorder : public Recorder
{
public:
  bool handle_start_array_i() override { return note("["); }
};

std::string dispatched(Recorder& recorder, const std::string& text)
{
  std::string error;
  EXPECT_TRUE(kestrel::dispatch_json(text, Json_Limits(), Json_Top::any, recorder, error)) << error;
  return recorder.events;
}

std::string events_without_arrays(const std::string& text)
{
  Recorder recorder;
  return dispatched(recorder, text);
}

std::string refusal(Recorder& recorder, const std::string& text, const Json_Limits& limits = Json_Limits(),
                    Json_Top top = Json_Top::any)
{
  std::string error;
  EXPECT_FALSE(kestrel::dispatch_json(text, limits, top, recorder, error)) << text;
  return error;
}
} // namespace

TEST(Yajl_Dispatch, passes_every_event_in_order)
{
  Array_Recorder recorder;
  EXPECT_EQ(dispatched(recorder, R"({"a":[1,{"b":null}],"c":true,"d":"x"})"),
            "{ a: [ 1 { b: null } ] c: true d: 'x' }");
}

TEST(Yajl_Dispatch, passes_each_number_as_its_text)
{
  Array_Recorder recorder;
  EXPECT_EQ(dispatched(recorder, "[18446744073709551615,-1,1.50,1E+2,123456789012345678901234567890]"),
            "[ 18446744073709551615 -1 1.50 1E+2 123456789012345678901234567890 ]");
}

TEST(Yajl_Dispatch, passes_an_embedded_nul_with_its_length)
{
  Array_Recorder recorder;
  EXPECT_EQ(dispatched(recorder, R"(["a\u0000b"])"), std::string("[ 'a\0b' ]", 9));
}

TEST(Yajl_Dispatch, leaves_out_whole_arrays_where_their_start_is_not_handled)
{
  EXPECT_EQ(events_without_arrays(R"({"a":[1,[2,"x"],{"b":[3]},[]],"c":4})"), "{ a: c: 4 }");
  EXPECT_EQ(events_without_arrays(R"({"a":[],"b":[[]],"c":{"d":[5]}})"), "{ a: b: c: { d: } }");
  EXPECT_EQ(events_without_arrays("[1]"), "");
}

TEST(Yajl_Dispatch, counts_levels_inside_a_skipped_array_too)
{
  Recorder recorder;
  Json_Limits limits;
  limits.depth = 3;
  EXPECT_NE(refusal(recorder, R"({"a":[[[1]]]})", limits).find("nested deeper than 3 levels"),
            std::string::npos);
}

TEST(Yajl_Dispatch, the_defaults_ignore_everything)
{
  YAJL_Handler handler;
  std::string error;
  EXPECT_TRUE(kestrel::dispatch_json(R"({"a":[1,true,null,"x",{}]})", Json_Limits(), Json_Top::object,
                                     handler, error));
}

TEST(Yajl_Dispatch, stops_where_a_handler_returns_false)
{
  for (const char* stop : {"{", "a:", "1", "[", "'x'", "true", "null", "]", "}"}) {
    Array_Recorder recorder;
    recorder.stop_at = stop;
    EXPECT_NE(refusal(recorder, R"({"a":1,"b":["x",true,null]})").find("the content is not accepted"),
              std::string::npos);
    EXPECT_EQ(recorder.events.substr(recorder.events.size() - std::string(stop).size()), stop);
  }
}

TEST(Yajl_Dispatch, keeps_an_exception_of_a_handler_in)
{
  for (const char* stop : {"{", "a:", "1", "[", "'x'", "true", "null", "]", "}"}) {
    Array_Recorder recorder;
    recorder.stop_at = stop;
    recorder.throws = true;
    EXPECT_NE(refusal(recorder, R"({"a":1,"b":["x",true,null]})").find(std::string("thrown at ") + stop),
              std::string::npos);
  }
}

TEST(Yajl_Dispatch, insists_on_a_top_level_object_where_asked)
{
  for (const char* text : {"[]", "[{}]", "\"x\"", "1", "true", "null"}) {
    Array_Recorder recorder;
    EXPECT_NE(
        refusal(recorder, text, Json_Limits(), Json_Top::object).find("the top level must be an object"),
        std::string::npos);
    EXPECT_EQ(recorder.events, "");
  }
}

TEST(Yajl_Dispatch, a_value_passes_the_same_events_as_its_text)
{
  Array_Recorder recorder;
  std::string error;
  const json_spirit::Value value = json_spirit::Object{{"a", json_spirit::Array{1, "x"}}, {"m", ~0ull}};
  EXPECT_TRUE(kestrel::dispatch_json(value, Json_Top::object, recorder, error));
  EXPECT_EQ(recorder.events, "{ a: [ 1 'x' ] m: 18446744073709551615 }");
}
