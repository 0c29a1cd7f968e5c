#include "cli/command_context.h"

namespace kestrel
{
bool Command_Context::resource_of(const std::string& name, std::string& resource_uuid)
{
  Known_Instance instance;
  if (!name.empty() && !find_instance(name, instance))
    return false;
  resource_uuid = instance.uuid;
  return true;
}
} // namespace kestrel
