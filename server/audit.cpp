#include "server/audit.h"

#include "base/clock.h"
#include "json/json_util.h"
#include "server/server_database.h"

#include <pwd.h>
#include <unistd.h>

namespace kestrel
{
namespace
{
const size_t LONGEST_TEXT = 512;

std::string audit_text(std::string text)
{
  if (text.size() > LONGEST_TEXT)
    text.resize(LONGEST_TEXT);
  for (char& c : text)
    if (static_cast<unsigned char>(c) < 0x20 || c == 0x7f)
      c = ' ';
  return utf8_without_invalid(text);
}
} // namespace

void Audit::add(const REST_Caller& caller, const std::string& method, const std::string& path,
                const std::string& what, int status)
{
  const int64_t now = clock().now();
  const std::string name = audit_text(caller.name), role = caller.role, address = caller.address;
  const std::string short_path = audit_text(path), short_what = audit_text(what);
  Server_Database::Lease session = database_.lease();
  *session << "INSERT INTO audit (time, caller, role, address, method, path, what, status) VALUES "
              "(:t, :c, :r, :a, :m, :p, :w, :s)",
      soci::use(now, "t"), soci::use(name, "c"), soci::use(role, "r"), soci::use(address, "a"),
      soci::use(method, "m"), soci::use(short_path, "p"), soci::use(short_what, "w"), soci::use(status, "s");
}

json_spirit::Array Audit::list(int64_t limit, int64_t before)
{
  if (before <= 0)
    before = INT64_MAX;
  json_spirit::Array entries;
  Server_Database::Lease session = database_.lease();
  soci::rowset<soci::row> rows =
      (session->prepare << "SELECT CAST(id AS TEXT), CAST(time AS TEXT), caller, role, address, method, path, "
                           "what, status FROM audit WHERE id < :b ORDER BY id DESC LIMIT :l",
       soci::use(before, "b"), soci::use(limit, "l"));
  for (const soci::row& row : rows)
    entries.push_back(json_spirit::Object{{"id", static_cast<int64_t>(std::stoll(row.get<std::string>(0)))},
                                          {"time", static_cast<int64_t>(std::stoll(row.get<std::string>(1)))},
                                          {"caller", row.get<std::string>(2)},
                                          {"role", row.get<std::string>(3)},
                                          {"address", row.get<std::string>(4)},
                                          {"method", row.get<std::string>(5)},
                                          {"path", row.get<std::string>(6)},
                                          {"what", row.get<std::string>(7)},
                                          {"status", row.get<int>(8)}});
  return entries;
}

void Audit::prune(int keep_days)
{
  const int64_t oldest = static_cast<int64_t>(clock().now()) - static_cast<int64_t>(keep_days) * 86400;
  Server_Database::Lease session = database_.lease();
  *session << "DELETE FROM audit WHERE time < :t", soci::use(oldest, "t");
}

REST_Caller local_caller()
{
  REST_Caller caller;
  caller.kind = REST_Caller::user;
  caller.role = "local";
  char buffer[4096];
  struct passwd entry;
  struct passwd* found = nullptr;
  if (::getpwuid_r(::geteuid(), &entry, buffer, sizeof buffer, &found) == 0 && found != nullptr)
    caller.name = std::string("local:") + found->pw_name;
  else
    caller.name = "local:" + std::to_string(::geteuid());
  return caller;
}
} // namespace kestrel
