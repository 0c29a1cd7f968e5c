#include "rpc/rest_router.h"

#include "support/log_capture.h"
#include "json/json_util.h"

#include <gtest/gtest.h>

#include <new>
#include <stdexcept>
#include <system_error>

using namespace kestrel;

namespace
{
std::string problem_of(const std::string& target)
{
  REST_Request request;
  std::string problem;
  return parse_rest_target(target, request, problem) ? "" : problem;
}

REST_Request parsed(const std::string& target)
{
  REST_Request request;
  std::string problem;
  EXPECT_TRUE(parse_rest_target(target, request, problem)) << problem;
  return request;
}

std::string code_of(const REST_Reply& reply)
{
  if (reply.json.type() != json_spirit::obj_type)
    return "";
  const auto error = required<json_spirit::Object>(reply.json.get_obj(), "error");
  return required<std::string>(error, "code");
}

std::string message_of(const REST_Reply& reply)
{
  const auto error = required<json_spirit::Object>(reply.json.get_obj(), "error");
  return required<std::string>(error, "message");
}

REST_Caller caller_of(const std::string& role)
{
  REST_Caller caller;
  caller.role = role;
  caller.name = role;
  caller.kind = role.empty() ? REST_Caller::nobody : role == "agent" ? REST_Caller::agent : REST_Caller::user;
  return caller;
}

class Rest_Router : public testing::Test
{
protected:
  Rest_Router()
  {
    router_.set_authenticator([this](const REST_Request&, REST_Caller& caller, std::string& problem) {
      if (!valid_) {
        problem = "the credential is not valid";
        return false;
      }
      caller.kind = caller_.kind;
      caller.name = caller_.name;
      caller.role = caller_.role;
      return true;
    });
    router_.set_auditor([this](const REST_Request& request, int status, const std::string& what) {
      audit_.push_back(request.method + " " + request.path + " " + std::to_string(status) + " " + what);
    });
    router_.set_observer([this](const std::string& method, const std::string& pattern, int status, double) {
      observed_.push_back(method + " " + pattern + " " + std::to_string(status));
    });
  }

  static REST_Router::Handler named(const std::string& name)
  {
    return [name](REST_Request& request) {
      REST_Reply reply;
      reply.content_type = "text/plain";
      reply.raw = name;
      for (const auto& var : request.vars)
        reply.raw += " " + var.first + "=" + var.second;
      reply.audit = "note";
      return reply;
    };
  }

  REST_Reply handle(const std::string& method, const std::string& target, const std::string& body = "",
                    const std::string& type = "application/json")
  {
    REST_Request request;
    request.method = method;
    request.body = body;
    if (!type.empty())
      request.headers["content-type"] = type;
    return router_.handle(request, target);
  }

  REST_Router router_;
  REST_Caller caller_ = caller_of("admin");
  bool valid_ = true;
  std::vector<std::string> audit_, observed_;
};
} // namespace

TEST(Rest_Target, splits_path_and_query)
{
  const REST_Request request = parsed("/k2/r/hosts/DB%20one?limit=3&name=a+b%2Bc&flag&name=last");
  EXPECT_EQ("/k2/r/hosts/DB one", request.path);
  EXPECT_EQ((std::vector<std::string>{"k2", "r", "hosts", "DB one"}), request.parts);
  EXPECT_EQ("3", request.query_text("limit"));
  EXPECT_EQ("last", request.query_text("name"));
  EXPECT_EQ("", request.query_text("flag", "otherwise"));
  EXPECT_EQ("otherwise", request.query_text("none", "otherwise"));
}

TEST(Rest_Target, keeps_an_escaped_slash_inside_its_segment)
{
  EXPECT_EQ((std::vector<std::string>{"a", "b/c"}), parsed("/a/b%2Fc").parts);
  EXPECT_EQ((std::vector<std::string>{"a", "caf\xc3\xa9"}), parsed("/a/caf%C3%A9").parts);
}

TEST(Rest_Target, refuses_what_is_no_path)
{
  for (const char* target : {"", "a", "*", "http://host/a", "?a=1"})
    EXPECT_NE("", problem_of(target)) << target;
  EXPECT_EQ("", problem_of("/"));
}

TEST(Rest_Target, refuses_bad_escapes)
{
  for (const char* target : {"/%", "/%2", "/%zz", "/a%2", "/a?b=%", "/a?%4=b", "/a?b=%g0"})
    EXPECT_NE("", problem_of(target)) << target;
}

