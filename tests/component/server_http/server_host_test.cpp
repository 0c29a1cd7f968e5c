#include "server/server_host.h"

#include "agent/server_key.h"
#include "base/path_conf.h"
#include "raw_client.h"
#include "server/accounts.h"
#include "server/audit.h"
#include "server/secrets.h"
#include "server/server_database.h"
#include "server/server_setup.h"
#include "support/clocks.h"
#include "support/log_capture.h"
#include "support/scoped_env.h"
#include "support/temp_dir.h"
#include "support/waiting.h"
#include "json/json_util.h"

#include <gtest/gtest.h>
#include <openssl/ssl.h>
#include <soci/sqlite3/soci-sqlite3.h>

#include <ctime>
#include <filesystem>
#include <sys/stat.h>
#include <thread>

using namespace kestrel;
using namespace kestrel_test;

namespace
{
const char* const upgrade_headers =
    "Upgrade: websocket\r\nConnection: Upgrade\r\nSec-WebSocket-Version: 13\r\n"
    "Sec-WebSocket-Key: dGhlIHNhbXBsZSBub25jZQ==\r\n"
    "Sec-WebSocket-Protocol: kestrel-rpc\r\n";

/// A server with its own state directory, made as the commands make it: the admin "root" with the password
/// "password-1".
class Server : public testing::Test
{
protected:
  Server() : env_("KESTREL_ROOT", dir_.path())
  {
    set_component_name("server");
    set_password_cost(10);
    Server_Init init;
    init.admin = "root";
    init.password = "password-1";
    std::string error;
    EXPECT_TRUE(init_server(init, error)) << error;
    ca_ = read_file(state_path("tls/ca.crt"));
    EXPECT_TRUE(load_server_config("", config_, error)) << error;
    config_.address = "127.0.0.1";
    config_.port = 0;
  }
  ~Server() override
  {
    host_.stop(0);
    set_password_cost(15);
    set_component_name("agent");
  }

  void start()
  {
    std::string error;
    ASSERT_TRUE(host_.start(config_, error)) << error;
  }
  std::string start_error()
  {
    std::string error;
    Server_Host host;
    return host.start(config_, error) ? "" : error;
  }

  Raw_Client::TLS tls() const
  {
    Raw_Client::TLS tls;
    tls.ca_pem = ca_;
    return tls;
  }
  Raw_Reply ask(const std::string& text)
  {
    Raw_Client client(host_.port(), tls());
    return client.connected() ? client.ask(text) : Raw_Reply();
  }
  std::string sign_in(const std::string& user = "root", const std::string& password = "password-1")
  {
    const Raw_Reply reply = ask(http_request(
        "POST", "/k2/r/sessions", "", "{\"user\":\"" + user + "\",\"password\":\"" + password + "\"}"));
    return reply.status == 201 ? required<std::string>(object(reply), "token") : "";
  }
  static std::string bearer(const std::string& token) { return "Authorization: Bearer " + token + "\r\n"; }
  static json_spirit::Object object(const Raw_Reply& reply)
  {
    json_spirit::Value value;
    std::string error;
    EXPECT_TRUE(read_json(reply.body, value, error)) << reply.body;
    return value.type() == json_spirit::obj_type ? value.get_obj() : json_spirit::Object();
  }
  json_spirit::Array audit(const std::string& token)
  {
    return required<json_spirit::Array>(object(ask(http_request("GET", "/k2/r/audit", bearer(token)))),
                                        "audit");
  }
  std::string key_header(const std::string& name)
  {
    const Accounts::New_Host made = host_.accounts().enroll(name);
    return "X-Access-Key: " + made.uuid + "." + made.access_key + "\r\n";
  }

  Temp_Dir dir_;
  Scoped_Env env_;
  std::string ca_;
  Server_Config config_;
  Server_Host host_;
};
} // namespace

TEST_F(Server, signs_in_over_tls_and_out_again)
{
  start();
  const std::string token = sign_in();
  ASSERT_EQ(64u, token.size());
  const Raw_Reply status = ask(http_request("GET", "/k2/r/status", bearer(token)));
  EXPECT_EQ(200, status.status);
  EXPECT_TRUE(required<bool>(object(status), "catalog_ok"));
  EXPECT_EQ(0, required<int>(object(status), "hosts_online"));
  EXPECT_EQ(200, ask(http_request("GET", "/k2/r/sessions", bearer(token))).status);
  EXPECT_EQ(204, ask(http_request("DELETE", "/k2/r/sessions/current", bearer(token))).status);
  EXPECT_EQ(401, ask(http_request("GET", "/k2/r/status", bearer(token))).status);
  EXPECT_EQ(401, ask(http_request("GET", "/k2/r/status")).status);
  EXPECT_EQ("", sign_in("root", "password-2"));
  EXPECT_EQ("", sign_in("nobody", "password-1"));
}

