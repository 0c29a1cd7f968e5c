#include "rpc/rest_router.h"

#include "base/hex.h"
#include "json/json_util.h"

#include <ace/Log_Msg.h>

#include <algorithm>
#include <cctype>
#include <chrono>
#include <set>
#include <typeinfo>

namespace kestrel
{
namespace
{
/// Higher includes lower; 0 for what is no role.
int rank_of(const std::string& role)
{
  if (role == "viewer")
    return 1;
  if (role == "operator")
    return 2;
  return role == "admin" ? 3 : 0;
}

bool has_rank(const REST_Caller& caller, int least)
{
  return caller.kind == REST_Caller::user && rank_of(caller.role) >= least;
}

/// Decodes %XX, and '+' as a blank in a query. False with `problem`.
bool decode(const std::string& text, bool query, std::string& decoded, std::string& problem)
{
  decoded.clear();
  for (size_t i = 0; i < text.size(); ++i) {
    if (text[i] == '%') {
      const int high = i + 2 < text.size() ? hex_digit(text[i + 1]) : -1;
      const int low = i + 2 < text.size() ? hex_digit(text[i + 2]) : -1;
      if (high < 0 || low < 0) {
        problem = "a percent sign is not followed by two hexadecimal digits";
        return false;
      }
      decoded += static_cast<char>(high * 16 + low);
      i += 2;
    } else
      decoded += query && text[i] == '+' ? ' ' : text[i];
  }
  for (const char c : decoded)
    if (static_cast<unsigned char>(c) < 0x20 || c == 0x7f) {
      problem = "it holds a control character";
      return false;
    }
  if (utf8_without_invalid(decoded) != decoded) {
    problem = "it is not UTF-8";
    return false;
  }
  return true;
}

std::vector<std::string> split(const std::string& text, char separator)
{
  std::vector<std::string> parts;
  size_t begin = 0;
  for (;;) {
    const size_t end = text.find(separator, begin);
    parts.push_back(text.substr(begin, end == std::string::npos ? end : end - begin));
    if (end == std::string::npos)
      return parts;
    begin = end + 1;
  }
}

bool parse_path(const std::string& text, REST_Request& request, std::string& problem)
{
  if (text.empty() || text.front() != '/') {
    problem = "it does not begin with '/'";
    return false;
  }
  if (text == "/") {
    request.path = text;
    return true;
  }
  for (const std::string& part : split(text.substr(1), '/')) {
    std::string decoded;
    if (!decode(part, false, decoded, problem))
      return false;
    if (decoded.empty() || decoded == "." || decoded == "..") {
      problem = "a segment is empty, '.' or '..'";
      return false;
    }
    request.path += "/" + decoded;
    request.parts.push_back(decoded);
  }
  return true;
}

bool parse_query(const std::string& text, REST_Request& request, std::string& problem)
{
  for (const std::string& pair : split(text, '&')) {
    if (pair.empty())
      continue;
    const size_t equal = pair.find('=');
    std::string name, value;
    if (!decode(pair.substr(0, equal), true, name, problem) ||
        (equal != std::string::npos && !decode(pair.substr(equal + 1), true, value, problem)))
      return false;
    request.query[name] = value;
  }
  return true;
}

bool is_json_type(std::string type)
{
  type = type.substr(0, type.find(';'));
  while (!type.empty() && type.back() == ' ')
    type.pop_back();
  for (char& c : type)
    c = static_cast<char>(::tolower(static_cast<unsigned char>(c)));
  return type.empty() || type == "application/json";
}

double seconds_since(std::chrono::steady_clock::time_point start)
{
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}
} // namespace

bool rest_access_allowed(REST_Access least, const REST_Caller& caller)
{
  const bool agent = caller.kind == REST_Caller::agent;
  switch (least) {
  case REST_Access::anyone:
    return true;
  case REST_Access::viewer:
    return has_rank(caller, 1);
  case REST_Access::operator_:
    return has_rank(caller, 2);
  case REST_Access::admin:
    return has_rank(caller, 3);
  case REST_Access::agent:
    return agent;
  case REST_Access::agent_or_viewer:
    return agent || has_rank(caller, 1);
  case REST_Access::agent_or_operator:
    return agent || has_rank(caller, 2);
  }
  return false;
}

bool parse_rest_target(const std::string& target, REST_Request& request, std::string& problem)
{
  request.path.clear();
  request.parts.clear();
  request.query.clear();
  const size_t question = target.find('?');
  return parse_path(target.substr(0, question), request, problem) &&
         (question == std::string::npos || parse_query(target.substr(question + 1), request, problem));
}

std::string REST_Request::query_text(const std::string& name, const std::string& otherwise) const
{
  const auto found = query.find(name);
  return found == query.end() ? otherwise : found->second;
}

int64_t REST_Request::query_number(const std::string& name, int64_t otherwise, int64_t least,
                                   int64_t most) const
{
  const auto found = query.find(name);
  if (found == query.end())
    return otherwise;
  const std::string& text = found->second;
  const bool digits = !text.empty() && text.size() <= 18 &&
                      std::all_of(text.begin(), text.end(), [](char c) { return c >= '0' && c <= '9'; });
  const int64_t number = digits ? std::stoll(text) : -1;
  if (!digits || number < least || number > most)
    throw REST_Error(400, "bad_query",
                     "'" + name + "' in the query must be a whole number from " + std::to_string(least) +
                         " to " + std::to_string(most));
  return number;
}

REST_Reply rest_error(int status, const std::string& code, const std::string& message)
{
  REST_Reply reply;
  reply.status = status;
  reply.json = json_spirit::Object{
      {"error", json_spirit::Object{{"code", code}, {"message", utf8_without_invalid(message)}}}};
  return reply;
}

struct REST_Router::State {
  struct Route {
    std::string pattern;
    std::vector<std::string> segments;
    bool takes_rest = false; ///< the last segment is "{name...}"
    std::string method;
    REST_Access least = REST_Access::admin;
    Handler handler;
    Route_Options options;

