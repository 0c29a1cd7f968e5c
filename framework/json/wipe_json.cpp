#include "json/wipe_json.h"

#include "base/secure_allocator.h"

namespace kestrel
{
void wipe_json(json_spirit::Object& object) noexcept
{
  for (json_spirit::Pair& member : object)
    wipe_json(member.value_);
}

void wipe_json(json_spirit::Value& value) noexcept
{
  switch (value.type()) {
  case json_spirit::str_type:
    // There is no other way to a value's text; the value itself may be changed.
    wipe(const_cast<std::string&>(value.get_str()));
    break;
  case json_spirit::array_type:
    for (json_spirit::Value& element : value.get_array())
      wipe_json(element);
    break;
  case json_spirit::obj_type:
    wipe_json(value.get_obj());
    break;
  default:
    break;
  }
}
} // namespace kestrel
