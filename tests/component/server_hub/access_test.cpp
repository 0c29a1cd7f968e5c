#include "server_fixture.h"

#include <filesystem>

using namespace kestrel_test;

namespace
{
enum Caller { nobody = 0, viewer = 1, operator_ = 2, admin = 4, agent_host = 8 };

struct Resource {
  const char* method;
  const char* path;
  int allowed; ///< of the callers
};

constexpr int USERS = viewer | operator_ | admin;
constexpr int OPERATORS = operator_ | admin;

/// Every resource of the server but the sign-in.
const Resource RESOURCES[] = {
    {"GET", "sessions", admin},
    {"DELETE", "sessions/current", USERS},
    {"GET", "status", USERS},
    {"GET", "users", admin},
    {"POST", "users", admin},
    {"DELETE", "users/x", admin},
    {"GET", "audit", admin},
    {"GET", "metrics", USERS},
    {"POST", "catalogs/oscar/catalogs", USERS | agent_host},
    {"POST", "catalogs", agent_host},
    {"POST", "catalogs/sets/x/state", OPERATORS},
    {"DELETE", "catalogs/sets/x", admin},
    {"GET", "catalogs/sets/x/dependents", USERS | agent_host},
    {"POST", "oscar/cluster", agent_host},
    {"GET", "oscar/cluster", USERS},
    {"GET", "hosts", USERS},
    {"GET", "hosts/x", USERS},
    {"POST", "hosts/x/rpc", USERS},
    {"GET", "jobs", USERS},
    {"POST", "jobs", OPERATORS},
    {"GET", "jobs/x", USERS},
    {"PUT", "jobs/x", OPERATORS},
    {"DELETE", "jobs/x", OPERATORS},
    {"POST", "jobs/x/control", OPERATORS},
    {"GET", "pools", USERS | agent_host},
    {"GET", "pools/x", USERS | agent_host},
    {"GET", "pools/x/count", USERS | agent_host},
    {"POST", "pools", admin},
    {"DELETE", "pools/x", admin},
    {"PUT", "pools/default", admin},
    {"POST", "runs", agent_host},
    {"GET", "runs", USERS},
    {"GET", "jobs/x/runs", USERS},
    {"GET", "runs/x", USERS},
    {"GET", "runs/x/log", USERS},
    {"GET", "storage/x/y", agent_host},
    {"GET", "storage/x/y/z", agent_host},
    {"GET", "storage/x/y/z/bytes", agent_host},
    {"DELETE", "storage/x/y/z", agent_host},
    {"POST", "uploads", agent_host},
    {"GET", "uploads/x", agent_host},
    {"PUT", "uploads/x/bytes", agent_host},
    {"POST", "uploads/x/commit", agent_host},
    {"DELETE", "uploads/x", agent_host},
};

class Served_Access : public Server_Fixture
{
protected:
  std::unique_ptr<kestrel::REST_Client> user(const std::string& role)
  {
    server_->accounts().add_user(role, role, PASSWORD);
    return sign_in(role, PASSWORD);
  }
  /// What this caller must not do is refused, whatever the body.
  void expect_refused(kestrel::REST_Client& client, int caller, int64_t status)
  {
    for (const Resource& resource : RESOURCES) {
      if (resource.allowed & caller)
        continue;
      const std::string body = std::string(resource.method) == "POST" ? "{}" : "";
      EXPECT_EQ(status_of(ask(client, resource.method, std::string("/k2/r/") + resource.path, body)), status)
          << caller << " " << resource.method << " " << resource.path;
    }
  }
  json_spirit::Value upload(Simulated_Agent& agent, const std::string& id, const std::string& pool,
                            const std::string& folder, const std::string& name)
  {
    return ask(agent.rest(), "POST", "/k2/r/uploads",
               R"({"upload":")" + id + R"(","pool":")" + pool + R"(","folder":")" + folder + R"(","name":")" +
                   name + R"(","overwrite":true})");
  }
  std::string add_pool()
  {
    const std::string path = root_ / "pool";
    std::filesystem::create_directory(path);
    const json_spirit::Value made =
        ask("POST", "/k2/r/pools", R"({"name":"main","default":true,"path":")" + path + "\"}");
    EXPECT_EQ(status_of(made), 0) << kestrel::write_json(made);
    return member_text(made.get_obj(), "id");
  }
};
} // namespace