TEST_F(Server, refuses_bad_sign_ins)
{
  start();
  for (const char* body : {"{}", "[]", "null", "{\"user\":1,\"password\":\"x\"}", "{\"user\":\"root\"}", "{"})
    EXPECT_EQ(400, ask(http_request("POST", "/k2/r/sessions", "", body)).status) << body;
  EXPECT_EQ(413, ask(http_request("POST", "/k2/r/sessions", "", std::string(100000, ' '))).status);
  for (unsigned i = 0; i < Sign_In_Limiter::FREE_PER_NAME; ++i)
    EXPECT_EQ("", sign_in("root", "wrong"));
  const Raw_Reply reply =
      ask(http_request("POST", "/k2/r/sessions", "", "{\"user\":\"root\",\"password\":\"password-1\"}"));
  EXPECT_EQ(429, reply.status);
  EXPECT_EQ(1u, reply.headers.count("retry-after"));
}

TEST_F(Server, a_session_ends_after_twelve_hours)
{
  Fake_Clock clock(::time(nullptr));
  start();
  const std::string token = sign_in();
  clock.advance_msec(12 * 3600 * 1000 - 1000);
  EXPECT_EQ(200, ask(http_request("GET", "/k2/r/status", bearer(token))).status);
  clock.advance_msec(2000);
  EXPECT_EQ(401, ask(http_request("GET", "/k2/r/status", bearer(token))).status);
  host_.stop(0);
}

TEST_F(Server, a_viewer_who_writes_is_refused_and_audited)
{
  start();
  const std::string admin = sign_in();
  EXPECT_EQ(201, ask(http_request("POST", "/k2/r/users", bearer(admin),
                                  "{\"name\":\"vic\",\"role\":\"viewer\",\"password\":\"password-2\"}"))
                     .status);
  const std::string viewer = sign_in("vic", "password-2");
  EXPECT_EQ(200, ask(http_request("GET", "/k2/r/status", bearer(viewer))).status);
  EXPECT_EQ(403, ask(http_request("GET", "/k2/r/users", bearer(viewer))).status);
  EXPECT_EQ(403, ask(http_request("GET", "/k2/r/audit", bearer(viewer))).status);
  EXPECT_EQ(403, ask(http_request("DELETE", "/k2/r/users/root", bearer(viewer))).status);
  const json_spirit::Array entries = audit(admin);
  const json_spirit::Object entry = entries.at(0).get_obj();
  EXPECT_EQ("vic", required<std::string>(entry, "caller"));
  EXPECT_EQ("DELETE", required<std::string>(entry, "method"));
  EXPECT_EQ("/k2/r/users/root", required<std::string>(entry, "path"));
  EXPECT_EQ(403, required<int>(entry, "status"));
  EXPECT_EQ("127.0.0.1", required<std::string>(entry, "address"));
}

TEST_F(Server, the_audit_tells_who_changed_what_without_secrets)
{
  Log_Capture log;
  start();
  const std::string admin = sign_in();
  EXPECT_EQ("", sign_in("root", "wrong-password"));
  ask(http_request("POST", "/k2/r/users", bearer(admin),
                   "{\"name\":\"vic\",\"role\":\"viewer\",\"password\":\"password-2\"}"));
  EXPECT_EQ(204, ask(http_request("DELETE", "/k2/r/users/vic", bearer(admin))).status);
  const std::string key = key_header("db1");
  EXPECT_EQ(200, ask(http_request("GET", "/k2/r/pools", key)).status);
  EXPECT_EQ(403, ask(http_request("DELETE", "/k2/r/users/root", key)).status);
  const std::string text = write_json(audit(admin));
  EXPECT_NE(std::string::npos, text.find("\"signed in\""));
  EXPECT_NE(std::string::npos, text.find("\"sign_in_failed\""));
  EXPECT_NE(std::string::npos, text.find("user vic with the role viewer"));
  EXPECT_NE(std::string::npos, text.find("\"caller\":\"db1\",\"role\":\"agent\""));
  const std::string access_key = key.substr(key.find('.') + 1, 64);
  for (const std::string& secret :
       {std::string("password-"), std::string("wrong-password"), admin, access_key}) {
    EXPECT_EQ(std::string::npos, text.find(secret));
    EXPECT_FALSE(log.contains(secret));
  }
  EXPECT_EQ(200, ask(http_request("GET", "/k2/r/metrics", bearer(admin))).status);
}