TEST(Rest_Target, refuses_control_characters_and_bytes_that_are_no_utf8)
{
  for (const char* target :
       {"/a%00b", "/a%0Ab", "/%7f", "/a?b=%00", "/%ff", "/%c0%af", "/%ed%a0%80", "/a?b=%fe"})
    EXPECT_NE("", problem_of(target)) << target;
  EXPECT_NE("", problem_of(std::string("/a\0b", 4)));
}

TEST(Rest_Target, refuses_empty_and_dot_segments_however_they_are_written)
{
  for (const char* target :
       {"//", "/a//b", "/a/", "/.", "/..", "/a/../b", "/a/./b", "/%2e%2e/b", "/a/.%2E", "/%2e"})
    EXPECT_NE("", problem_of(target)) << target;
  EXPECT_EQ("", problem_of("/a/..b/.c"));
}

TEST(Rest_Target, query_numbers_have_limits)
{
  const REST_Request request = parsed("/a?five=5&minus=-1&text=x&long=99999999999999999999&empty=");
  EXPECT_EQ(5, request.query_number("five", 1, 1, 10));
  EXPECT_EQ(1, request.query_number("none", 1, 1, 10));
  for (const char* name : {"minus", "text", "long", "empty"})
    EXPECT_THROW((void)request.query_number(name, 1, 1, 10), REST_Error) << name;
  EXPECT_THROW((void)request.query_number("five", 1, 6, 10), REST_Error);
}

TEST(Rest_Access, roles_include_the_ones_below_and_agents_are_apart)
{
  struct Row {
    REST_Access least;
    bool nobody, viewer, operator_, admin, agent;
  };
  const Row table[] = {{REST_Access::anyone, true, true, true, true, true},
                       {REST_Access::viewer, false, true, true, true, false},
                       {REST_Access::operator_, false, false, true, true, false},
                       {REST_Access::admin, false, false, false, true, false},
                       {REST_Access::agent, false, false, false, false, true},
                       {REST_Access::agent_or_viewer, false, true, true, true, true},
                       {REST_Access::agent_or_operator, false, false, true, true, true}};
  for (const Row& row : table) {
    const int least = static_cast<int>(row.least);
    EXPECT_EQ(row.nobody, rest_access_allowed(row.least, caller_of(""))) << least;
    EXPECT_EQ(row.viewer, rest_access_allowed(row.least, caller_of("viewer"))) << least;
    EXPECT_EQ(row.operator_, rest_access_allowed(row.least, caller_of("operator"))) << least;
    EXPECT_EQ(row.admin, rest_access_allowed(row.least, caller_of("admin"))) << least;
    EXPECT_EQ(row.agent, rest_access_allowed(row.least, caller_of("agent"))) << least;
  }
  REST_Caller odd = caller_of("admin");
  odd.role = "Admin";
  EXPECT_FALSE(rest_access_allowed(REST_Access::viewer, odd));
}

TEST_F(Rest_Router, finds_the_pattern_with_the_earliest_literal)
{
  router_.add("GET", "/a/{x}/c", REST_Access::viewer, named("one"));
  router_.add("GET", "/a/b/{y}", REST_Access::viewer, named("two"));
  router_.add("GET", "/a/b/c", REST_Access::viewer, named("three"));
  router_.add("GET", "/f/{rest...}", REST_Access::viewer, named("four"));
  router_.add("GET", "/f/{one}", REST_Access::viewer, named("five"));
  EXPECT_EQ("three", handle("GET", "/a/b/c").raw);
  EXPECT_EQ("two y=d", handle("GET", "/a/b/d").raw);
  EXPECT_EQ("one x=z", handle("GET", "/a/z/c").raw);
  EXPECT_EQ("four rest=p/q/r", handle("GET", "/f/p/q/r").raw);
  EXPECT_EQ("five one=p", handle("GET", "/f/p").raw);
  EXPECT_EQ(404, handle("GET", "/f").status);
  EXPECT_EQ(404, handle("GET", "/a/z/d").status);
  EXPECT_EQ("GET  404", observed_.back());
}

TEST_F(Rest_Router, tells_which_methods_there_are)
{
  router_.add("GET", "/a/{x}", REST_Access::anyone, named("one"));
  router_.add("DELETE", "/a/{x}", REST_Access::anyone, named("two"));
  const REST_Reply reply = handle("POST", "/a/1", "{}");
  EXPECT_EQ(405, reply.status);
  EXPECT_EQ("DELETE, GET", reply.headers.at("Allow"));
  EXPECT_EQ(405, handle("get", "/a/1").status);
}

