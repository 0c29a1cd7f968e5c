#include "server/server_schema.h"

namespace kestrel
{
Server_Schema_Part hub_schema()
{
  return {"hub", {}};
}
} // namespace kestrel
