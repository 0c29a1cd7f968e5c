#include "base/descriptor.h"
#include "freed_memory.h"
#include "remote/rest_client.h"
#include "rpc/http_server.h"
#include "rpc/rest_router.h"
#include "json/json_util.h"
#include "json/wipe_json.h"

#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <atomic>
#include <cstdio>
#include <cstring>
#include <memory>
#include <netinet/in.h>
#include <sys/socket.h>

using namespace kestrel;
using namespace kestrel_test;

namespace
{
/// Long enough to lie on the heap wherever it is kept.
const char SECRET[] = "a password that nobody may find in memory that was given back";

class REST_Secrets : public testing::Test
{
protected:
  static json_spirit::Value body_with_secret()
  {
    json_spirit::Value body = json_spirit::Object();
    set_value(body.get_obj(), "user", "olga");
    set_value(body.get_obj(), "password", std::string(SECRET));
    return body;
  }

  const Freed_Memory_Watch watch_{SECRET};
};

/// Sends a sign-in to 127.0.0.1 without memory of the heap, and waits for the whole answer.
void send_sign_in(unsigned short port)
{
  static char text[512];
  std::snprintf(text, sizeof text,
                "POST /k2/r/sessions HTTP/1.1\r\nHost: localhost\r\nConnection: close\r\nContent-Type: "
                "application/json\r\nContent-Length: %zu\r\n\r\n{\"user\":\"olga\",\"password\":\"%s\"}",
                sizeof SECRET - 1 + 29, SECRET);
  const int connection = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  ASSERT_LE(0, connection);
  const Auto_Fd closer(connection);
  sockaddr_in address = {};
  address.sin_family = AF_INET;
  address.sin_port = htons(port);
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  ASSERT_EQ(0, ::connect(connection, reinterpret_cast<const sockaddr*>(&address), sizeof address));
  ASSERT_EQ(static_cast<ssize_t>(std::strlen(text)), ::send(connection, text, std::strlen(text), 0));
  char answer[4096];
  ssize_t count = 0, total = 0;
  while ((count = ::recv(connection, answer + total, sizeof answer - 1 - static_cast<size_t>(total), 0)) > 0)
    total += count;
  answer[total] = '\0';
  ASSERT_TRUE(std::strstr(answer, " 204 ")) << answer;
}

/// Answers with what the server was sent.
class Echo : public REST_Transport
{
public:
  bool perform(const REST_Call& call, REST_Answer& answer, REST_Problem&) override
  {
    answer.status = 200;
    answer.body.assign(static_cast<const char*>(call.body), call.body_bytes);
    return true;
  }
};

TEST_F(REST_Secrets, are_in_no_body_and_no_answer_that_a_client_gave_back)
{
  REST_Client_Options options;
  options.url = "https://server:7480";
  REST_Client client(options, std::make_shared<Echo>());
  {
    json_spirit::Value body = body_with_secret();
    const Wipe_JSON_Guard wipe_body(body);
    json_spirit::Value reply;
    const Wipe_JSON_Guard wipe_reply(reply);
    REST_Problem problem;
    ASSERT_TRUE(client.post("/k2/r/sessions", body, reply, problem)) << problem.text;
    ASSERT_EQ(SECRET, reply.get_obj().back().value_.get_str());
  }
  EXPECT_EQ(0u, watch_.found());
}

TEST_F(REST_Secrets, are_in_no_request_that_the_server_has_answered)
{
  REST_Router router;
  std::atomic<bool> seen{false};
  router.add("POST", "/k2/r/sessions", REST_Access::anyone, [&](REST_Request& request) {
    seen = request.json.get_obj().back().value_.get_str() == SECRET;
    REST_Reply reply;
    reply.status = 204;
    return reply;
  });
  HTTP_Server server;
  HTTP_Server_Options options;
  options.address = "127.0.0.1";
  options.port = 0;
  std::string error;
  ASSERT_TRUE(server.start(
      options,
      [&](REST_Request& request, const std::string& target) { return router.handle(request, target); },
      error))
      << error;
  send_sign_in(server.port());
  server.stop(1000);
  EXPECT_TRUE(seen);
  EXPECT_EQ(0u, watch_.found());
}
} // namespace
