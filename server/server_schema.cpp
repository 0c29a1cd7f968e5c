#include "server/server_schema.h"

namespace kestrel
{
std::vector<Server_Schema_Part> server_schema()
{
  return {account_schema(), hub_schema()};
}
} // namespace kestrel
