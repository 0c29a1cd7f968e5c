#include "server/run_records.h"

#include "catalog/catalog_database.h"
#include "server/server_database.h"
#include "json/json_util.h"

#include <exception>

namespace kestrel
{
namespace
{
constexpr size_t RECORD_BYTES = 256 * 1024;
constexpr size_t ID_BYTES = 64;

struct Row {
  std::string run_id, definition_id, state, text;
  long long queued_at = 0;
  long long ended_at = 0;
};

/// False with the reason when this is not a record of a run of this host.
bool read_record(const std::string& host_uuid, const json_spirit::Value& value, Row& row,
                 std::string& reason)
{
  try {
    const json_spirit::Object& record = value.get_obj();
    row.run_id = required<std::string>(record, "run_id");
    row.definition_id = required<std::string>(record, "definition_id");
    row.state = required<std::string>(record, "state");
    row.queued_at = required<int64_t>(record, "queued_at");
    int64_t ended_at = 0;
    optional(record, "ended_at", ended_at);
    row.ended_at = ended_at;
    std::string host = host_uuid;
    optional(record, "host_uuid", host);
    if (host != host_uuid)
      reason = "it is a run of another host";
    else if (row.run_id.empty() || row.run_id.size() > ID_BYTES || row.definition_id.size() > ID_BYTES ||
             row.state.empty() || row.state.size() > ID_BYTES)
      reason = "an id or the state is empty or too long";
    json_spirit::Object whole = record;
    set_value(whole, "host_uuid", host_uuid);
    row.text = write_json(whole);
    if (row.text.size() > RECORD_BYTES)
      reason = "it is larger than 256 KiB";
  } catch (const std::exception& failure) {
    reason = failure.what();
  }
  return reason.empty();
}

/// False when the run belongs to another host.
bool write_row(soci::session& session, const std::string& host_uuid, const Row& row)
{
  std::string owner;
  std::string ended;
  session << "SELECT host_uuid, CAST(ended_at AS TEXT) FROM run WHERE run_id = :r",
      soci::use(row.run_id, "r"), soci::into(owner), soci::into(ended);
  if (session.got_data()) {
    if (owner != host_uuid)
      return false;
    if (ended != "0" && row.ended_at == 0)
      return true; // an older report that was sent again
  }
  session << "INSERT OR REPLACE INTO run (run_id, definition_id, host_uuid, state, queued_at, ended_at, record)"
             " VALUES (:r, :d, :h, :s, :q, :e, :t)",
      soci::use(row.run_id, "r"), soci::use(row.definition_id, "d"), soci::use(host_uuid, "h"),
      soci::use(row.state, "s"), soci::use(row.queued_at, "q"), soci::use(row.ended_at, "e"),
      soci::use(row.text, "t");
  return true;
}
} // namespace

void Run_Records::store(const std::string& host_uuid, const json_spirit::Array& records,
                        std::vector<std::string>& stored, std::vector<Refusal>& refused)
{
  std::vector<Row> rows;
  std::vector<Refusal> bad;
  for (const json_spirit::Value& record : records) {
    Row row;
    std::string reason;
    if (read_record(host_uuid, record, row, reason))
      rows.push_back(std::move(row));
    else
      bad.push_back(Refusal{row.run_id.substr(0, ID_BYTES), reason});
  }
  std::vector<std::string> done;
  {
    Server_Database::Lease session = database_.lease();
    Catalog_Transaction transaction(*session, Catalog_Transaction::Kind::write);
    for (const Row& row : rows) {
      if (write_row(*session, host_uuid, row))
        done.push_back(row.run_id);
      else
        bad.push_back(Refusal{row.run_id, "another host has a run of this id"});
    }
    transaction.commit();
  }
  stored = std::move(done);
  refused = std::move(bad);
}

Run_Records::Page Run_Records::page(const Filter& filter)
{
  Page page;
  size_t bytes = 0;
  const long long before = filter.before_queued_at;
  const int one_more = filter.limit + 1;
  std::string text, queued_at, run_id;
  Server_Database::Lease session = database_.lease();
  soci::statement rows(*session);
  for (std::string* column : {&text, &queued_at, &run_id})
    rows.exchange(soci::into(*column));
  // Conditions that are not there, and not such that always hold: an index can serve the others then.
  std::string where;
  const auto condition = [&where](const char* sql) { where += (where.empty() ? " WHERE " : " AND ") + std::string(sql); };
  const auto equals = [&](const char* sql, const std::string& value) {
    if (value.empty())
      return;
    condition(sql);
    rows.exchange(soci::use(value));
  };
  equals("definition_id = :d", filter.definition_id);
  equals("host_uuid = :h", filter.host_uuid);
  equals("state = :s", filter.state);
  if (!filter.before_run_id.empty()) {
    condition("queued_at <= :q1 AND (queued_at < :q2 OR run_id > :b)");
    for (int i = 0; i < 2; ++i)
      rows.exchange(soci::use(before));
    rows.exchange(soci::use(filter.before_run_id));
  }
  rows.exchange(soci::use(one_more));
  rows.alloc();
  rows.prepare("SELECT record, CAST(queued_at AS TEXT), run_id FROM run" + where +
               " ORDER BY queued_at DESC, run_id LIMIT :l");
  rows.define_and_bind();
  rows.execute();
  for (int taken = 0; rows.fetch();) {
    bytes += text.size();
    page.truncated = bytes > filter.most_bytes && taken > 0;
    page.more = page.truncated || taken == filter.limit;
    if (page.more)
      break;
    ++taken;
    page.last_queued_at = std::stoll(queued_at);
    page.last_run_id = run_id;
    json_spirit::Value record;
    std::string error;
    if (read_json(text, record, error))
      page.runs.push_back(std::move(record));
  }
  return page;
}

std::map<Run_Records::Node, json_spirit::Object> Run_Records::newest(const std::vector<Node>& nodes)
{
  std::map<Node, json_spirit::Object> newest;
  if (nodes.empty())
    return newest;
  json_spirit::Array pairs;
  for (const Node& node : nodes)
    pairs.push_back(json_spirit::Array{node.first, node.second});
  const std::string wanted = write_json(pairs);
  Node node;
  std::string state, queued_at, reason;
  Server_Database::Lease session = database_.lease();
  soci::statement rows =
      (session->prepare
           << "SELECT run.definition_id, run.host_uuid, run.state, CAST(run.queued_at AS TEXT),"
              " CASE json_valid(run.record) WHEN 1 THEN coalesce(json_extract(run.record, '$.reason'), '') ELSE '' END"
              " FROM json_each(:w) AS pair JOIN run ON run.run_id ="
              " (SELECT run_id FROM run WHERE definition_id = json_extract(pair.value, '$[0]')"
              " AND host_uuid = json_extract(pair.value, '$[1]') ORDER BY queued_at DESC, run_id LIMIT 1)",
       soci::use(wanted, "w"), soci::into(node.first), soci::into(node.second), soci::into(state),
       soci::into(queued_at), soci::into(reason));
  for (rows.execute(); rows.fetch();)
    newest[node] = {{"state", state}, {"queued_at", static_cast<int64_t>(std::stoll(queued_at))}, {"reason", reason}};
  return newest;
}

bool Run_Records::find(const std::string& run_id, json_spirit::Value& record)
{
  std::string text, error;
  Server_Database::Lease session = database_.lease();
  *session << "SELECT record FROM run WHERE run_id = :r", soci::use(run_id, "r"), soci::into(text);
  return session->got_data() && read_json(text, record, error);
}

int64_t Run_Records::prune(int64_t before)
{
  const long long limit = before;
  Server_Database::Lease session = database_.lease();
  soci::statement remove =
      (session->prepare << "DELETE FROM run WHERE ended_at > 0 AND ended_at < :b", soci::use(limit, "b"));
  remove.execute(true);
  return remove.get_affected_rows();
}
} // namespace kestrel
