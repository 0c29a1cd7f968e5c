#include "served_place.h"

#include "catalog/backup_set.h"
#include "catalog/catalog_admin.h"
#include "catalog/catalog_operator.h"
#include "json/json_util.h"
#include "remote/record_json.h"
#include "remote/remote_catalog.h"
#include "support/clocks.h"
#include "support/fault_vfs.h"
#include "support/log_capture.h"

#include <gtest/gtest.h>

#include <sqlite3.h>

using namespace kestrel;
using namespace kestrel_test;
using json_spirit::Array;
using json_spirit::find_value;
using json_spirit::Value;

namespace
{
Oscar_Brcmd_Backup_Set make_set(const std::string& id, const std::string& type = "full",
                                const std::string& last = "")
{
  Oscar_Brcmd_Backup_Set set;
  set.set_uuid(id);
  set.set_backup_id(id);
  set.set_resource_uuid("resource-1");
  set.set_uri("resource-1");
  set.set_host_uuid("host-1");
  set.set_type(type);
  set.set_backup_lsn(~uint64_t(0));
  set.set_last_backup_id(last);
  set.set_last_full_backup_id(last);
  set.set_backup_file(id + ".bak");
  set.set_start_time(1000);
  set.add_storage(Backup_Set_Storage("pool-1", 77));
  set.add_piece(id + ".bak", 0);
  return set;
}

class Remote_Catalog_Test : public testing::Test
{
protected:
  Remote_Catalog_Test()
  {
    REST_Client_Options options;
    options.url = "https://server:7480";
    client_ = std::make_shared<REST_Client>(options, transport_);
    remote_ = std::make_shared<Remote_Catalog>(client_, false);
    register_catalog_back_end(remote_);
  }
  ~Remote_Catalog_Test() override { register_catalog_back_end(nullptr); }

  Catalog_Status commit(const Oscar_Brcmd_Backup_Set& set, bool must_be_new = true)
  {
    error_.clear();
    warning_.clear();
    return remote_->commit(set.record(), must_be_new, warning_, error_);
  }

  Array rows(const std::map<std::string, Value>& query)
  {
    Value result;
    EXPECT_EQ(Catalog_Status::done, remote_->get_view("oscar_brcmd", "catalogs", query, result, error_)) << error_;
    return result.type() == json_spirit::obj_type ? find_value(result.get_obj(), "rows").get_array() : Array();
  }

