#include "support/corpus.h"

#include "server/account_resources.h"
#include "server/secrets.h"
#include "server/server_database.h"
#include "support/temp_dir.h"

#include <ace/Log_Msg.h>

#include <cstdlib>
#include <memory>
#include <string>

using namespace kestrel;

namespace
{
/// The resources of people on a database of their own; every request comes from an admin.
struct Server {
  Server()
  {
    set_password_cost(10);
    Server_Database::Options options;
    options.path = dir / "server.db";
    options.create = true;
    std::string error;
    if (!database.open(options, error))
      ::abort();
    resources.add_to(router);
    router.set_authenticator([](const REST_Request&, REST_Caller& caller, std::string&) {
      caller.kind = REST_Caller::user;
      caller.name = caller.role = "admin";
      return true;
    });
    router.set_auditor([this](const REST_Request& request, int status, const std::string& what) {
      audit.add(request.caller, request.method, request.path, what, status);
    });
    router.set_observer([this](const std::string& method, const std::string& pattern, int status,
                               double seconds) { metrics.request(method, pattern, status, seconds); });
  }

  kestrel_test::Temp_Dir dir;
  Server_Database database;
  Accounts accounts{database};
  Audit audit{database};
  Server_Metrics metrics;
  Account_Resources resources{accounts, audit, metrics, [](json_spirit::Object&) {}};
  REST_Router router;
};

/// The text up to the next line end, which goes.
std::string next_line(std::string& text)
{
  const size_t end = text.find('\n');
  const std::string line = text.substr(0, end);
  text.erase(0, end == std::string::npos ? end : end + 1);
  return line;
}
} // namespace

// The first line is method and target, the rest the body. Whatever it is gets an answer that is no failure of
// the server, with a status that fits it.
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
  static Server server;
  std::string text(reinterpret_cast<const char*>(data), size);
  const std::string line = next_line(text);
  const size_t blank = line.find(' ');
  REST_Request request;
  request.method = line.substr(0, blank);
  request.body = text;
  request.caller.address = "192.0.2.1";
  const REST_Reply reply =
      server.router.handle(request, blank == std::string::npos ? std::string() : line.substr(blank + 1));
  if (reply.status < 200 || reply.status >= 500)
    ::abort();
  if (reply.status >= 400 && reply.json.type() != json_spirit::obj_type)
    ::abort();
  for (const std::string& part : request.parts)
    if (reply.status < 400 &&
        (part.empty() || part == "." || part == ".." || part.find('\0') != std::string::npos))
      ::abort();
  return 0;
}