TEST_F(Served_Access, every_resource_refuses_those_whom_it_is_not_for)
{
  add_connected_agents(1);
  expect_refused(*user("viewer"), viewer, 403);
  expect_refused(*user("operator"), operator_, 403);
  expect_refused(console(), admin, 403);
  expect_refused(agent(0).rest(), agent_host, 403);
  kestrel::REST_Client_Options options;
  options.url = url();
  options.ca_pem = ca_pem_;
  kestrel::REST_Client stranger(options);
  expect_refused(stranger, nobody, 401);
}

TEST_F(Served_Access, no_name_leads_out_of_a_pool)
{
  add_connected_agents(1);
  const std::string pool = add_pool();
  kestrel::REST_Client& rest = agent(0).rest();
  const std::string id = "11111111-1111-4111-8111-111111111111";
  for (const char* name : {"..", ".", "", "a/b", "../x", "/etc/passwd", "a\\u0000b"})
    EXPECT_EQ(status_of(upload(agent(0), id, pool, "folder", name)), 400) << name;
  for (const char* folder : {"..", ".", "", "../x", "a/../../x", "/etc", "a\\u0000b"})
    EXPECT_GE(status_of(upload(agent(0), id, pool, folder, "file")), 400) << folder;
  EXPECT_FALSE(std::filesystem::exists(root_ / "x"));
  for (const char* path :
       {"storage/%2E%2E/y/z", "storage/main/%2E%2E/z", "storage/main/y/%2E%2E%2Fz", "storage/main/../z",
        "storage/main/y/..%2f..%2fetc%2fpasswd", "storage/main/%2Fetc/passwd"})
    EXPECT_GE(status_of(ask(rest, "GET", std::string("/k2/r/") + path)), 400) << path;
}

TEST_F(Served_Access, a_host_touches_neither_files_nor_uploads_nor_runs_of_another)
{
  add_connected_agents(2);
  const std::string pool = add_pool();
  const std::string id = "22222222-2222-4222-8222-222222222222";
  ASSERT_EQ(status_of(upload(agent(0), id, pool, "folder", "file")), 0);
  kestrel::REST_Client& other = agent(1).rest();
  EXPECT_EQ(status_of(ask(other, "GET", "/k2/r/uploads/" + id)), 404);
  ask(other, "DELETE", "/k2/r/uploads/" + id); // giving up what one does not have is no failure
  EXPECT_EQ(status_of(ask(other, "POST", "/k2/r/uploads/" + id + "/commit", R"({"size":0,"side_file":""})")),
            404);
  EXPECT_EQ(status_of(ask(other, "DELETE", "/k2/r/storage/" + pool + "/folder/file")), 403);
  EXPECT_EQ(status_of(ask(agent(0).rest(), "GET", "/k2/r/uploads/" + id)), 0) << "it is still there";

  const auto report = [&](Simulated_Agent& agent, const std::string& host, const std::string& state) {
    return kestrel::write_json(ask(agent.rest(), "POST", "/k2/r/runs",
                                   R"({"runs":[{"run_id":"r1","definition_id":"d","state":")" + state +
                                       R"(","queued_at":1700000000,"ended_at":1700000001,"host_uuid":")" +
                                       host + R"("}]})"));
  };
  EXPECT_NE(report(agent(0), agent_uuid(0), "completed").find(R"("stored":["r1"])"), std::string::npos);
  EXPECT_NE(report(agent(1), agent_uuid(0), "error").find("a run of another host"), std::string::npos);
  EXPECT_NE(report(agent(1), agent_uuid(1), "error").find("another host has a run of this id"),
            std::string::npos);
  EXPECT_EQ(member_text(ask("GET", "/k2/r/runs/r1").get_obj(), "state"), "completed");
}