  Log_Capture log_;
  Fake_Clock clock_;
  Served_Place place_;
  std::shared_ptr<Direct_Transport> transport_ = std::make_shared<Direct_Transport>(place_, "host-1");
  std::shared_ptr<REST_Client> client_;
  std::shared_ptr<Remote_Catalog> remote_;
  std::string error_;
  std::string warning_;
};

TEST_F(Remote_Catalog_Test, keeps_a_record_with_all_its_values)
{
  ASSERT_EQ(Catalog_Status::done, commit(make_set("a"))) << error_;
  const Array found = rows({{"backup_lsn", ~uint64_t(0)}});
  ASSERT_EQ(1u, found.size());
  EXPECT_EQ(~uint64_t(0), find_value(found[0].get_obj(), "backup_lsn").get_uint64());
  EXPECT_EQ("a.bak", find_value(found[0].get_obj(), "backup_file").get_str());
}

TEST_F(Remote_Catalog_Test, carries_records_unchanged)
{
  Oscar_Backup_Set set;
  set.set_uuid("l");
  set.set_seq(~uint64_t(0));
  set.set_dbinstance("DB\"1");
  set.set_tablespaces({Value("x"), Value(7)});
  set.add_file("D", "S", "T", "path/\xc3\xa4", 5, "sum");
  set.add_storage(Backup_Set_Storage("p", ~uint64_t(0)));
  set.add_piece("f", 9);
  const Backup_Record record = set.record();
  Value carried;
  std::string error;
  ASSERT_TRUE(read_json(write_json(backup_record_json(record)), carried, error)) << error;
  const Backup_Record got = backup_record_from(carried);
  EXPECT_EQ(write_json(backup_record_json(record)), write_json(backup_record_json(got)));
  EXPECT_EQ(record.catalog, got.catalog);
  EXPECT_TRUE(record.fields == got.fields);
  ASSERT_EQ(1u, got.files.size());
  EXPECT_EQ("T", got.files[0].table);
  ASSERT_EQ(1u, got.storages.size());
  EXPECT_EQ(~uint64_t(0), got.storages[0].size);
}

TEST_F(Remote_Catalog_Test, refuses_the_same_set_twice)
{
  ASSERT_EQ(Catalog_Status::done, commit(make_set("a")));
  EXPECT_EQ(Catalog_Status::failed, commit(make_set("a")));
  EXPECT_NE(std::string::npos, error_.find("already has a backup set 'a'")) << error_;
  EXPECT_EQ(Catalog_Status::done, commit(make_set("a"), false));
}

TEST_F(Remote_Catalog_Test, is_busy_while_the_server_is_not_there)
{
  transport_->fail("POST", Direct_Transport::unreachable);
  EXPECT_EQ(Catalog_Status::busy, commit(make_set("a")));
  transport_->fail("POST", Direct_Transport::lost_before);
  EXPECT_EQ(Catalog_Status::busy, commit(make_set("a")));
  for (const int status : {429, 500, 502, 503, 504}) {
    place_.before([status](const REST_Request&, REST_Reply& reply) {
      reply = rest_error(status, "busy", "later");
      return true;
    });
    EXPECT_EQ(Catalog_Status::busy, commit(make_set("a"))) << status;
  }
  place_.before(nullptr);
  EXPECT_EQ(Catalog_Status::done, commit(make_set("a")));
}

TEST_F(Remote_Catalog_Test, fails_at_once_when_the_server_refuses)
{
  for (const int status : {400, 401, 403, 404, 413}) {
    place_.before([status](const REST_Request&, REST_Reply& reply) {
      reply = rest_error(status, "no", "because");
      return true;
    });
    EXPECT_EQ(Catalog_Status::failed, commit(make_set("a"))) << status;
    Value result;
    EXPECT_EQ(Catalog_Status::failed, remote_->get_view("oscar_brcmd", "catalogs", {}, result, error_));
    EXPECT_NE(std::string::npos, error_.find("because")) << error_;
    EXPECT_TRUE(result.is_null());
  }
}

TEST_F(Remote_Catalog_Test, fails_on_answers_that_are_none)
{
  for (const char* body : {"", "null", "[]", "7", "{}", "{\"rows\":7}", "{\"rows\":[7]}", "{\"rows\":[[]]}", "<html>"}) {
    place_.before([body](const REST_Request&, REST_Reply& reply) {
      reply.content_type = "application/json";
      reply.raw = body;
      return true;
    });
    Value result;
    EXPECT_EQ(Catalog_Status::failed, remote_->get_view("oscar_brcmd", "catalogs", {}, result, error_)) << body;
    EXPECT_TRUE(result.is_null());
    uint64_t count = 99;
    EXPECT_EQ(Catalog_Status::failed, remote_->count_by_pool("p", count, error_)) << body;
    EXPECT_EQ(99u, count);
    std::vector<std::string> uuids = {"old"};
    EXPECT_EQ(Catalog_Status::failed, remote_->dependents("u", uuids, error_)) << body;
    EXPECT_EQ(1u, uuids.size());
  }
}

TEST_F(Remote_Catalog_Test, commits_once_when_the_answer_was_lost)
{
  transport_->fail("POST /k2/r/catalogs", Direct_Transport::lost_after);
  EXPECT_EQ(Catalog_Status::busy, commit(make_set("a")));
  EXPECT_EQ(1u, rows({}).size());
  EXPECT_EQ(Catalog_Status::done, commit(make_set("a"))) << error_;
  EXPECT_EQ(1u, rows({}).size());
  // Only the repetition is forgiven.
  EXPECT_EQ(Catalog_Status::failed, commit(make_set("a")));
}

TEST_F(Remote_Catalog_Test, commits_once_when_the_server_was_killed_before_the_answer)
{
  transport_->fail("POST /k2/r/catalogs", Direct_Transport::lost_after, 1, [this] { place_.restart(); });
  transport_->fail("POST /k2/r/catalogs", Direct_Transport::unreachable, 2);
  EXPECT_TRUE(Catalog_Operator(-1, -1).commit(make_set("a"), true));
  EXPECT_EQ(1u, rows({}).size());
}

TEST_F(Remote_Catalog_Test, commits_when_the_server_was_killed_before_the_commit)
{
  transport_->fail("POST /k2/r/catalogs", Direct_Transport::lost_before, 1, [this] { place_.restart(); });
  EXPECT_TRUE(Catalog_Operator(-1, -1).commit(make_set("a"), true));
  EXPECT_EQ(1u, rows({}).size());
}

TEST_F(Remote_Catalog_Test, a_commit_that_the_disk_of_the_server_failed_is_repeated)
{
  log_.allow(LM_ERROR, "Catalog_Resources: Catalog ");
  const struct {
    const char* kind;
    int result;
  } faults[] = {{"write", SQLITE_FULL}, {"write", SQLITE_IOERR_WRITE}, {"sync", SQLITE_IOERR_FSYNC}, {"open", SQLITE_CANTOPEN}};
  ASSERT_EQ(Catalog_Status::done, commit(make_set("first")));
  size_t sets = 1;
  for (const auto& fault : faults)
    for (unsigned number = 1; number < 1000; ++number) {
      const std::string id = "set" + std::to_string(++sets);
      Fault_Vfs files;
      unsigned replies = 0;
      std::string told;
      place_.after([&](const REST_Request& request, REST_Reply& reply) {
        if (request.path != "/k2/r/catalogs" || reply.status == 200)
          return;
        ++replies;
        files.heal();
        told = std::to_string(reply.status) + write_json(reply.json);
        EXPECT_EQ(503, reply.status) << told;
        EXPECT_EQ(1u, reply.headers.count("Retry-After")) << told;
      });
      files.fail(fault.kind, number, fault.result, true);
      EXPECT_TRUE(Catalog_Operator(-1, -1).commit(make_set(id), true)) << id << told;
      const bool met = files.met();
      files.heal();
      place_.after(nullptr);
      ASSERT_EQ(sets, rows({}).size()) << id << told;
      ASSERT_LE(replies, 1u) << told;
      if (!met)
        break;
      ASSERT_LT(number, 999u);
    }
  EXPECT_GT(log_.count("Catalog_Resources: Catalog "), 4u) << "each fault was met once at least";
}

TEST_F(Remote_Catalog_Test, a_server_whose_disk_stays_defective_is_named_as_the_cause)
{
  Pool_Info pool = place_.add_pool("p");
  ASSERT_EQ(Catalog_Status::done, commit(make_set("a")));
  log_.allow(LM_ERROR, "Catalog_Resources: Catalog ");
  Fault_Vfs files;
  files.fail("read", 1, SQLITE_IOERR_READ, true);
  EXPECT_FALSE(Catalog_Operator(-1, 30).commit(make_set("b"), true));
  EXPECT_TRUE(log_.contains("disk I/O error. Check the disk and the system log (tried for 30 s)"));
  log_.expect(LM_ERROR, "Catalog_Operator::commit: the catalog: the backup server https://server:7480 cannot do that now: Catalog ");
  EXPECT_GT(place_.count("POST /k2/r/catalogs 503"), 3u);
  // The same from whoever asks.
  const auto status = [this](const char* method, const std::string& target, const std::string& body) {
    REST_Request request;
    request.method = method;
    request.body = body;
    request.headers["authorization"] = "Bearer admin";
    return place_.handle(request, "/k2/r/" + target).status;
  };
  EXPECT_EQ(503, status("POST", "catalogs/oscar_brcmd/catalogs", "{}"));
  EXPECT_EQ(503, status("GET", "catalogs/sets/a/dependents", ""));
  EXPECT_EQ(503, status("POST", "catalogs/sets/a/state", R"({"state":"available"})"));
  EXPECT_EQ(503, status("DELETE", "catalogs/sets/a", ""));
  EXPECT_EQ(503, status("DELETE", "backups/a", ""));
  EXPECT_EQ(503, status("DELETE", "pools/" + pool.pool_id, ""));
  files.heal();
  EXPECT_EQ(Catalog_Status::done, commit(make_set("b"))) << error_;
}

TEST_F(Remote_Catalog_Test, does_not_take_another_record_for_the_repetition)
{
  Oscar_Brcmd_Backup_Set other = make_set("a");
  other.set_name("other");
  std::string warning, error;
  ASSERT_EQ(Catalog_Status::done, place_.catalog().commit(other.record(), true, warning, error));
  transport_->fail("POST /k2/r/catalogs", Direct_Transport::lost_before);
  EXPECT_EQ(Catalog_Status::busy, commit(make_set("a")));
  EXPECT_EQ(Catalog_Status::failed, commit(make_set("a")));
}

TEST_F(Remote_Catalog_Test, warns_of_a_set_that_cannot_be_restored)
{
  ASSERT_EQ(Catalog_Status::done, commit(make_set("b", "incr", "missing")));
  EXPECT_NE(std::string::npos, warning_.find("cannot be restored"));
}

TEST_F(Remote_Catalog_Test, gives_up_when_the_retry_time_is_over)
{
  transport_->fail("POST", Direct_Transport::unreachable, 1000000);
  EXPECT_FALSE(Catalog_Operator(-1, 30).commit(make_set("a"), true));
  log_.expect(LM_ERROR, "cannot reach the server (tried for 30 s)");
  EXPECT_EQ(30000, clock_.slept_msec());
}

/// Answers views of a catalog with that many rows, at most `most` at a time.
Served_Place::Hook rows_in_parts(uint64_t number, uint64_t most)
{
  return [=](const REST_Request& request, REST_Reply& reply) {
    Value query;
    std::string error;
    EXPECT_TRUE(read_json(request.body, query, error)) << error;
    const uint64_t limit = find_value(query.get_obj(), "limit").get_uint64();
    const uint64_t offset = find_value(query.get_obj(), "offset").get_uint64();
    if (limit > most) {
      reply = rest_error(413, "too_large", "ask for fewer");
      return true;
    }
    Array rows;
    for (uint64_t i = offset; i < std::min(number, offset + limit); ++i)
      rows.push_back(json_spirit::Object{{"uuid", std::to_string(i)}, {"resource_uuid", "r"}});
    reply.json = json_spirit::Object{{"rows", rows}};
    return true;
  };
}

TEST_F(Remote_Catalog_Test, gives_long_views_whole_and_in_order)
{
  for (const uint64_t number : {0, 1, 1999, 2000, 2001, 4321})
    for (const uint64_t most : {7, 500, 2000}) {
      SCOPED_TRACE(std::to_string(number) + " in parts of at most " + std::to_string(most));
      place_.before(rows_in_parts(number, most));
      const Array all = rows({});
      ASSERT_EQ(number, all.size());
      for (uint64_t i = 0; i < number; ++i)
        ASSERT_EQ(std::to_string(i), find_value(all[i].get_obj(), "uuid").get_str());
    }
}

TEST_F(Remote_Catalog_Test, gives_the_part_of_a_long_view_that_was_asked_for)
{
  place_.before(rows_in_parts(10000, 2000));
  const Array some = rows({{"limit", 3000}, {"offset", 5000}});
  ASSERT_EQ(3000u, some.size());
  EXPECT_EQ("5000", find_value(some[0].get_obj(), "uuid").get_str());
  EXPECT_EQ("7999", find_value(some[2999].get_obj(), "uuid").get_str());
}

TEST_F(Remote_Catalog_Test, gives_no_row_twice_when_the_catalog_grows_meanwhile)
{
  uint64_t newest = 3000;
  place_.before([&](const REST_Request& request, REST_Reply& reply) {
    Value query;
    std::string error;
    EXPECT_TRUE(read_json(request.body, query, error));
    const uint64_t limit = find_value(query.get_obj(), "limit").get_uint64();
    const uint64_t offset = find_value(query.get_obj(), "offset").get_uint64();
    Array rows;
    for (uint64_t i = offset; i < std::min(newest, offset + limit); ++i)
      rows.push_back(json_spirit::Object{{"uuid", std::to_string(newest - i)}, {"resource_uuid", "r"}});
    reply.json = json_spirit::Object{{"rows", rows}};
    newest += 5;
    return true;
  });
  EXPECT_EQ(3000u, rows({{"order", "desc"}}).size());
}

TEST_F(Remote_Catalog_Test, refuses_an_answer_that_no_client_could_take)
{
  std::string warning, error;
  for (int i = 0; i < 18; ++i) {
    Oscar_Brcmd_Backup_Set set = make_set("big" + std::to_string(i));
    set.set_name(std::string(1 << 20, 'x'));
    ASSERT_EQ(Catalog_Status::done, place_.catalog().commit(set.record(), true, warning, error)) << error;
  }
  EXPECT_EQ(18u, rows({}).size());
  EXPECT_LT(0u, place_.count("POST /k2/r/catalogs/oscar_brcmd/catalogs 413"));
}

TEST_F(Remote_Catalog_Test, lets_agents_read_and_add_only)
{
  ASSERT_EQ(Catalog_Status::done, commit(make_set("a")));
  EXPECT_EQ(Catalog_Status::failed, remote_->remove("a", error_));
  EXPECT_EQ(Catalog_Status::failed, remote_->set_state("a", Set_State::unavailable, "x", error_));
  std::vector<std::string> uuids;
  EXPECT_EQ(Catalog_Status::done, remote_->dependents("a", uuids, error_)) << error_;
  uint64_t count = 0;
  EXPECT_EQ(Catalog_Status::done, remote_->count_by_pool("pool-1", count, error_)) << error_;
  EXPECT_EQ(1u, count);
}

TEST_F(Remote_Catalog_Test, changes_nothing_when_it_may_only_read)
{
  Remote_Catalog reader(client_, true);
  EXPECT_EQ(Catalog_Status::failed, reader.commit(make_set("a").record(), true, warning_, error_));
  EXPECT_NE(std::string::npos, error_.find("can only be read"));
  EXPECT_EQ(Catalog_Status::failed, reader.remove("a", error_));
  EXPECT_EQ(Catalog_Status::failed, reader.set_state("a", Set_State::available, "", error_));
  EXPECT_EQ(0u, transport_->requests());
}

class Catalog_Roles : public testing::Test
{
protected:
  int status(const std::string& method, const std::string& path, const std::string& body = "",
             const std::string& token = "admin")
  {
    REST_Request request;
    request.method = method;
    request.body = body;
    if (token == "agent")
      request.headers["x-access-key"] = "host-1.key";
    else if (!token.empty())
      request.headers["authorization"] = "Bearer " + token;
    reply_ = place_.handle(request, "/k2/r/" + path);
    return reply_.status;
  }