TEST_F(Rest_Router, a_method_is_found_although_another_pattern_is_more_literal)
{
  router_.add("DELETE", "/catalogs/sets/{uuid}", REST_Access::admin, named("set"));
  router_.add("POST", "/catalogs/{catalog}/{view}", REST_Access::admin, named("view"));
  EXPECT_EQ("view catalog=sets view=x", handle("POST", "/catalogs/sets/x", "{}").raw);
}

TEST_F(Rest_Router, checks_the_caller_before_the_body)
{
  router_.add("POST", "/a", REST_Access::operator_, named("one"));
  caller_ = caller_of("");
  REST_Reply reply = handle("POST", "/a", "garbage");
  EXPECT_EQ(401, reply.status);
  EXPECT_EQ("Bearer", reply.headers.at("WWW-Authenticate"));
  EXPECT_TRUE(audit_.empty()) << "a stranger must not fill the audit";
  caller_ = caller_of("viewer");
  EXPECT_EQ(403, handle("POST", "/a", "garbage").status);
  EXPECT_EQ("POST /a 403 ", audit_.back());
  valid_ = false;
  reply = handle("POST", "/a", "{}");
  EXPECT_EQ(401, reply.status);
  EXPECT_EQ("the credential is not valid", message_of(reply));
}

TEST_F(Rest_Router, anyone_may_come_with_an_old_credential_and_counts_as_nobody)
{
  valid_ = false;
  router_.add("POST", "/in", REST_Access::anyone, [](REST_Request& request) {
    REST_Reply reply;
    reply.status = request.caller.kind == REST_Caller::nobody ? 200 : 500;
    return reply;
  });
  EXPECT_EQ(200, handle("POST", "/in").status);
}

TEST_F(Rest_Router, reads_json_and_says_what_is_wrong_with_it)
{
  router_.add("POST", "/a", REST_Access::viewer, [](REST_Request& request) {
    REST_Reply reply;
    reply.json = request.json;
    return reply;
  });
  EXPECT_EQ("{\"b\":[1]}", write_json(handle("POST", "/a", "{\"b\":[1]}").json));
  EXPECT_EQ(200, handle("POST", "/a", "[]", "Application/JSON ; charset=utf-8").status);
  EXPECT_EQ(200, handle("POST", "/a", "[]", "").status);
  EXPECT_TRUE(handle("POST", "/a", "", "text/plain").json.is_null());
  EXPECT_EQ(415, handle("POST", "/a", "[]", "text/plain").status);
  EXPECT_EQ(400, handle("POST", "/a", "{").status);
  EXPECT_EQ(400, handle("POST", "/a", "{} {}").status);
  EXPECT_EQ("bad_json", code_of(handle("POST", "/a", "{\"password\":\"secret-text\"")));
  EXPECT_EQ(std::string::npos,
            message_of(handle("POST", "/a", "{\"password\":\"secret-text\"")).find("secret"));
}

TEST_F(Rest_Router, refuses_deep_json)
{
  router_.add("POST", "/a", REST_Access::viewer, named("one"));
  const auto nested = [](unsigned depth) { return std::string(depth, '[') + std::string(depth, ']'); };
  EXPECT_EQ(200, handle("POST", "/a", nested(64)).status);
  EXPECT_EQ(400, handle("POST", "/a", nested(65)).status);
  EXPECT_EQ(400, handle("POST", "/a", std::string(1 << 20, '[')).status);
}

TEST_F(Rest_Router, raw_bodies_are_left_alone)
{
  REST_Router::Route_Options options;
  options.raw_body = true;
  router_.add(
      "PUT", "/a", REST_Access::viewer,
      [](REST_Request& request) {
        REST_Reply reply;
        reply.raw = request.body;
        return reply;
      },
      options);
  EXPECT_EQ(std::string("{\0\xff", 3),
            handle("PUT", "/a", std::string("{\0\xff", 3), "application/octet-stream").raw);
}

