#include "server/account_resources.h"

#include "base/clock.h"
#include "base/secure_allocator.h"
#include "base/version.h"
#include "json/json_util.h"

namespace kestrel
{
namespace
{
const int64_t LARGEST_AUDIT_PAGE = 1000;

const json_spirit::Object& body_of(const REST_Request& request)
{
  if (request.json.type() != json_spirit::obj_type)
    throw REST_Error(400, "bad_request", "The body must be a JSON object");
  return request.json.get_obj();
}

REST_Reply reply_with(const char* name, json_spirit::Array array)
{
  REST_Reply reply;
  reply.json = json_spirit::Object{{name, std::move(array)}};
  return reply;
}
} // namespace

Account_Resources::Account_Resources(Accounts& accounts, Audit& audit, Server_Metrics& metrics, Status status)
    : accounts_(accounts), audit_(audit), metrics_(metrics), status_(std::move(status))
{
}

void Account_Resources::add_to(REST_Router& router)
{
  const auto with = [this](REST_Reply (Account_Resources::*call)(REST_Request&)) {
    return [this, call](REST_Request& request) { return (this->*call)(request); };
  };
  const auto without = [this](REST_Reply (Account_Resources::*call)()) {
    return [this, call](REST_Request&) { return (this->*call)(); };
  };
  router.add("POST", "/k2/r/sessions", REST_Access::anyone, with(&Account_Resources::sign_in));
  router.add("GET", "/k2/r/sessions", REST_Access::admin, without(&Account_Resources::sessions));
  router.add("DELETE", "/k2/r/sessions/current", REST_Access::viewer, with(&Account_Resources::sign_out));
  router.add("GET", "/k2/r/status", REST_Access::viewer, without(&Account_Resources::status));
  router.add("GET", "/k2/r/users", REST_Access::admin, without(&Account_Resources::users));
  router.add("POST", "/k2/r/users", REST_Access::admin, with(&Account_Resources::add_user));
  router.add("DELETE", "/k2/r/users/{name}", REST_Access::admin, with(&Account_Resources::remove_user));
  router.add("GET", "/k2/r/audit", REST_Access::admin, with(&Account_Resources::audit));
  router.add("GET", "/k2/r/metrics", REST_Access::viewer, without(&Account_Resources::metrics));
}

REST_Reply Account_Resources::sign_in(REST_Request& request)
{
  const json_spirit::Object& body = body_of(request);
  const std::string name = required<std::string>(body, "user");
  std::string password = required<std::string>(body, "password");
  Wipe_Guard<std::string> wiped(password), wiped_body(request.body);
  // The audit names who tried.
  request.caller.name = is_account_name(name) ? name : "";
  try {
    const Accounts::New_Session session = accounts_.sign_in(name, password, request.caller.address);
    request.caller.kind = REST_Caller::user;
    request.caller.role = session.role;
    REST_Reply reply;
    reply.status = 201;
    reply.json = json_spirit::Object{
        {"token", session.token}, {"role", session.role}, {"user", name}, {"expires_at", session.expires_at}};
    reply.audit = "signed in";
    return reply;
  } catch (const REST_Error& error) {
    REST_Reply reply = rest_error(error.status(), error.code(), error.what());
    const int wait = accounts_.wait_seconds(name, request.caller.address);
    if (error.status() == 429)
      reply.headers["Retry-After"] = std::to_string(std::max(wait, 1));
    reply.audit = error.code();
    return reply;
  }
}

REST_Reply Account_Resources::sessions()
{
  json_spirit::Array list;
  for (const Accounts::Session& session : accounts_.sessions())
    list.push_back(json_spirit::Object{{"id", session.id},
                                       {"user", session.user},
                                       {"role", session.role},
                                       {"address", session.address},
                                       {"created_at", session.created_at},
                                       {"expires_at", session.expires_at}});
  return reply_with("sessions", std::move(list));
}

REST_Reply Account_Resources::sign_out(REST_Request& request)
{
  accounts_.sign_out(Accounts::bearer_token(request));
  REST_Reply reply;
  reply.status = 204;
  reply.audit = "signed out";
  return reply;
}

REST_Reply Account_Resources::status()
{
  json_spirit::Object object{{"version", version()}, {"time", static_cast<int64_t>(clock().now())}};
  status_(object);
  REST_Reply reply;
  reply.json = std::move(object);
  return reply;
}

REST_Reply Account_Resources::users()
{
  json_spirit::Array list;
  for (const Accounts::User& user : accounts_.users())
    list.push_back(json_spirit::Object{{"name", user.name},
                                       {"role", user.role},
                                       {"created_at", user.created_at},
                                       {"changed_at", user.changed_at}});
  return reply_with("users", std::move(list));
}

REST_Reply Account_Resources::add_user(REST_Request& request)
{
  const json_spirit::Object& body = body_of(request);
  const std::string name = required<std::string>(body, "name"), role = required<std::string>(body, "role");
  std::string password = required<std::string>(body, "password");
  Wipe_Guard<std::string> wiped(password), wiped_body(request.body);
  accounts_.add_user(name, role, password);
  REST_Reply reply;
  reply.status = 201;
  reply.json = json_spirit::Object{{"name", name}, {"role", role}};
  reply.audit = "user " + name + " with the role " + role;
  return reply;
}

REST_Reply Account_Resources::remove_user(REST_Request& request)
{
  const std::string& name = request.vars.at("name");
  accounts_.remove_user(name);
  REST_Reply reply;
  reply.status = 204;
  reply.audit = "user " + name;
  return reply;
}

REST_Reply Account_Resources::audit(REST_Request& request)
{
  const int64_t limit = request.query_number("limit", 100, 1, LARGEST_AUDIT_PAGE);
  return reply_with("audit", audit_.list(limit, request.query_number("before", 0, 0, INT64_MAX)));
}

REST_Reply Account_Resources::metrics()
{
  REST_Reply reply;
  reply.content_type = "text/plain; version=0.0.4; charset=utf-8";
  reply.raw = metrics_.text();
  return reply;
}
} // namespace kestrel