TEST_F(Server, counts_requests_by_resource)
{
  start();
  const std::string admin = sign_in();
  ask(http_request("GET", "/k2/r/hosts/one", bearer(admin)));
  ask(http_request("GET", "/k2/r/hosts/two", bearer(admin)));
  ask(http_request("BREW", "/coffee", bearer(admin)));
  const std::string text = ask(http_request("GET", "/k2/r/metrics", bearer(admin))).body;
  EXPECT_NE(std::string::npos,
            text.find("kestrel_requests_total{method=\"GET\",path=\"/k2/r/hosts/{host}\",status=\"404\"} 2"));
  EXPECT_NE(std::string::npos,
            text.find("kestrel_requests_total{method=\"other\",path=\"other\",status=\"404\"} 1"));
  EXPECT_NE(std::string::npos, text.find("kestrel_agents_online 0"));
  EXPECT_EQ(std::string::npos, text.find("BREW"));
}

TEST_F(Server, agents_need_their_key_for_rest_and_for_the_websocket)
{
  start();
  const std::string admin = sign_in(), key = key_header("db1");
  std::string wrong = key;
  wrong[wrong.size() - 3] = wrong[wrong.size() - 3] == '0' ? '1' : '0';
  EXPECT_EQ(200, ask(http_request("GET", "/k2/r/pools", key)).status);
  EXPECT_EQ(401, ask(http_request("GET", "/k2/r/pools", wrong)).status);
  EXPECT_EQ(403, ask(http_request("GET", "/k2/r/users", key)).status);
  EXPECT_EQ(401, ask(http_request("GET", "/k2/w/agent", upgrade_headers)).status);
  EXPECT_EQ(401, ask(http_request("GET", "/k2/w/agent", upgrade_headers + wrong)).status);
  EXPECT_EQ(403, ask(http_request("GET", "/k2/w/agent", upgrade_headers + bearer(admin))).status);
  EXPECT_EQ(404, ask(http_request("GET", "/k2/w/agent", key)).status) << "no WebSocket was asked for";
  Raw_Client agent(host_.port(), tls());
  EXPECT_EQ(101, agent.ask(http_request("GET", "/k2/w/agent", upgrade_headers + key)).status);
  host_.accounts().revoke("db1");
  EXPECT_EQ(401, ask(http_request("GET", "/k2/w/agent", upgrade_headers + key)).status);
}

TEST_F(Server, a_stop_ends_connections_of_agents)
{
  start();
  Raw_Client agent(host_.port(), tls());
  EXPECT_EQ(101, agent.ask(http_request("GET", "/k2/w/agent", upgrade_headers + key_header("db1"))).status);
  const unsigned short port = host_.port();
  std::thread stopper([this] { host_.stop(0); });
  EXPECT_TRUE(agent.skip_bytes()) << "a good-bye";
  agent.close();
  stopper.join();
  EXPECT_FALSE(Raw_Client(port, tls()).connected());
}

TEST_F(Server, speaks_no_old_tls_and_no_plain_http)
{
  start();
  Raw_Client::TLS old = tls();
  old.highest_version = TLS1_1_VERSION;
  EXPECT_FALSE(Raw_Client(host_.port(), old).connected());
  Raw_Client::TLS present = tls();
  present.highest_version = TLS1_2_VERSION;
  EXPECT_TRUE(Raw_Client(host_.port(), present).connected());
  EXPECT_EQ(0, Raw_Client(host_.port()).ask(http_request("GET", "/k2/r/status")).status);
  Raw_Client garbage(host_.port());
  garbage.send(std::string(1000, '\x16'));
  EXPECT_EQ(0, garbage.receive().status);
  EXPECT_NE("", sign_in());
}