  void add(const Oscar_Brcmd_Backup_Set& set)
  {
    std::string warning, error;
    ASSERT_EQ(Catalog_Status::done, place_.catalog().commit(set.record(), true, warning, error)) << error;
  }

  Served_Place place_;
  REST_Reply reply_;
};

TEST_F(Catalog_Roles, are_held)
{
  add(make_set("a"));
  const std::string record = write_json(
      json_spirit::Object{{"record", backup_record_json(make_set("b").record())}, {"must_be_new", true}});
  const std::string state = R"({"state":"unavailable","reason":"gone"})";
  for (const char* user : {"", "viewer", "operator", "admin"})
    EXPECT_LE(401, status("POST", "catalogs", record, user)) << user;
  EXPECT_EQ(401, status("POST", "catalogs/oscar_brcmd/catalogs", "{}", ""));
  EXPECT_EQ(200, status("POST", "catalogs/oscar_brcmd/catalogs", "{}", "viewer"));
  EXPECT_EQ(403, status("POST", "catalogs/sets/a/state", state, "viewer"));
  EXPECT_EQ(403, status("POST", "catalogs/sets/a/state", state, "agent"));
  EXPECT_EQ(200, status("POST", "catalogs/sets/a/state", state, "operator"));
  EXPECT_EQ(200, status("GET", "catalogs/sets/a/dependents", "", "viewer"));
  EXPECT_EQ(403, status("DELETE", "catalogs/sets/a", "", "operator"));
  EXPECT_EQ(403, status("DELETE", "catalogs/sets/a", "", "agent"));
  EXPECT_EQ(200, status("DELETE", "catalogs/sets/a", "", "admin"));
  EXPECT_EQ(404, status("DELETE", "catalogs/sets/a", "", "admin"));
}

TEST_F(Catalog_Roles, a_host_records_in_its_own_name_only)
{
  const auto commit = [this](const Oscar_Brcmd_Backup_Set& set, bool must_be_new, bool repeated = false) {
    return status("POST", "catalogs",
                  write_json(json_spirit::Object{{"record", backup_record_json(set.record())},
                                                 {"must_be_new", must_be_new},
                                                 {"repeated", repeated}}),
                  "agent");
  };
  const auto host_of = [this](const std::string& uuid) {
    EXPECT_EQ(200, status("POST", "catalogs/oscar_brcmd/catalogs", R"({"uuid":")" + uuid + "\"}"));
    const size_t at = reply_.raw.find(R"("host_uuid":")");
    return at == std::string::npos ? std::string() : reply_.raw.substr(at + 13, 6);
  };
  Oscar_Brcmd_Backup_Set others = make_set("a");
  others.set_host_uuid("host-2");
  for (const bool must_be_new : {true, false})
    for (const bool repeated : {true, false}) {
      EXPECT_EQ(403, commit(others, must_be_new, repeated));
      const std::string text = write_json(reply_.json);
      EXPECT_NE(std::string::npos, text.find("backup set a names the host host-2")) << text;
      EXPECT_NE(std::string::npos, reply_.audit.find("backup set a names the host host-2")) << reply_.audit;
      EXPECT_EQ("", host_of("a"));
    }
  // Another host's record is neither replaced nor taken for a repetition.
  add(others);
  Oscar_Brcmd_Backup_Set mine = make_set("a");
  mine.set_backup_file("mine.bak");
  EXPECT_EQ(422, commit(mine, true));
  EXPECT_EQ(422, commit(mine, true, true));
  EXPECT_EQ(403, commit(others, false, true));
  EXPECT_EQ(200, commit(mine, false));
  EXPECT_EQ("host-2", host_of("a"));
  EXPECT_EQ(std::string::npos, reply_.raw.find("mine.bak")) << reply_.raw;
  // The nodes of a cluster go on with each other's chains.
  EXPECT_EQ(200, commit(make_set("b", "incr", "a"), true)) << write_json(reply_.json);
  EXPECT_EQ("host-1", host_of("b"));
  Oscar_Brcmd_Backup_Set of_nobody = make_set("c");
  of_nobody.set_host_uuid("");
  EXPECT_EQ(200, commit(of_nobody, true)) << write_json(reply_.json);
  EXPECT_EQ("host-1", host_of("c"));
  EXPECT_EQ(200, commit(of_nobody, true, true)) << "the repetition is the same set";
}

