#include "instances/instance.h"

namespace kestrel
{
std::string option_text(const Instance& instance, const char* key)
{
  const auto found = instance.options.find(key);
  return found != instance.options.end() && found->second.type() == json_spirit::str_type
             ? found->second.get_str()
             : "";
}
} // namespace kestrel
