#include "server/database_failure.h"

#include "rpc/rest_router.h"
#include "server/server_database.h"

#include <ace/Log_Msg.h>

namespace kestrel
{
bool database_failure_reply(const Server_Database& database, const std::exception& error, REST_Reply& reply)
{
  if (dynamic_cast<const soci::soci_error*>(&error) == nullptr &&
      dynamic_cast<const Server_Database_Error*>(&error) == nullptr)
    return false;
  const Server_Database_Error known = database.translate(error);
  if (known.busy()) {
    ACE_DEBUG((LM_NOTICE, "(%P|%t) Server_Host: %s\n", known.what()));
    reply = rest_error(503, "busy", "The server's database is busy: try again later");
    reply.headers["Retry-After"] = "5";
  } else {
    ACE_ERROR((LM_ERROR, "(%P|%t) Server_Host: %s\n", known.what()));
    reply = rest_error(500, "internal_error", "The server's database failed; the server's log says why");
  }
  return true;
}
} // namespace kestrel
