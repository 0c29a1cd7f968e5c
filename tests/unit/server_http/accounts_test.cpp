#include "server/secrets.h"
#include "server_fixture.h"
#include "support/clocks.h"
#include "support/log_capture.h"
#include "json/json_util.h"

#include <set>

using namespace kestrel;
using namespace kestrel_test;

namespace
{
class Server_Accounts : public Server_Fixture
{
protected:
  static REST_Request with_header(const std::string& name, const std::string& value)
  {
    REST_Request request;
    request.headers[name] = value;
    return request;
  }
  bool lets_in(const REST_Request& request, REST_Caller& caller)
  {
    std::string problem;
    return accounts_.authenticate(request, caller, problem);
  }

  Fake_Clock clock_;
};
} // namespace

TEST(Secrets, hashes_of_one_password_differ_and_both_fit)
{
  const std::string one = hash_password("a password"), other = hash_password("a password");
  EXPECT_NE(one, other);
  EXPECT_TRUE(check_password("a password", one));
  EXPECT_TRUE(check_password("a password", other));
  EXPECT_FALSE(check_password("a passwore", one));
  EXPECT_FALSE(check_password("", one));
  EXPECT_EQ(0u, one.find("scrypt$15$8$1$"));
}

TEST(Secrets, a_damaged_hash_fits_no_password)
{
  set_password_cost(10);
  const std::string good = hash_password("a password");
  for (const std::string& hash :
       {std::string(), std::string("scrypt"), std::string("plain$a password"),
        good.substr(0, good.size() - 1), good + "00", std::string("scrypt$99$8$1$00$00"),
        std::string("scrypt$15$8$1$0g$00"), std::string("scrypt$15$-8$1$00$00")})
    EXPECT_FALSE(check_password("a password", hash)) << hash;
  set_password_cost(15);
}

TEST(Secrets, random_texts_do_not_repeat)
{
  std::set<std::string> seen;
  for (int i = 0; i < 100; ++i)
    EXPECT_TRUE(seen.insert(random_hex(32)).second);
  EXPECT_EQ(64u, seen.begin()->size());
}

TEST(Secrets, checksums_and_comparisons)
{
  EXPECT_EQ("ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad", sha256_hex("abc"));
  EXPECT_TRUE(equal_secrets("abc", "abc"));
  EXPECT_FALSE(equal_secrets("abc", "abd"));
  EXPECT_FALSE(equal_secrets("abc", "abcd"));
  EXPECT_TRUE(equal_secrets("", ""));
}

TEST(Account_Name, has_letters_digits_and_few_signs)
{
  for (const char* name : {"a", "A1", "db-1.example.com", "user@host", "1_2"})
    EXPECT_TRUE(is_account_name(name)) << name;
  for (const std::string& name :
       {std::string(), std::string("-a"), std::string(".a"), std::string("a b"), std::string("a/b"),
        std::string("a\nb"), std::string("\xc3\xa9"), std::string(65, 'a')})
    EXPECT_FALSE(is_account_name(name)) << name;
}

TEST_F(Server_Accounts, adds_lists_and_removes_users)
{
  accounts_.add_user("ann", "admin", "password-1");
  accounts_.add_user("bob", "viewer", "password-2");
  EXPECT_EQ(409, status_of([&] { accounts_.add_user("bob", "admin", "password-3"); }));
  ASSERT_EQ(2u, accounts_.users().size());
  EXPECT_EQ("bob", accounts_.users()[1].name);
  EXPECT_EQ("viewer", accounts_.users()[1].role);
  EXPECT_EQ(clock_.now(), accounts_.users()[1].created_at);
  accounts_.remove_user("bob");
  EXPECT_EQ(404, status_of([&] { accounts_.remove_user("bob"); }));
  EXPECT_EQ(1u, accounts_.users().size());
}

TEST_F(Server_Accounts, refuses_bad_names_roles_and_passwords)
{
  EXPECT_EQ(400, status_of([&] { accounts_.add_user("", "admin", "password-1"); }));
  EXPECT_EQ(400, status_of([&] { accounts_.add_user("a b", "admin", "password-1"); }));
  EXPECT_EQ(400, status_of([&] { accounts_.add_user("ann", "root", "password-1"); }));
  EXPECT_EQ(400, status_of([&] { accounts_.add_user("ann", "agent", "password-1"); }));
  EXPECT_EQ(400, status_of([&] { accounts_.add_user("ann", "admin", "short"); }));
  EXPECT_EQ(400, status_of([&] { accounts_.add_user("ann", "admin", std::string(1024, 'x')); }));
  EXPECT_TRUE(accounts_.users().empty());
}

