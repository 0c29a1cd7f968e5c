#include "json/wipe_json.h"

#include "json/json_util.h"

#include <gtest/gtest.h>

#include <string>

using json_spirit::Array;
using json_spirit::Object;
using json_spirit::Value;

namespace
{
/// The memory of a text, also behind its end.
std::string memory_of(const std::string& text)
{
  return std::string(text.data(), text.capacity());
}

TEST(Wipe_JSON, overwrites_texts_wherever_they_stand)
{
  const std::string longer(100, 'x');
  Object inner{{"password", "short"}, {"key", longer}, {"number", 7}};
  Value document(Object{{"list", Array{"short", Value(inner), nullptr}}, {"name", "short"}});
  const Object& outside = document.get_obj();
  const Array& list = outside[0].value_.get_array();
  const Object& inside = list[1].get_obj();
  kestrel::wipe_json(document);
  for (const Value* value : {&outside[1].value_, &list[0], &inside[0].value_, &inside[1].value_}) {
    EXPECT_EQ("", value->get_str());
    const std::string memory = memory_of(value->get_str());
    EXPECT_EQ(std::string(memory.size(), '\0'), memory);
  }
  EXPECT_EQ(7, inside[2].value_.get_int());
  EXPECT_EQ("password", inside[0].name_);
}

TEST(Wipe_JSON, the_guard_does_it_at_the_end_of_the_scope)
{
  Object document{{"password", "short"}};
  {
    const kestrel::Wipe_JSON_Guard<Object> guard(document);
    EXPECT_EQ("short", document[0].value_.get_str());
  }
  EXPECT_EQ("", document[0].value_.get_str());
}

TEST(Wipe_JSON, documents_that_were_read_are_complete_however_they_grew)
{
  for (const size_t members : {0u, 1u, 3u, 4u, 5u, 8u, 9u, 1000u}) {
    std::string text = "{";
    for (size_t i = 0; i < members; ++i)
      text += (i ? ",\"" : "\"") + std::to_string(i) + "\":[\"a\",\"" + std::string(i % 40, 'b') + "\"," + std::to_string(i) + "]";
    text += "}";
    Value document;
    std::string error;
    ASSERT_TRUE(kestrel::read_json(text, document, error)) << error;
    EXPECT_EQ(text, kestrel::write_json(document));
  }
}
} // namespace