TEST_F(Served_Access, a_record_in_the_name_of_another_host_is_refused_and_audited)
{
  add_agent("db1");
  add_agent("db2");
  const auto commit = [&](size_t sender, size_t named) {
    return status_of(ask(agent(sender).rest(), "POST", "/k2/r/catalogs",
                         R"({"must_be_new":true,"record":{"catalog":"oscar_brcmd","storages":[],"pieces":[],"files":[],)"
                         R"("fields":{"uuid":"set-1","backup_id":"set-1","type":"full","resource_uuid":"r","host_uuid":")" +
                             agent_uuid(named) + R"("}}})"));
  };
  EXPECT_EQ(commit(1, 0), 403);
  const std::string audit = kestrel::write_json(ask("GET", "/k2/r/audit?limit=100"));
  EXPECT_NE(audit.find("backup set set-1 names the host " + agent_uuid(0)), std::string::npos) << audit;
  EXPECT_NE(audit.find(R"("caller":"db2")"), std::string::npos) << audit;
  EXPECT_NE(audit.find(R"("status":403)"), std::string::npos) << audit;
  EXPECT_EQ(commit(0, 0), 0);
}

TEST_F(Served_Access, a_new_enrollment_makes_the_former_key_worthless_and_each_key_is_one_hosts)
{
  const Enrollment former = enroll("db1"), present = enroll("db1"), other = enroll("db2");
  EXPECT_EQ(former.host_uuid, present.host_uuid);
  kestrel::REST_Client_Options options;
  options.url = url();
  options.ca_pem = present.ca_pem;
  const auto status_with = [&](const std::string& credential) {
    options.access_key = credential;
    kestrel::REST_Client client(options);
    return status_of(ask(client, "GET", "/k2/r/pools"));
  };
  EXPECT_EQ(status_with(present.credential()), 0);
  EXPECT_EQ(status_with(former.credential()), 401);
  EXPECT_EQ(status_with(present.host_uuid + "." + other.access_key), 401) << "the key of another host";
  EXPECT_EQ(status_with(present.credential().substr(0, present.credential().size() - 1)), 401);
  EXPECT_EQ(status_with(present.host_uuid + "."), 401);
}

TEST_F(Served_Access, why_nobody_worked_is_shown_from_the_runs_of_all_hosts)
{
  add_connected_agents(2);
  const std::string job = define();
  const auto shown = [&] { return member_text(ask("GET", "/k2/r/jobs/" + job).get_obj(), "nobody_worked"); };
  EXPECT_EQ(shown(), "");
  for (size_t i = 0; i < 2; ++i) {
    std::vector<std::string> stored;
    kestrel::REST_Problem problem;
    ASSERT_TRUE(
        agent(i).report_runs(json(R"([{"run_id":"r)" + std::to_string(i) + R"(","definition_id":")" + job +
                                  R"(","state":"error","queued_at":1700000000,"ended_at":1700000001,)" +
                                  R"("reason":"Failed to get node info of instance DB1"}])")
                                 .get_array(),
                             stored, problem))
        << problem.text;
  }
  EXPECT_EQ(shown(), "no node did the work of nightly when it was started last: "
                     "host db1: error, Failed to get node info of instance DB1; "
                     "host db2: error, Failed to get node info of instance DB1");
  const json_spirit::Value jobs = ask("GET", "/k2/r/jobs");
  ASSERT_EQ(list_of(jobs, "jobs").size(), 1u);
  EXPECT_EQ(member_text(list_of(jobs, "jobs")[0].get_obj(), "nobody_worked"), shown());
  const json_spirit::Value page = ask("GET", "/k2/r/runs?limit=1");
  EXPECT_EQ(member_text(page.get_obj(), "next"), "1700000000,r0");
  const json_spirit::Value rest = ask("GET", "/k2/r/runs?limit=1&before=1700000000,r0");
  ASSERT_EQ(list_of(rest, "runs").size(), 1u);
  EXPECT_EQ(member_text(list_of(rest, "runs")[0].get_obj(), "run_id"), "r1");
  EXPECT_EQ(member_text(rest.get_obj(), "next"), "");
  for (const char* before : {"1700000000", "x,r0", "1700000000,", ",r0", "17 ,r"})
    EXPECT_EQ(
        status_of(ask("GET", std::string("/k2/r/runs?before=") + (before[2] == ' ' ? "17%20,r" : before))),
        400)
        << before;
}
