#include "server/cluster_history.h"

#include "catalog/catalog_database.h"
#include "server/server_database.h"
#include "json/json_util.h"

#include <algorithm>

namespace kestrel
{
namespace
{
std::string text_of(const json_spirit::Object& record, const char* key)
{
  const json_spirit::Value& value = json_spirit::find_value(record, key);
  return value.type() == json_spirit::str_type ? value.get_str() : std::string();
}

int64_t next_time(soci::session& session, const std::string& definition_uuid, int64_t now)
{
  long long last = 0;
  session << "SELECT last_time FROM selection_clock WHERE definition_uuid = :d",
      soci::use(definition_uuid, "d"), soci::into(last);
  const long long next = session.got_data() ? std::max<long long>(now, last + 1) : now;
  session << "INSERT OR REPLACE INTO selection_clock (definition_uuid, last_time) VALUES (:d, :t)",
      soci::use(definition_uuid, "d"), soci::use(next, "t");
  return next;
}
} // namespace

int64_t Cluster_History::open(const std::string& definition_uuid, int64_t now, int64_t& selection_time)
{
  Server_Database::Lease session = database_.lease();
  Catalog_Transaction transaction(*session, Catalog_Transaction::Kind::write);
  const long long time = next_time(*session, definition_uuid, now);
  json_spirit::Object record;
  record.emplace_back("definition_uuid", definition_uuid);
  record.emplace_back("selection_time", static_cast<int64_t>(time));
  record.emplace_back("state", "open");
  const std::string text = write_json(record);
  const long long asked_at = now;
  *session << "INSERT INTO selection (definition_uuid, state, host_uuid, asked_at, decided_at, record)"
              " VALUES (:d, 'open', '', :a, 0, :r)",
      soci::use(definition_uuid, "d"), soci::use(asked_at, "a"), soci::use(text, "r");
  long long number = 0;
  *session << "SELECT last_insert_rowid()", soci::into(number);
  const long long oldest = number - KEPT;
  *session << "DELETE FROM selection WHERE number <= :n", soci::use(oldest, "n");
  transaction.commit();
  selection_time = time;
  return number;
}

void Cluster_History::save(int64_t number, const json_spirit::Object& record, const json_spirit::Object& kept,
                           int64_t decided_at)
{
  const std::string text = write_json(record);
  const std::string kept_text = kept.empty() ? std::string() : write_json(kept);
  const std::string state = text_of(record, "state");
  const std::string host = text_of(record, "host_uuid");
  const long long row = number;
  const long long decided = decided_at;
  Server_Database::Lease session = database_.lease();
  *session << "UPDATE selection SET state = :s, host_uuid = :h, decided_at = :d, record = :r, kept = :k"
              " WHERE number = :n",
      soci::use(state, "s"), soci::use(host, "h"), soci::use(decided, "d"), soci::use(text, "r"),
      soci::use(kept_text, "k"), soci::use(row, "n");
}

std::vector<Cluster_History::Unfinished> Cluster_History::unfinished()
{
  std::vector<Unfinished> found;
  Server_Database::Lease session = database_.lease();
  const soci::rowset<soci::row> rows =
      (session->prepare << "SELECT CAST(number AS TEXT), record, kept FROM selection"
                           " WHERE kept <> '' OR state = 'open' ORDER BY number");
  for (const soci::row& row : rows) {
    Unfinished selection;
    json_spirit::Value record;
    std::string error;
    selection.number = std::stoll(row.get<std::string>(0));
    if (read_json(row.get<std::string>(1), record, error) && record.type() == json_spirit::obj_type &&
        optional(record.get_obj(), "selection_time", selection.selection_time) &&
        !read_json(row.get<std::string>(2), selection.kept, error))
      selection.kept = json_spirit::Value();
    found.push_back(std::move(selection));
  }
  return found;
}

int64_t Cluster_History::mark_over(const std::vector<int64_t>& numbers)
{
  int64_t interrupted = 0;
  Server_Database::Lease session = database_.lease();
  Catalog_Transaction transaction(*session, Catalog_Transaction::Kind::write);
  for (const int64_t number : numbers) {
    const long long row = number;
    soci::statement update =
        (session->prepare << "UPDATE selection SET state = 'interrupted' WHERE number = :n"
                             " AND state = 'open'",
         soci::use(row, "n"));
    update.execute(true);
    interrupted += update.get_affected_rows();
    *session << "UPDATE selection SET kept = '' WHERE number = :n", soci::use(row, "n");
  }
  transaction.commit();
  return interrupted;
}

std::map<std::string, int64_t> Cluster_History::last_chosen()
{
  std::map<std::string, int64_t> chosen;
  Server_Database::Lease session = database_.lease();
  const soci::rowset<soci::row> rows =
      (session->prepare << "SELECT host_uuid, CAST(max(number) AS TEXT) FROM selection"
                           " WHERE state = 'success' GROUP BY host_uuid");
  for (const soci::row& row : rows)
    chosen[row.get<std::string>(0)] = std::stoll(row.get<std::string>(1));
  return chosen;
}

json_spirit::Array Cluster_History::list(int limit, const std::string& definition_uuid)
{
  json_spirit::Array selections;
  Server_Database::Lease session = database_.lease();
  const soci::rowset<soci::row> rows =
      (session->prepare << "SELECT CAST(number AS TEXT), state, CAST(asked_at AS TEXT),"
                           " CAST(decided_at AS TEXT), record FROM selection"
                           " WHERE :d1 = '' OR definition_uuid = :d2 ORDER BY number DESC LIMIT :l",
       soci::use(definition_uuid, "d1"), soci::use(definition_uuid, "d2"), soci::use(limit, "l"));
  for (const soci::row& row : rows) {
    json_spirit::Value record;
    std::string error;
    if (!read_json(row.get<std::string>(4), record, error) || record.type() != json_spirit::obj_type)
      record = json_spirit::Object();
    json_spirit::Object entry;
    entry.emplace_back("number", static_cast<int64_t>(std::stoll(row.get<std::string>(0))));
    entry.emplace_back("asked_at", static_cast<int64_t>(std::stoll(row.get<std::string>(2))));
    entry.emplace_back("decided_at", static_cast<int64_t>(std::stoll(row.get<std::string>(3))));
    for (json_spirit::Pair& member : record.get_obj())
      entry.push_back(std::move(member));
    set_value(entry, "state", row.get<std::string>(1));
    if (row.get<std::string>(1) == "interrupted" && text_of(entry, "reason").empty())
      set_value(entry, "reason", "the server was stopped before it decided");
    selections.push_back(std::move(entry));
  }
  return selections;
}

std::string Cluster_History::failure_text(const std::exception& failure) const
{
  return database_.translate(failure).what();
}
} // namespace kestrel