TEST_F(Catalog_Roles, bad_requests_are_refused_with_their_reason)
{
  EXPECT_EQ(404, status("POST", "catalogs/sets/none/state", R"({"state":"available"})"));
  EXPECT_EQ(404, status("GET", "catalogs/sets/none/dependents"));
  EXPECT_EQ(422, status("POST", "catalogs/nonsense/catalogs", "{}"));
  EXPECT_EQ(422, status("POST", "catalogs/oscar/nonsense", "{}"));
  EXPECT_EQ(422, status("POST", "catalogs/oscar/catalogs", R"({"misspelt":1})"));
  EXPECT_EQ(400, status("POST", "catalogs/oscar/catalogs", "[]"));
  EXPECT_EQ(400, status("POST", "catalogs/sets/a/state", "{}"));
  EXPECT_EQ(400, status("POST", "catalogs/sets/a/state", R"({"state":"broken"})"));
  for (const char* body : {"", "{}", "[]", "7", R"({"record":7,"must_be_new":true})", R"({"record":{},"must_be_new":true})",
                           R"({"record":{"catalog":"oscar","fields":[],"storages":[],"pieces":[],"files":[]},"must_be_new":true})"})
    EXPECT_EQ(400, status("POST", "catalogs", body, "agent")) << body;
  EXPECT_EQ(422, status("POST", "catalogs",
                        R"({"record":{"catalog":"oscar","fields":{},"storages":[],"pieces":[],"files":[]},"must_be_new":true})",
                        "agent"));
}