TEST_F(Server_Accounts, the_last_admin_stays)
{
  accounts_.add_user("ann", "admin", "password-1");
  accounts_.add_user("bob", "viewer", "password-2");
  EXPECT_EQ(409, status_of([&] { accounts_.remove_user("ann"); }));
  accounts_.add_user("eve", "admin", "password-3");
  accounts_.remove_user("ann");
  EXPECT_EQ(409, status_of([&] { accounts_.remove_user("eve"); }));
}

TEST_F(Server_Accounts, signs_in_and_finds_the_session_until_it_expires)
{
  accounts_.add_user("ann", "operator", "password-1");
  const Accounts::New_Session session = accounts_.sign_in("ann", "password-1", "192.0.2.1");
  EXPECT_EQ(64u, session.token.size());
  EXPECT_EQ("operator", session.role);
  EXPECT_EQ(clock_.now() + 12 * 3600, session.expires_at);
  REST_Caller caller;
  ASSERT_TRUE(accounts_.find_session(session.token, caller));
  EXPECT_EQ(REST_Caller::user, caller.kind);
  EXPECT_EQ("ann", caller.name);
  EXPECT_EQ("operator", caller.role);
  clock_.advance_msec((12 * 3600 - 1) * 1000);
  EXPECT_TRUE(accounts_.find_session(session.token, caller));
  EXPECT_EQ(1u, accounts_.session_count());
  clock_.advance_msec(1000);
  EXPECT_FALSE(accounts_.find_session(session.token, caller));
  EXPECT_EQ(0u, accounts_.session_count());
  EXPECT_TRUE(accounts_.sessions().empty());
  accounts_.prune();
}

TEST_F(Server_Accounts, a_token_stands_nowhere_in_the_database)
{
  accounts_.add_user("ann", "operator", "password-1");
  const std::string token = accounts_.sign_in("ann", "password-1", "192.0.2.1").token;
  const Accounts::New_Host host = accounts_.enroll("db1");
  database_.close();
  for (const char* name : {"server.db", "server.db-wal"})
    if (exists(dir_ / name)) {
      const std::string bytes = read_file(dir_ / name);
      EXPECT_EQ(std::string::npos, bytes.find(token)) << name;
      EXPECT_EQ(std::string::npos, bytes.find("password-1")) << name;
      EXPECT_EQ(std::string::npos, bytes.find(host.access_key)) << name;
    }
}

TEST_F(Server_Accounts, sessions_end_with_sign_out_password_and_user)
{
  accounts_.add_user("ann", "admin", "password-1");
  accounts_.add_user("bob", "viewer", "password-2");
  REST_Caller caller;
  const std::string first = accounts_.sign_in("ann", "password-1", "192.0.2.1").token;
  const std::string second = accounts_.sign_in("ann", "password-1", "192.0.2.1").token;
  const std::string third = accounts_.sign_in("bob", "password-2", "192.0.2.1").token;
  EXPECT_EQ(3u, accounts_.sessions().size());
  accounts_.sign_out(first);
  EXPECT_FALSE(accounts_.find_session(first, caller));
  EXPECT_TRUE(accounts_.find_session(second, caller));
  accounts_.set_password("ann", "password-4");
  EXPECT_FALSE(accounts_.find_session(second, caller));
  EXPECT_EQ(401, status_of([&] { accounts_.sign_in("ann", "password-1", "192.0.2.1"); }));
  EXPECT_EQ(0, status_of([&] { accounts_.sign_in("ann", "password-4", "192.0.2.1"); }));
  accounts_.remove_user("bob");
  EXPECT_FALSE(accounts_.find_session(third, caller));
  EXPECT_EQ(404, status_of([&] { accounts_.set_password("bob", "password-5"); }));
}

TEST_F(Server_Accounts, a_user_keeps_the_newest_hundred_sessions)
{
  // A hash that is quick to make, put in the place of the user's.
  accounts_.add_user("ann", "admin", "password-1");
  std::string first;
  {
    Server_Database::Lease session = database_.lease();
    for (int i = 0; i < 150; ++i) {
      const std::string number = std::to_string(1000 + i);
      *session << "INSERT INTO session VALUES (:h, :i, 'ann', '', 5, 9999999999)", soci::use(number, "h"),
          soci::use(number, "i");
    }
  }
  accounts_.sign_in("ann", "password-1", "192.0.2.1");
  EXPECT_EQ(100u, accounts_.session_count());
}

