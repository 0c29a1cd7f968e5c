#pragma once

#include "rpc/rest_router.h"
#include "server/sign_in_limiter.h"

#include <cstdint>
#include <string>
#include <vector>

namespace kestrel
{
class Server_Database;

/// Who may use the server: console users with roles, their sessions, and hosts with access keys. Passwords
/// are kept as scrypt hashes, tokens and keys as SHA-256. Threads:   any. Ownership: the database is not
/// owned. Units:     seconds since 1970. Errors:    throws a REST_Error for what the user did wrong, and what
/// the database throws.
class Accounts
{
public:
  explicit Accounts(Server_Database& database, int session_hours = 12)
      : database_(database), session_seconds_(session_hours * 3600)
  {
  }

  struct User {
    std::string name, role;
    int64_t created_at = 0, changed_at = 0;
  };
  struct Session {
    std::string id, user, role, address;
    int64_t created_at = 0, expires_at = 0;
  };
  struct New_Session {
    std::string token; ///< shown once, to the user who signed in
    std::string role;
    int64_t expires_at = 0;
  };
  struct Host {
    std::string uuid, name;
    int64_t enrolled_at = 0, revoked_at = 0; ///< revoked_at 0: it may connect
  };
  struct New_Host {
    std::string uuid, access_key; ///< the key is kept nowhere
    bool replaced = false;        ///< the host was known, and its old key is worth nothing now
  };

  void add_user(const std::string& name, const std::string& role, const std::string& password);
  /// Ends the user's sessions. The last admin cannot be removed.
  void remove_user(const std::string& name);
  /// Ends the user's sessions.
  void set_password(const std::string& name, const std::string& password);
  std::vector<User> users();

  /// Throws 401 when name and password do not fit, 429 after too many failures.
  New_Session sign_in(const std::string& name, const std::string& password, const std::string& address);
  /// False when there is no such token or it has expired; `caller` keeps its address.
  [[nodiscard]] bool find_session(const std::string& token, REST_Caller& caller);
  /// How long a sign-in has to wait after failures; 0: not at all.
  int wait_seconds(const std::string& name, const std::string& address)
  {
    return limiter_.wait_seconds(name, address);
  }
  /// The token that the request carries, "" when it carries none.
  static std::string bearer_token(const REST_Request& request);
  /// Without effect for a token that does not exist.
  void sign_out(const std::string& token);
  std::vector<Session> sessions();
  unsigned session_count();
  /// Removes what has expired.
  void prune();

  /// Makes the host and its key, or a new key for a host that is known.
  New_Host enroll(const std::string& name);
  void revoke(const std::string& name);
  std::vector<Host> hosts();
  /// Whether "<uuid>.<key>" is the key of a host; fills `caller`.
  [[nodiscard]] bool find_agent(const std::string& credential, REST_Caller& caller);

  /// For the router: reads the access key header or "Authorization: Bearer TOKEN".
  [[nodiscard]] bool authenticate(const REST_Request& request, REST_Caller& caller, std::string& problem);

private:
  /// For a user whose password has this hash and was right.
  New_Session open_session(const std::string& name, const std::string& hash, const std::string& address);

  Server_Database& database_;
  const int session_seconds_;
  Sign_In_Limiter limiter_;
};

/// Names of users and hosts: 1 to 64 letters, digits and . _ - @, the first one a letter or digit.
bool is_account_name(const std::string& name);
} // namespace kestrel