TEST_F(Catalog_Roles, an_admin_changes_what_a_remote_catalog_asks_for)
{
  add(make_set("a"));
  add(make_set("b", "incr", "a"));
  ASSERT_EQ(200, status("GET", "catalogs/sets/a/dependents"));
  EXPECT_EQ(R"({"uuids":["b"]})", write_json(reply_.json));
  ASSERT_EQ(200, status("POST", "catalogs/sets/a/state", R"({"state":"unavailable","reason":"gone"})"));
  ASSERT_EQ(200, status("POST", "catalogs/oscar_brcmd/catalogs", R"({"uuid":"a"})"));
  EXPECT_NE(std::string::npos, reply_.raw.find(R"("state_reason":"gone")"));
}

class Pool_Roles : public Catalog_Roles
{
};

TEST_F(Pool_Roles, are_held)
{
  place_.add_pool("p");
  const std::string body = "{\"name\":\"q\",\"path\":\"" + place_.dir.make_dir("q") + "\"}";
  EXPECT_EQ(401, status("GET", "pools", "", ""));
  for (const char* reader : {"agent", "viewer"}) {
    EXPECT_EQ(200, status("GET", "pools", "", reader));
    EXPECT_EQ(200, status("GET", "pools/p", "", reader));
    EXPECT_EQ(200, status("GET", "pools/p/count", "", reader));
    EXPECT_EQ(403, status("POST", "pools", body, reader));
    EXPECT_EQ(403, status("DELETE", "pools/p", "", reader));
    EXPECT_EQ(403, status("PUT", "pools/default", "{\"pool\":\"p\"}", reader));
  }
  EXPECT_EQ(403, status("POST", "pools", body, "operator"));
  EXPECT_EQ(200, status("POST", "pools", body, "admin"));
}