TEST_F(Server_Accounts, unknown_users_and_wrong_passwords_look_the_same)
{
  accounts_.add_user("ann", "admin", "password-1");
  std::vector<std::string> texts;
  for (const char* name : {"ann", "nobody", "' OR 1=1 --", ""})
    try {
      accounts_.sign_in(name, "wrong-password", "192.0.2.1");
    } catch (const REST_Error& error) {
      EXPECT_EQ(401, error.status());
      texts.push_back(error.what());
    }
  ASSERT_EQ(4u, texts.size());
  EXPECT_EQ(texts[0], texts[1]);
  EXPECT_EQ(texts[0], texts[2]);
}

TEST_F(Server_Accounts, failures_in_a_row_must_wait)
{
  accounts_.add_user("ann", "admin", "password-1");
  for (unsigned i = 0; i < Sign_In_Limiter::FREE_PER_NAME; ++i)
    EXPECT_EQ(401, status_of([&] { accounts_.sign_in("ann", "wrong", "192.0.2.1"); }));
  EXPECT_EQ(429, status_of([&] { accounts_.sign_in("ann", "password-1", "192.0.2.1"); }));
  EXPECT_EQ(0, status_of([&] { accounts_.sign_in("ann", "password-1", "192.0.2.2"); })) << "from elsewhere";
  clock_.advance_msec(1000);
  EXPECT_EQ(0, status_of([&] { accounts_.sign_in("ann", "password-1", "192.0.2.1"); }));
  EXPECT_EQ(401, status_of([&] { accounts_.sign_in("ann", "wrong", "192.0.2.1"); }))
      << "success forgets failures";
}

TEST_F(Server_Accounts, hosts_are_enrolled_again_and_revoked)
{
  const Accounts::New_Host first = accounts_.enroll("db1");
  EXPECT_FALSE(first.replaced);
  REST_Caller caller;
  ASSERT_TRUE(accounts_.find_agent(first.uuid + "." + first.access_key, caller));
  EXPECT_EQ(REST_Caller::agent, caller.kind);
  EXPECT_EQ("db1", caller.name);
  EXPECT_EQ(first.uuid, caller.uuid);

  const Accounts::New_Host second = accounts_.enroll("db1");
  EXPECT_TRUE(second.replaced);
  EXPECT_EQ(first.uuid, second.uuid);
  EXPECT_FALSE(accounts_.find_agent(first.uuid + "." + first.access_key, caller));
  EXPECT_TRUE(accounts_.find_agent(second.uuid + "." + second.access_key, caller));

  accounts_.revoke("db1");
  EXPECT_FALSE(accounts_.find_agent(second.uuid + "." + second.access_key, caller));
  EXPECT_EQ(clock_.now(), accounts_.hosts().at(0).revoked_at);
  accounts_.revoke("db1");
  EXPECT_EQ(404, status_of([&] { accounts_.revoke("db2"); }));
  EXPECT_EQ(400, status_of([&] { accounts_.enroll("db 2"); }));
  EXPECT_EQ(first.uuid, accounts_.enroll("db1").uuid) << "a host that comes back keeps its records";
}

TEST_F(Server_Accounts, wrong_keys_are_refused)
{
  const Accounts::New_Host host = accounts_.enroll("db1");
  const Accounts::New_Host other = accounts_.enroll("db2");
  REST_Caller caller;
  for (const std::string& text :
       {std::string(), std::string("."), host.uuid, host.uuid + ".", "." + host.access_key, host.access_key,
        host.uuid + "." + other.access_key, host.uuid + "." + host.access_key + "0",
        host.uuid + ".." + host.access_key, host.uuid + "." + host.access_key.substr(1),
        host.uuid + "." + sha256_hex(host.access_key)})
    EXPECT_FALSE(accounts_.find_agent(text, caller)) << text;
  EXPECT_EQ(REST_Caller::nobody, caller.kind);
}

TEST_F(Server_Accounts, reads_the_headers_of_a_request)
{
  accounts_.add_user("ann", "admin", "password-1");
  const std::string token = accounts_.sign_in("ann", "password-1", "192.0.2.1").token;
  const Accounts::New_Host host = accounts_.enroll("db1");
  const std::string key = host.uuid + "." + host.access_key;
  REST_Caller caller;
  EXPECT_TRUE(lets_in(REST_Request(), caller));
  EXPECT_EQ(REST_Caller::nobody, caller.kind);
  for (const std::string& value :
       {std::string(), std::string("Bearer"), std::string("Bearer "), "Basic " + token, token,
        "Bearer " + token + ", Bearer " + token, "Bearer  " + token})
    EXPECT_FALSE(lets_in(with_header("authorization", value), caller)) << value;
  EXPECT_TRUE(lets_in(with_header("authorization", "bearer " + token), caller));
  EXPECT_EQ("ann", caller.name);
  EXPECT_TRUE(lets_in(with_header("x-access-key", key), caller));
  EXPECT_EQ("db1", caller.name);
  // A wrong key is not saved by a session.
  REST_Request both = with_header("authorization", "Bearer " + token);
  both.headers["x-access-key"] = key + "0";
  EXPECT_FALSE(lets_in(both, caller));
}