    bool audited(const REST_Reply& reply) const
    {
      return method != "GET" && options.changes && reply.changed &&
             !(options.quiet_audit && reply.status < 400);
    }
  };

  static bool variable(const std::string& segment) { return segment.front() == '{'; }
  static bool matches(const Route& route, const std::vector<std::string>& parts);
  static bool more_literal(const Route& one, const Route& other);
  static void set_vars(const Route& route, REST_Request& request);
  const Route* find(REST_Request& request, REST_Reply& reply) const;
  bool admit(const Route& route, REST_Request& request, REST_Reply& reply) const;
  static bool read_body(const Route& route, REST_Request& request, REST_Reply& reply);
  REST_Reply failed(const Route* route) const;
  REST_Reply answer(REST_Request& request, const std::string& target, const Route*& route) const;
  void audit(const Route& route, const REST_Request& request, const REST_Reply& reply) const;

  std::vector<Route> routes;
  Authenticator authenticator;
  Auditor auditor;
  Observer observer;
  Translator translator;
};

REST_Router::REST_Router() : state_(new State) {}
REST_Router::~REST_Router() {}

void REST_Router::add(const char* method, const char* pattern, REST_Access least, Handler handler)
{
  add(method, pattern, least, std::move(handler), Route_Options());
}

void REST_Router::add(const char* method, const char* pattern, REST_Access least, Handler handler,
                      Route_Options options)
{
  State::Route route;
  route.pattern = pattern;
  route.segments = split(std::string(pattern).substr(1), '/');
  std::string& last = route.segments.back();
  if (last.size() > 5 && last.compare(last.size() - 4, 4, "...}") == 0) {
    route.takes_rest = true;
    last.erase(last.size() - 4, 3);
  }
  route.method = method;
  route.least = least;
  route.handler = std::move(handler);
  route.options = options;
  state_->routes.push_back(std::move(route));
}

void REST_Router::set_authenticator(Authenticator authenticator)
{
  state_->authenticator = std::move(authenticator);
}

void REST_Router::set_auditor(Auditor auditor)
{
  state_->auditor = std::move(auditor);
}

void REST_Router::set_observer(Observer observer)
{
  state_->observer = std::move(observer);
}

void REST_Router::set_translator(Translator translator)
{
  state_->translator = std::move(translator);
}

bool REST_Router::State::matches(const Route& route, const std::vector<std::string>& parts)
{
  const size_t count = route.segments.size();
  if (route.takes_rest ? parts.size() < count : parts.size() != count)
    return false;
  for (size_t i = 0; i < count; ++i)
    if (!variable(route.segments[i]) && route.segments[i] != parts[i])
      return false;
  return true;
}

bool REST_Router::State::more_literal(const Route& one, const Route& other)
{
  for (size_t i = 0; i < one.segments.size() && i < other.segments.size(); ++i)
    if (variable(one.segments[i]) != variable(other.segments[i]))
      return variable(other.segments[i]);
  return !one.takes_rest && other.takes_rest;
}

void REST_Router::State::set_vars(const Route& route, REST_Request& request)
{
  for (size_t i = 0; i < route.segments.size(); ++i) {
    const std::string& segment = route.segments[i];
    if (!variable(segment))
      continue;
    std::string& value = request.vars[segment.substr(1, segment.size() - 2)];
    value = request.parts[i];
    if (route.takes_rest && i + 1 == route.segments.size())
      for (size_t next = i + 1; next < request.parts.size(); ++next)
        value += "/" + request.parts[next];
  }
}

const REST_Router::State::Route* REST_Router::State::find(REST_Request& request, REST_Reply& reply) const
{
  const Route* best = nullptr;
  std::set<std::string> allowed;
  for (const Route& route : routes) {
    if (!matches(route, request.parts))
      continue;
    allowed.insert(route.method);
    if (route.method == request.method && (best == nullptr || more_literal(route, *best)))
      best = &route;
  }
  if (best != nullptr) {
    set_vars(*best, request);
    return best;
  }
  if (allowed.empty()) {
    reply = rest_error(404, "not_found", "There is no resource of this path");
    return nullptr;
  }
  std::string list;
  for (const std::string& method : allowed)
    list += (list.empty() ? "" : ", ") + method;
  reply = rest_error(405, "method_not_allowed", "This resource knows only " + list);
  reply.headers["Allow"] = list;
  return nullptr;
}

bool REST_Router::State::admit(const Route& route, REST_Request& request, REST_Reply& reply) const
{
  std::string problem;
  if (authenticator && !authenticator(request, request.caller, problem)) {
    // Whoever signs in again may still carry an old token.
    if (route.least == REST_Access::anyone)
      return true;
    reply = rest_error(401, "unauthorized", problem);
    reply.headers["WWW-Authenticate"] = "Bearer";
    return false;
  }
  if (rest_access_allowed(route.least, request.caller))
    return true;
  if (request.caller.kind == REST_Caller::nobody) {
    reply = rest_error(401, "unauthorized", "Sign in first");
    reply.headers["WWW-Authenticate"] = "Bearer";
  } else
    reply =
        rest_error(403, "forbidden",
                   "The role '" + request.caller.role + "' does not allow " + request.method + " of this");
  return false;
}

bool REST_Router::State::read_body(const Route& route, REST_Request& request, REST_Reply& reply)
{
  if (route.options.raw_body || request.body.empty())
    return true;
  const auto type = request.headers.find("content-type");
  if (type != request.headers.end() && !is_json_type(type->second)) {
    reply = rest_error(415, "unsupported_media_type", "The body of this request must be application/json");
    return false;
  }
  std::string error;
  if (read_json(request.body, request.json, error))
    return true;
  reply = rest_error(400, "bad_json", "The body cannot be read: " + error);
  return false;
}

/// Called in a catch block.
REST_Reply REST_Router::State::failed(const Route* route) const
{
  const char* const method = route != nullptr ? route->method.c_str() : "request";
  const char* const pattern = route != nullptr ? route->pattern.c_str() : "";
  try {
    throw;
  } catch (const REST_Error& error) {
    REST_Reply reply = rest_error(error.status(), error.code(), error.what());
    if (error.retry_seconds() > 0)
      reply.headers["Retry-After"] = std::to_string(error.retry_seconds());
    return reply;
  } catch (const std::exception& error) {
    if (typeid(error) == typeid(std::runtime_error))
      return rest_error(400, "bad_request", error.what());
    REST_Reply reply;
    if (translator && translator(error, reply))
      return reply;
    ACE_ERROR((LM_ERROR, "(%P|%t) REST_Router: %s %s failed: %s\n", method, pattern, error.what()));
  } catch (...) {
    ACE_ERROR((LM_ERROR, "(%P|%t) REST_Router: %s %s failed with an unknown exception\n", method, pattern));
  }
  return rest_error(500, "internal_error", "The server failed to do this; its log says why");
}

REST_Reply REST_Router::State::answer(REST_Request& request, const std::string& target,
                                      const Route*& route) const
{
  REST_Reply reply;
  std::string problem;
  if (!parse_rest_target(target, request, problem))
    return rest_error(400, "bad_target", "The path or query of the request is not valid: " + problem);
  route = find(request, reply);
  if (route == nullptr || !admit(*route, request, reply) || !read_body(*route, request, reply))
    return reply;
  return route->handler(request);
}

void REST_Router::State::audit(const Route& route, const REST_Request& request, const REST_Reply& reply) const
{
  // Strangers could fill the disk with what they tried. A failed sign-in is worth a row, and its handler
  // limits how many there are.
  const bool stranger = request.caller.kind == REST_Caller::nobody &&
                        !(route.least == REST_Access::anyone && reply.status == 401);
  if (!auditor || stranger || !route.audited(reply))
    return;
  auditor(request, reply.status, reply.audit);
}

REST_Reply REST_Router::handle(REST_Request& request, const std::string& target) const
{
  const auto start = std::chrono::steady_clock::now();
  const State::Route* route = nullptr;
  REST_Reply reply;
  try {
    reply = state_->answer(request, target, route);
  } catch (...) {
    reply = state_->failed(route);
  }
  try {
    if (route != nullptr)
      state_->audit(*route, request, reply);
    if (state_->observer)
      state_->observer(request.method, route != nullptr ? route->pattern : std::string(), reply.status,
                       seconds_since(start));
  } catch (const std::exception& error) {
    // What was done stays done, so the reply stays too.
    ACE_ERROR((LM_ERROR, "(%P|%t) REST_Router: %s %s by %s, status %d, is missing in the audit: %s\n",
               request.method.c_str(), route != nullptr ? route->pattern.c_str() : "",
               request.caller.name.c_str(), reply.status, error.what()));
  }
  return reply;
}

REST_Reply REST_Router::check(REST_Request& request, const std::string& target) const
{
  const State::Route* route = nullptr;
  try {
    REST_Reply reply;
    std::string problem;
    if (!parse_rest_target(target, request, problem))
      return rest_error(400, "bad_target", "The path or query of the request is not valid: " + problem);
    route = state_->find(request, reply);
    if (route == nullptr || !state_->admit(*route, request, reply))
      return reply;
    // Nobody who is not known sends much.
    if (request.caller.kind == REST_Caller::nobody)
      return rest_error(413, "too_large", "The body of this request is too large");
    return REST_Reply();
  } catch (...) {
    return state_->failed(route);
  }
}
} // namespace kestrel
