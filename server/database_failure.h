#pragma once

#include <exception>

namespace kestrel
{
class Server_Database;
struct REST_Reply;

/// The reply to a request that the server's database failed: 503 with the time to try again when it is busy,
/// else 500. Clients are not told what the database says, since that may hold the values of the statement;
/// the log is. False when the exception is of another kind. Threads: any. Errors: throws nothing of its own.
[[nodiscard]] bool database_failure_reply(const Server_Database& database, const std::exception& error,
                                          REST_Reply& reply);
} // namespace kestrel