TEST_F(Server_Accounts, the_audit_keeps_short_clean_texts_newest_first)
{
  REST_Caller caller;
  caller.name = "ann";
  caller.role = "admin";
  caller.address = "192.0.2.1";
  audit_.add(caller, "POST", "/k2/r/a\nb", std::string(2000, 'x'), 201);
  clock_.advance_msec(5000);
  audit_.add(caller, "DELETE", "/k2/r/\xff", "", 404);
  const json_spirit::Array entries = audit_.list(10, 0);
  ASSERT_EQ(2u, entries.size());
  const json_spirit::Object newest = entries[0].get_obj(), oldest = entries[1].get_obj();
  EXPECT_EQ("DELETE", required<std::string>(newest, "method"));
  EXPECT_EQ(404, required<int>(newest, "status"));
  EXPECT_EQ("/k2/r/a b", required<std::string>(oldest, "path"));
  EXPECT_EQ(512u, required<std::string>(oldest, "what").size());
  EXPECT_EQ("ann", required<std::string>(oldest, "caller"));
  EXPECT_EQ("192.0.2.1", required<std::string>(oldest, "address"));
  EXPECT_EQ(clock_.now() - 5, required<int64_t>(oldest, "time"));
  EXPECT_EQ(1u, audit_.list(1, 0).size());
  EXPECT_EQ(1u, audit_.list(10, required<int64_t>(newest, "id")).size());
  clock_.advance_msec(86400 * 1000 - 1000);
  audit_.prune(1);
  EXPECT_EQ(1u, audit_.list(10, 0).size());
}

TEST(Sign_In_Limiter, waits_twice_as_long_after_each_further_failure)
{
  Fake_Clock clock;
  Sign_In_Limiter limiter;
  for (unsigned i = 0; i < Sign_In_Limiter::FREE_PER_NAME; ++i) {
    EXPECT_EQ(0, limiter.wait_seconds("ann", "192.0.2.1"));
    limiter.failed("ann", "192.0.2.1");
  }
  int expected = 1;
  for (int i = 0; i < 12; ++i) {
    EXPECT_EQ(expected, limiter.wait_seconds("ann", "192.0.2.1"));
    clock.advance_msec(expected * 1000);
    EXPECT_EQ(0, limiter.wait_seconds("ann", "192.0.2.1"));
    limiter.failed("ann", "192.0.2.1");
    expected = std::min(2 * expected, Sign_In_Limiter::LONGEST_WAIT);
  }
  EXPECT_EQ(0, limiter.wait_seconds("ann", "192.0.2.2"));
}

TEST(Sign_In_Limiter, an_address_that_tries_many_names_must_wait)
{
  Fake_Clock clock;
  Sign_In_Limiter limiter;
  for (unsigned i = 0; i < Sign_In_Limiter::FREE_PER_ADDRESS; ++i)
    limiter.failed("user" + std::to_string(i), "192.0.2.1");
  EXPECT_EQ(1, limiter.wait_seconds("another", "192.0.2.1"));
  EXPECT_EQ(0, limiter.wait_seconds("another", "192.0.2.2"));
  clock.advance_msec((Sign_In_Limiter::FORGET_SECONDS + 1) * 1000);
  limiter.failed("another", "192.0.2.1");
  EXPECT_EQ(0, limiter.wait_seconds("another", "192.0.2.1"));
}

TEST(Sign_In_Limiter, remembers_a_bounded_number)
{
  Fake_Clock clock;
  Sign_In_Limiter limiter;
  for (unsigned i = 0; i < Sign_In_Limiter::ENTRIES / 2 + 200; ++i) {
    limiter.failed("u", "a" + std::to_string(i));
    clock.advance_msec(1);
  }
  for (unsigned i = 0; i < Sign_In_Limiter::FREE_PER_NAME; ++i)
    limiter.failed("ann", "192.0.2.1");
  EXPECT_LT(0, limiter.wait_seconds("ann", "192.0.2.1"));
}