TEST_F(Server, clients_see_a_certificate_that_has_expired_or_is_of_another_name)
{
  std::string error;
  TLS_Pair ca{ca_, read_file(state_path("tls/ca.key"))}, expired;
  ASSERT_TRUE(make_server_certificate(ca, {{"localhost"}, {}}, expired, error, ::time(nullptr) - 60))
      << error;
  config_.certificate_file = dir_.write("expired.crt", expired.certificate);
  config_.key_file = dir_.write("expired.key", expired.key, 0600);
  start();
  EXPECT_FALSE(Raw_Client(host_.port(), tls()).connected());
  Raw_Client::TLS unchecked;
  EXPECT_TRUE(Raw_Client(host_.port(), unchecked).connected());

  // A renewed one is taken over without a restart.
  TLS_Pair fresh;
  ASSERT_TRUE(make_server_certificate(ca, {{"localhost"}, {}}, fresh, error)) << error;
  dir_.write("expired.crt", fresh.certificate);
  dir_.write("expired.key", fresh.key, 0600);
  ASSERT_TRUE(host_.reload(error)) << error;
  EXPECT_TRUE(Raw_Client(host_.port(), tls()).connected());
  Raw_Client::TLS other_name = tls();
  other_name.name = "another.example.com";
  EXPECT_FALSE(Raw_Client(host_.port(), other_name).connected());

  // A damaged one is not.
  dir_.write("expired.crt", "garbage");
  EXPECT_FALSE(host_.reload(error));
  EXPECT_TRUE(Raw_Client(host_.port(), tls()).connected());
}

TEST_F(Server, serves_plain_http_on_loopback_when_told_to)
{
  config_.plain = true;
  start();
  EXPECT_EQ(401, Raw_Client(host_.port()).ask(http_request("GET", "/k2/r/status")).status);
  host_.stop(0);
  config_.address = "0.0.0.0";
  EXPECT_NE(std::string::npos, start_error().find("loopback"));
}

TEST_F(Server, two_servers_on_one_state_are_refused)
{
  start();
  EXPECT_NE(std::string::npos, start_error().find("Another backup server is running on this state"));
  EXPECT_NE("", sign_in());
  host_.stop(0);
  start();
}

TEST_F(Server, does_not_start_on_a_damaged_or_foreign_database)
{
  const std::string path = state_path("server.db");
  const std::string good = read_file(path);
  const auto write = [&](const std::string& text) {
    dir_.write(path.substr(dir_.path().size() + 1), text, 0600);
    std::filesystem::remove(path + "-wal");
    std::filesystem::remove(path + "-shm");
  };
  write("");
  EXPECT_NE(std::string::npos, start_error().find("is empty (0 bytes)"));
  write(std::string(good.size(), 'x'));
  EXPECT_NE(std::string::npos, start_error().find("The file is damaged"));
  std::string damaged = good;
  for (size_t i = 100; i < damaged.size(); ++i)
    damaged[i] = 'x';
  write(damaged);
  EXPECT_NE(std::string::npos, start_error().find("Server database"));
  std::filesystem::remove(path);
  EXPECT_NE(std::string::npos, start_error().find("'kestrel server init' makes a new server"));
  write(good);
  start();
}

TEST_F(Server, a_locked_database_is_busy_and_reading_goes_on)
{
  Log_Capture log;
  start();
  const std::string admin = sign_in();
  soci::session other(soci::sqlite3, "db=\"" + state_path("server.db") + "\"");
  other << "BEGIN IMMEDIATE";
  EXPECT_EQ(200, ask(http_request("GET", "/k2/r/status", bearer(admin))).status);
  const Raw_Reply reply = ask(http_request("DELETE", "/k2/r/users/nobody", bearer(admin)));
  EXPECT_EQ(503, reply.status);
  EXPECT_EQ(1u, reply.headers.count("retry-after"));
  EXPECT_TRUE(log.expect(LM_ERROR, "is missing in the audit: Server database"));
  EXPECT_FALSE(log.contains("INSERT"));
  other << "ROLLBACK";
  EXPECT_EQ(404, ask(http_request("DELETE", "/k2/r/users/nobody", bearer(admin))).status);
}

