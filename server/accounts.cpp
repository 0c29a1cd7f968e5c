#include "server/accounts.h"

#include "base/clock.h"
#include "base/uuid.h"
#include "catalog/catalog_database.h"
#include "server/secrets.h"
#include "server/server_database.h"
#include "storage/host_manager.h"

#include <algorithm>
#include <cctype>

namespace kestrel
{
namespace
{
const size_t SHORTEST_PASSWORD = 8, LONGEST_PASSWORD = 1023;
const unsigned KEY_BYTES = 32, TOKEN_BYTES = 32;
const int SESSIONS_PER_USER = 100;
const int ACCESS_KEY_HEAD = 49;

int64_t now()
{
  return static_cast<int64_t>(clock().now());
}

void check_name(const std::string& name, const char* whose)
{
  if (!is_account_name(name))
    throw REST_Error(400, "bad_name",
                     std::string("The name of a ") + whose +
                         " has 1 to 64 letters, digits and . _ - @, and begins with a letter or digit");
}

void check_new_password(const std::string& password)
{
  if (password.size() < SHORTEST_PASSWORD || password.size() > LONGEST_PASSWORD)
    throw REST_Error(400, "bad_password", "A password has 8 to 1023 bytes");
}

REST_Error no_user(const std::string& name)
{
  return REST_Error(404, "not_found", "There is no user '" + name + "'");
}

bool user_role(soci::session& session, const std::string& name, std::string& role)
{
  session << "SELECT role FROM account WHERE name = :n", soci::use(name, "n"), soci::into(role);
  return session.got_data();
}

std::string lower(std::string text)
{
  for (char& c : text)
    c = static_cast<char>(::tolower(static_cast<unsigned char>(c)));
  return text;
}
} // namespace

bool is_account_name(const std::string& name)
{
  const auto alphanumeric = [](char c) {
    return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z');
  };
  return !name.empty() && name.size() <= 64 && alphanumeric(name.front()) &&
         std::all_of(name.begin(), name.end(),
                     [&](char c) { return alphanumeric(c) || c == '.' || c == '_' || c == '-' || c == '@'; });
}

void Accounts::add_user(const std::string& name, const std::string& role, const std::string& password)
{
  check_name(name, "user");
  if (role != "viewer" && role != "operator" && role != "admin")
    throw REST_Error(400, "bad_role", "A role is one of viewer, operator and admin");
  check_new_password(password);
  const std::string hash = hash_password(password);
  const int64_t time = now();
  Server_Database::Lease session = database_.lease();
  Catalog_Transaction transaction(*session, Catalog_Transaction::Kind::write);
  std::string present;
  if (user_role(*session, name, present))
    throw REST_Error(409, "already_there", "There is a user '" + name + "' already");
  *session
      << "INSERT INTO account (name, role, password, created_at, changed_at) VALUES (:n, :r, :p, :t, :c)",
      soci::use(name, "n"), soci::use(role, "r"), soci::use(hash, "p"), soci::use(time, "t"),
      soci::use(time, "c");
  transaction.commit();
}

void Accounts::remove_user(const std::string& name)
{
  Server_Database::Lease session = database_.lease();
  Catalog_Transaction transaction(*session, Catalog_Transaction::Kind::write);
  std::string role;
  if (!user_role(*session, name, role))
    throw no_user(name);
  int admins = 0;
  *session << "SELECT count(*) FROM account WHERE role = 'admin'", soci::into(admins);
  if (role == "admin" && admins == 1)
    throw REST_Error(409, "last_admin", "'" + name + "' is the only admin and cannot be removed");
  *session << "DELETE FROM account WHERE name = :n", soci::use(name, "n"); // takes its sessions along
  transaction.commit();
}

void Accounts::set_password(const std::string& name, const std::string& password)
{
  check_new_password(password);
  const std::string hash = hash_password(password);
  const int64_t time = now();
  Server_Database::Lease session = database_.lease();
  Catalog_Transaction transaction(*session, Catalog_Transaction::Kind::write);
  std::string role;
  if (!user_role(*session, name, role))
    throw no_user(name);
  *session << "UPDATE account SET password = :p, changed_at = :t WHERE name = :n", soci::use(hash, "p"),
      soci::use(time, "t"), soci::use(name, "n");
  *session << "DELETE FROM session WHERE account = :n", soci::use(name, "n");
  transaction.commit();
}

std::vector<Accounts::User> Accounts::users()
{
  std::vector<User> found;
  Server_Database::Lease session = database_.lease();
  User user;
  soci::statement statement =
      (session->prepare << "SELECT name, role, created_at, changed_at FROM account ORDER BY name",
       soci::into(user.name), soci::into(user.role), soci::into(user.created_at),
       soci::into(user.changed_at));
  statement.execute();
  while (statement.fetch())
    found.push_back(user);
  return found;
}

Accounts::New_Session Accounts::sign_in(const std::string& name, const std::string& password,
                                        const std::string& address)
{
  const int wait = limiter_.wait_seconds(name, address);
  if (wait > 0)
    throw REST_Error(429, "too_many_failures",
                     "Too many failed sign-ins: try again in " + std::to_string(wait) + " seconds");
  std::string hash;
  bool known = false;
  {
    Server_Database::Lease session = database_.lease();
    *session << "SELECT password FROM account WHERE name = :n", soci::use(name, "n"), soci::into(hash);
    known = session->got_data();
  } // hashing takes long
  bool right = password.size() <= LONGEST_PASSWORD;
  if (known)
    right = check_password(password, hash) && right; // takes as long as for a name that is not known
  else {
    check_no_password(password);
    right = false;
  }
  if (!right) {
    limiter_.failed(name, address);
    throw REST_Error(401, "sign_in_failed", "Name and password do not fit");
  }
  limiter_.succeeded(name, address);
  return open_session(name, hash, address);
}

Accounts::New_Session Accounts::open_session(const std::string& name, const std::string& hash,
                                             const std::string& address)
{
  New_Session made;
  made.token = random_hex(TOKEN_BYTES);
  const std::string token_hash = sha256_hex(made.token), id = make_uuid();
  const int64_t time = now();
  made.expires_at = time + session_seconds_;
  Server_Database::Lease session = database_.lease();
  Catalog_Transaction transaction(*session, Catalog_Transaction::Kind::write);
  // Another request may have removed the user or changed the password meanwhile.
  std::string present_hash;
  *session << "SELECT role, password FROM account WHERE name = :n", soci::use(name, "n"),
      soci::into(made.role), soci::into(present_hash);
  if (!session->got_data() || present_hash != hash)
    throw REST_Error(401, "sign_in_failed", "Name and password do not fit");
  *session << "DELETE FROM session WHERE expires_at <= :t", soci::use(time, "t");
  *session << "DELETE FROM session WHERE account = :n AND token_hash NOT IN (SELECT token_hash FROM session "
              "WHERE account = :m ORDER BY created_at DESC, rowid DESC LIMIT :l)",
      soci::use(name, "n"), soci::use(name, "m"), soci::use(SESSIONS_PER_USER - 1, "l");
  *session << "INSERT INTO session (token_hash, id, account, address, created_at, expires_at) VALUES "
              "(:h, :i, :n, :a, :c, :e)",
      soci::use(token_hash, "h"), soci::use(id, "i"), soci::use(name, "n"), soci::use(address, "a"),
      soci::use(time, "c"), soci::use(made.expires_at, "e");
  transaction.commit();
  return made;
}

bool Accounts::find_session(const std::string& token, REST_Caller& caller)
{
  if (token.size() != 2 * TOKEN_BYTES)
    return false;
  const std::string hash = sha256_hex(token);
  const int64_t time = now();
  std::string name, role;
  Server_Database::Lease session = database_.lease();
  *session << "SELECT account.name, account.role FROM session JOIN account ON account.name = session.account "
              "WHERE token_hash = :h AND expires_at > :t",
      soci::use(hash, "h"), soci::use(time, "t"), soci::into(name), soci::into(role);
  if (!session->got_data())
    return false;
  caller.kind = REST_Caller::user;
  caller.name = name;
  caller.role = role;
  return true;
}

void Accounts::sign_out(const std::string& token)
{
  const std::string hash = sha256_hex(token);
  Server_Database::Lease session = database_.lease();
  *session << "DELETE FROM session WHERE token_hash = :h", soci::use(hash, "h");
}

std::vector<Accounts::Session> Accounts::sessions()
{
  std::vector<Session> found;
  const int64_t time = now();
  Server_Database::Lease session = database_.lease();
  Session one;
  soci::statement statement =
      (session->prepare
           << "SELECT id, account.name, role, address, session.created_at, expires_at FROM session "
              "JOIN account ON account.name = session.account WHERE expires_at > :t "
              "ORDER BY session.created_at, id",
       soci::use(time, "t"), soci::into(one.id), soci::into(one.user), soci::into(one.role),
       soci::into(one.address), soci::into(one.created_at), soci::into(one.expires_at));
  statement.execute();
  while (statement.fetch())
    found.push_back(one);
  return found;
}

unsigned Accounts::session_count()
{
  int count = 0;
  const int64_t time = now();
  Server_Database::Lease session = database_.lease();
  *session << "SELECT count(*) FROM session WHERE expires_at > :t", soci::use(time, "t"), soci::into(count);
  return static_cast<unsigned>(count);
}

void Accounts::prune()
{
  const int64_t time = now();
  Server_Database::Lease session = database_.lease();
  *session << "DELETE FROM session WHERE expires_at <= :t", soci::use(time, "t");
}

Accounts::New_Host Accounts::enroll(const std::string& name)
{
  check_name(name, "host");
  New_Host made;
  made.access_key = random_hex(KEY_BYTES);
  const std::string hash = sha256_hex(made.access_key);
  const int64_t time = now();
  Server_Database::Lease session = database_.lease();
  Catalog_Transaction transaction(*session, Catalog_Transaction::Kind::write);
  *session << "SELECT uuid FROM host WHERE name = :n", soci::use(name, "n"), soci::into(made.uuid);
  made.replaced = session->got_data();
  if (made.replaced)
    *session << "UPDATE host SET key_hash = :h, enrolled_at = :t, revoked_at = 0 WHERE uuid = :u",
        soci::use(hash, "h"), soci::use(time, "t"), soci::use(made.uuid, "u");
  else {
    made.uuid = make_uuid();
    *session << "INSERT INTO host (uuid, name, key_hash, enrolled_at) VALUES (:u, :n, :h, :t)",
        soci::use(made.uuid, "u"), soci::use(name, "n"), soci::use(hash, "h"), soci::use(time, "t");
  }
  transaction.commit();
  return made;
}

void Accounts::revoke(const std::string& name)
{
  const int64_t time = now();
  Server_Database::Lease session = database_.lease();
  Catalog_Transaction transaction(*session, Catalog_Transaction::Kind::write);
  int64_t revoked_at = 0;
  *session << "SELECT revoked_at FROM host WHERE name = :n", soci::use(name, "n"), soci::into(revoked_at);
  if (!session->got_data())
    throw REST_Error(404, "not_found", "There is no host '" + name + "'");
  if (revoked_at == 0)
    *session << "UPDATE host SET revoked_at = :t, key_hash = '' WHERE name = :n", soci::use(time, "t"),
        soci::use(name, "n");
  transaction.commit();
}

std::vector<Accounts::Host> Accounts::hosts()
{
  std::vector<Host> found;
  Server_Database::Lease session = database_.lease();
  Host host;
  soci::statement statement =
      (session->prepare << "SELECT uuid, name, enrolled_at, revoked_at FROM host ORDER BY name",
       soci::into(host.uuid), soci::into(host.name), soci::into(host.enrolled_at),
       soci::into(host.revoked_at));
  statement.execute();
  while (statement.fetch())
    found.push_back(host);
  return found;
}

bool Accounts::find_agent(const std::string& credential, REST_Caller& caller)
{
  const size_t dot = credential.find('.');
  if (dot == std::string::npos || credential.size() != dot + 1 + 2 * KEY_BYTES)
    return false;
  const std::string uuid = credential.substr(0, dot), hash = sha256_hex(credential.substr(dot + 1));
  std::string name, expected;
  {
    Server_Database::Lease session = database_.lease();
    *session << "SELECT name, key_hash FROM host WHERE uuid = :u AND revoked_at = 0", soci::use(uuid, "u"),
        soci::into(name), soci::into(expected);
    if (!session->got_data())
      return false;
  }
  if (!equal_secrets(hash, expected))
    return false;
  caller.kind = REST_Caller::agent;
  caller.name = name;
  caller.uuid = uuid;
  caller.role = "agent";
  caller.key_hash = hash;
  return true;
}

std::string Accounts::bearer_token(const REST_Request& request)
{
  static const std::string bearer = "bearer ";
  const auto found = request.headers.find("authorization");
  if (found == request.headers.end() || lower(found->second.substr(0, bearer.size())) != bearer)
    return std::string();
  return found->second.substr(bearer.size());
}

bool Accounts::authenticate(const REST_Request& request, REST_Caller& caller, std::string& problem)
{
  static const std::string key_header = lower(::http_head_string(ACCESS_KEY_HEAD, 0));
  const auto key = request.headers.find(key_header);
  if (key != request.headers.end()) {
    if (find_agent(key->second, caller))
      return true;
    problem = "The access key is not valid: enroll the host again";
    return false;
  }
  if (request.headers.count("authorization") == 0 || find_session(bearer_token(request), caller))
    return true;
  problem = "The session does not exist or has expired: sign in again";
  return false;
}
} // namespace kestrel