TEST_F(Pool_Roles, a_pool_is_added_shown_chosen_and_removed)
{
  const std::string path = place_.dir.make_dir("a");
  ASSERT_EQ(200, status("POST", "pools", "{\"name\":\"a\",\"path\":\"" + path + "\"}"));
  const std::string id = find_value(reply_.json.get_obj(), "id").get_str();
  EXPECT_EQ(path, find_value(reply_.json.get_obj(), "path").get_str());
  EXPECT_TRUE(find_value(reply_.json.get_obj(), "default").get_bool());
  EXPECT_LT(0u, find_value(reply_.json.get_obj(), "total_bytes").get_uint64());
  place_.add_pool("b");
  ASSERT_EQ(200, status("PUT", "pools/default", R"({"pool":"b"})"));
  ASSERT_EQ(200, status("GET", "pools/" + id));
  EXPECT_FALSE(find_value(reply_.json.get_obj(), "default").get_bool());
  ASSERT_EQ(200, status("GET", "pools"));
  EXPECT_EQ(2u, find_value(reply_.json.get_obj(), "pools").get_array().size());
  EXPECT_EQ(200, status("DELETE", "pools/a"));
  EXPECT_EQ(404, status("GET", "pools/a"));
}

TEST_F(Pool_Roles, a_pool_with_backups_stays)
{
  const Pool_Info pool = place_.add_pool("p");
  Oscar_Brcmd_Backup_Set set = make_set("a");
  set.add_storage(Backup_Set_Storage(pool.pool_id, 1));
  add(set);
  EXPECT_EQ(409, status("DELETE", "pools/p"));
  ASSERT_EQ(200, status("GET", "pools/p/count"));
  EXPECT_EQ(R"({"count":1})", write_json(reply_.json));
}

TEST_F(Pool_Roles, bad_pools_are_refused)
{
  for (const char* body : {"{}", "[]", R"({"name":"x"})", R"({"name":"x","path":"relative"})",
                           R"({"name":"x","path":""})", R"({"name":7,"path":"/tmp"})"})
    EXPECT_EQ(400, status("POST", "pools", body)) << body;
  EXPECT_EQ(409, status("POST", "pools", R"({"name":"x/y","path":"/tmp"})"));
  EXPECT_EQ(409, status("POST", "pools", R"({"name":"x","path":"/does/not/exist"})"));
  EXPECT_EQ(404, status("PUT", "pools/default", R"({"pool":"x"})"));
  EXPECT_EQ(404, status("DELETE", "pools/x"));
}
} // namespace