TEST_F(Server, commands_work_while_it_runs)
{
  start();
  const std::string admin = sign_in();
  std::string error, text;
  bool replaced = true;
  ASSERT_TRUE(enroll_host("db1", text, replaced, error)) << error;
  EXPECT_FALSE(replaced);
  Server_Key key;
  ASSERT_TRUE(parse_server_key(text, "db1.json", key, error)) << error;
  EXPECT_EQ("db1", key.name);
  EXPECT_EQ(ca_, key.ca_pem);
  EXPECT_EQ(200, ask(http_request("GET", "/k2/r/pools", "X-Access-Key: " + key.header() + "\r\n")).status);
  ASSERT_TRUE(with_accounts(
      "server user add", "user vic",
      [](Accounts& accounts, Audit&) { accounts.add_user("vic", "viewer", "password-2"); }, error))
      << error;
  EXPECT_NE("", sign_in("vic", "password-2"));
  const std::string trail = write_json(audit(admin));
  EXPECT_NE(std::string::npos, trail.find("\"caller\":\"local:"));
  EXPECT_NE(std::string::npos, trail.find("server enroll"));
  EXPECT_EQ(std::string::npos, trail.find(key.access_key));
  EXPECT_FALSE(with_accounts(
      "x", "", [](Accounts& accounts, Audit&) { accounts.revoke("nobody"); }, error));
  EXPECT_EQ("There is no host 'nobody'", error);
}

TEST_F(Server, a_renewed_certificate_keeps_its_names)
{
  start();
  const std::string before = read_file(state_path("tls/server.crt"));
  std::string error;
  int64_t end = 0;
  ASSERT_TRUE(renew_certificate(end, error)) << error;
  EXPECT_LT(int64_t(::time(nullptr)) + int64_t(824) * 86400, end);
  const std::string after = read_file(state_path("tls/server.crt"));
  EXPECT_NE(before, after);
  TLS_Names old_names, new_names;
  ASSERT_TRUE(certificate_names(before, old_names, error) && certificate_names(after, new_names, error));
  EXPECT_EQ(old_names.names, new_names.names);
  EXPECT_EQ(old_names.addresses, new_names.addresses);
  ASSERT_TRUE(host_.reload(error)) << error;
  EXPECT_NE("", sign_in());
}

TEST_F(Server, is_brought_back_from_a_copy_made_while_it_runs)
{
  start();
  const std::string admin = sign_in();
  EXPECT_EQ(200, ask(http_request("GET", "/k2/r/status", bearer(admin))).status) << "makes the catalog";
  const std::string pool = dir_.make_dir("pool");
  EXPECT_LE(200, ask(http_request("POST", "/k2/r/pools", bearer(admin),
                                  "{\"name\":\"p\",\"path\":\"" + pool + "\"}"))
                     .status);
  const std::string copy = dir_ / "copy";
  std::vector<std::string> notes;
  std::string error;
  ASSERT_TRUE(save_server(copy, notes, error)) << error;
  EXPECT_TRUE(notes.empty());
  EXPECT_FALSE(save_server(copy, notes, error)) << "never over another copy";
  struct stat status;
  ASSERT_EQ(0, ::stat(copy.c_str(), &status));
  EXPECT_EQ(0700u, status.st_mode & 0777);
  for (const char* name :
       {"server.db", "catalog.db", "pools.json", "server.toml", "tls/ca.key", "tls/server.crt", "complete"}) {
    ASSERT_EQ(0, ::stat((copy + "/" + name).c_str(), &status)) << name;
    EXPECT_EQ(0600u, status.st_mode & 0777) << name;
  }
  host_.stop(0);

  const std::string state = state_path("");
  std::filesystem::remove_all(state);
  std::filesystem::copy(copy, state, std::filesystem::copy_options::recursive);
  start();
  EXPECT_EQ(200, ask(http_request("GET", "/k2/r/status", bearer(admin))).status) << "sessions live on";
  const Raw_Reply pools = ask(http_request("GET", "/k2/r/pools", bearer(admin)));
  EXPECT_NE(std::string::npos, pools.body.find("\"name\":\"p\""));
}

TEST_F(Server, init_never_replaces_a_server)
{
  std::string error;
  Server_Init init;
  init.admin = "other";
  init.password = "password-2";
  const std::string before = read_file(state_path("server.toml"));
  EXPECT_FALSE(init_server(init, error));
  EXPECT_NE(std::string::npos, error.find("exists already"));
  std::filesystem::remove(state_path("server.toml"));
  EXPECT_FALSE(init_server(init, error)) << "what a broken attempt left is named";
  EXPECT_NE(std::string::npos, error.find("server.db"));
  struct stat status;
  for (const char* name : {"server.db", "tls/ca.key", "tls/server.key"}) {
    ASSERT_EQ(0, ::stat(state_path(name).c_str(), &status));
    EXPECT_EQ(0600u, status.st_mode & 0777) << name;
  }
}