TEST_F(Rest_Router, exceptions_become_replies_without_inner_details)
{
  kestrel_test::Log_Capture log;
  router_.add("POST", "/rest", REST_Access::viewer,
              [](REST_Request&) -> REST_Reply { throw REST_Error(409, "already_there", "it is there"); });
  router_.add("POST", "/accessor", REST_Access::viewer, [](REST_Request& request) {
    REST_Reply reply;
    reply.raw = required<std::string>(request.json.get_obj(), "name");
    return reply;
  });
  router_.add("POST", "/inner", REST_Access::viewer, [](REST_Request&) -> REST_Reply {
    throw std::system_error(ENOENT, std::generic_category(), "/inner/path");
  });
  router_.add("POST", "/memory", REST_Access::viewer,
              [](REST_Request&) -> REST_Reply { throw std::bad_alloc(); });
  router_.add("POST", "/number", REST_Access::viewer, [](REST_Request&) -> REST_Reply { throw 7; });
  EXPECT_EQ("already_there", code_of(handle("POST", "/rest")));
  EXPECT_EQ(400, handle("POST", "/accessor", "{}").status);
  EXPECT_NE(std::string::npos, message_of(handle("POST", "/accessor", "{}")).find("name"));
  EXPECT_EQ(400, handle("POST", "/accessor", "[]").status);
  for (const char* path : {"/inner", "/memory", "/number"}) {
    const REST_Reply reply = handle("POST", path);
    EXPECT_EQ(500, reply.status) << path;
    EXPECT_EQ(std::string::npos, message_of(reply).find("inner/path"));
    EXPECT_EQ(std::string("POST ") + path + " 500 ", audit_.back());
  }
  EXPECT_TRUE(log.expect(LM_ERROR, "/inner/path"));
  EXPECT_TRUE(log.expect(LM_ERROR, "bad_alloc"));
  EXPECT_TRUE(log.expect(LM_ERROR, "unknown exception"));
}

TEST_F(Rest_Router, translates_the_failures_of_the_layers_above)
{
  router_.set_translator([](const std::exception& error, REST_Reply& reply) {
    if (dynamic_cast<const std::out_of_range*>(&error) == nullptr)
      return false;
    reply = rest_error(503, "busy", "later");
    return true;
  });
  router_.add("GET", "/a", REST_Access::viewer,
              [](REST_Request&) -> REST_Reply { throw std::out_of_range("x"); });
  EXPECT_EQ(503, handle("GET", "/a").status);
}

TEST_F(Rest_Router, audits_what_changes_and_nothing_else)
{
  REST_Router::Route_Options query, quiet;
  query.changes = false;
  quiet.quiet_audit = true;
  router_.add("GET", "/a", REST_Access::viewer, named("get"));
  router_.add("POST", "/a", REST_Access::viewer, named("post"));
  router_.add("POST", "/query", REST_Access::viewer, named("query"), query);
  router_.add("POST", "/quiet", REST_Access::operator_, named("quiet"), quiet);
  handle("GET", "/a");
  handle("POST", "/query");
  handle("POST", "/quiet");
  handle("POST", "/none");
  EXPECT_TRUE(audit_.empty());
  handle("POST", "/a");
  caller_ = caller_of("viewer");
  handle("POST", "/quiet");
  EXPECT_EQ((std::vector<std::string>{"POST /a 200 note", "POST /quiet 403 "}), audit_);
}

TEST_F(Rest_Router, of_strangers_only_failed_sign_ins_are_audited)
{
  int status = 401;
  router_.add("POST", "/in", REST_Access::anyone, [&](REST_Request& request) {
    if (status == 201)
      request.caller = caller_of("viewer");
    return rest_error(status, "code", "message");
  });
  caller_ = caller_of("");
  for (const int each : {400, 401, 429, 500, 201}) {
    status = each;
    handle("POST", "/in");
  }
  handle("POST", "/in", "garbage");
  EXPECT_EQ((std::vector<std::string>{"POST /in 401 ", "POST /in 201 "}), audit_);
}

TEST_F(Rest_Router, what_was_done_stays_done_when_the_audit_fails)
{
  kestrel_test::Log_Capture log;
  router_.set_auditor([](const REST_Request&, int, const std::string&) { throw std::bad_alloc(); });
  router_.add("POST", "/a", REST_Access::viewer, named("post"));
  EXPECT_EQ("post", handle("POST", "/a").raw);
  EXPECT_TRUE(log.expect(LM_ERROR, "is missing in the audit"));
}

TEST_F(Rest_Router, check_lets_known_callers_send_large_bodies)
{
  router_.add("POST", "/a", REST_Access::operator_, named("post"));
  router_.add("POST", "/in", REST_Access::anyone, named("in"));
  REST_Request request;
  request.method = "POST";
  EXPECT_EQ(200, router_.check(request, "/a").status);
  EXPECT_EQ(404, router_.check(request, "/b").status);
  EXPECT_EQ(400, router_.check(request, "/%").status);
  caller_ = caller_of("viewer");
  EXPECT_EQ(403, router_.check(request, "/a").status);
  caller_ = caller_of("");
  request = REST_Request();
  request.method = "POST";
  EXPECT_EQ(401, router_.check(request, "/a").status);
  EXPECT_EQ(413, router_.check(request, "/in").status);
  EXPECT_TRUE(audit_.empty());
}
