#include "agent/run_history.h"

#include "agent/job_database.h"
#include "json/json_util.h"

#include <soci/soci.h>

namespace kestrel
{
namespace
{
const char columns[] =
    "run_id, definition_id, revision, name, cause, state, queued_at, started_at, ended_at, reason, "
    "log_path, alerts, done_bytes, instance, refusal, former_start";

/// A record in the types that the database library binds.
struct Row {
  Row() = default;
  Row(const Run_Record& from, bool sent_already)
      : record(from), revision(static_cast<long long>(from.revision)), state(from.state),
        queued_at(from.queued_at), started_at(from.started_at), ended_at(from.ended_at),
        alerts(write_json(from.alerts)), done_bytes(static_cast<long long>(from.done_bytes)),
        former_start(from.former_start), sent(sent_already)
  {
  }

  Run_Record to_record() const
  {
    Run_Record result = record;
    result.revision = static_cast<uint64_t>(revision);
    result.state = static_cast<Job_State>(state);
    result.queued_at = static_cast<time_t>(queued_at);
    result.started_at = static_cast<time_t>(started_at);
    result.ended_at = static_cast<time_t>(ended_at);
    result.done_bytes = static_cast<uint64_t>(done_bytes);
    result.former_start = static_cast<time_t>(former_start);
    json_spirit::Value value;
    std::string unreadable;
    result.alerts.clear();
    if (read_json(alerts, value, unreadable) && value.type() == json_spirit::array_type)
      result.alerts = value.get_array();
    return result;
  }

  Run_Record record;
  long long revision = 0;
  int state = 0;
  long long queued_at = 0, started_at = 0, ended_at = 0;
  std::string alerts;
  long long done_bytes = 0, former_start = -1;
  int sent = 0;
};

void insert(soci::session& session, Row row)
{
  Run_Record& run = row.record;
  // What was acknowledged or refused stays so.
  session
      << "INSERT INTO run (" << columns
      << ", sent) VALUES (:a, :b, :c, :d, :e, :f, :g, :h, :i, :j, :k, :l, :m, :n, '', :o, :p) ON CONFLICT "
         "(run_id) "
         "DO "
         "UPDATE SET state = excluded.state, started_at = excluded.started_at, ended_at = excluded.ended_at, "
         "reason = excluded.reason, log_path = excluded.log_path, alerts = excluded.alerts, "
         "done_bytes = excluded.done_bytes",
      soci::use(run.run_id), soci::use(run.definition_id), soci::use(row.revision), soci::use(run.name),
      soci::use(run.trigger), soci::use(row.state), soci::use(row.queued_at), soci::use(row.started_at),
      soci::use(row.ended_at), soci::use(run.reason), soci::use(run.log_path), soci::use(row.alerts),
      soci::use(row.done_bytes), soci::use(run.instance), soci::use(row.former_start), soci::use(row.sent);
}
} // namespace

json_spirit::Object run_record_json(const Run_Record& record, const std::string& host_uuid)
{
  json_spirit::Object object;
  set_value(object, "run_id", record.run_id);
  set_value(object, "definition_id", record.definition_id);
  set_value(object, "revision", record.revision);
  set_value(object, "name", record.name);
  set_value(object, "host_uuid", host_uuid);
  set_value(object, "trigger", record.trigger);
  set_value(object, "state", job_state_text(record.state));
  set_value(object, "queued_at", static_cast<int64_t>(record.queued_at));
  set_value(object, "started_at", static_cast<int64_t>(record.started_at));
  set_value(object, "ended_at", static_cast<int64_t>(record.ended_at));
  set_value(object, "reason", record.reason);
  set_value(object, "log_path", record.log_path);
  set_value(object, "alerts", record.alerts);
  set_value(object, "done_bytes", record.done_bytes);
  set_value(object, "instance", record.instance);
  if (!record.refusal.empty())
    set_value(object, "refusal", record.refusal);
  return object;
}

bool Run_History::put(const std::vector<Run_Record>& records, std::string& error)
{
  return database_.write(
      [&](soci::session& session) {
        for (const Run_Record& record : records)
          insert(session, Row(record, !wait_for_server_));
      },
      error);
}

bool Run_History::put(const Run_Record& record, std::string& error)
{
  return put(std::vector<Run_Record>(1, record), error);
}

bool Run_History::select(const std::string& rest, std::vector<Run_Record>& records, std::string& error,
                         const std::string& key) const
{
  std::vector<Run_Record> found;
  const bool done = database_.read(
      [&](soci::session& session) {
        Row row;
        Run_Record& run = row.record;
        soci::statement rows(session);
        for (std::string* text : {&run.run_id, &run.definition_id})
          rows.exchange(soci::into(*text));
        rows.exchange(soci::into(row.revision));
        rows.exchange(soci::into(run.name));
        rows.exchange(soci::into(run.trigger));
        rows.exchange(soci::into(row.state));
        for (long long* time : {&row.queued_at, &row.started_at, &row.ended_at})
          rows.exchange(soci::into(*time));
        for (std::string* text : {&run.reason, &run.log_path, &row.alerts})
          rows.exchange(soci::into(*text));
        rows.exchange(soci::into(row.done_bytes));
        rows.exchange(soci::into(run.instance));
        rows.exchange(soci::into(run.refusal));
        rows.exchange(soci::into(row.former_start));
        if (!key.empty())
          rows.exchange(soci::use(key));
        rows.alloc();
        rows.prepare(std::string("SELECT ") + columns + " FROM run " + rest);
        rows.define_and_bind();
        rows.execute();
        while (rows.fetch())
          found.push_back(row.to_record());
      },
      error);
  if (done)
    records.swap(found);
  return done;
}

bool Run_History::open_runs(std::vector<Run_Record>& records, std::string& error) const
{
  return select("WHERE ended_at = 0 ORDER BY number", records, error);
}

bool Run_History::last_runs(std::vector<Run_Record>& records, std::string& error) const
{
  // A time that found its job running is noted after that run has got its number.
  return select("WHERE number IN (SELECT max(number) FROM run WHERE NOT (state = " +
                    std::to_string(static_cast<int>(JOB_STATE_SKIPPED)) +
                    " AND started_at = 0) GROUP BY definition_id)",
                records, error);
}

bool Run_History::latest_records(std::vector<Run_Record>& records, std::string& error) const
{
  return select("WHERE number IN (SELECT max(number) FROM run GROUP BY definition_id)", records, error);
}

bool Run_History::find(const std::string& run_id, Run_Record& record, bool& found, std::string& error) const
{
  std::vector<Run_Record> records;
  if (!select("WHERE run_id = :k", records, error, run_id.empty() ? " " : run_id))
    return false;
  found = !records.empty();
  if (found)
    record = records.front();
  return true;
}

bool Run_History::list(const std::string& definition_id, unsigned limit, std::vector<Run_Record>& records,
                       std::string& error) const
{
  const std::string tail = "ORDER BY number DESC LIMIT " + std::to_string(limit);
  return definition_id.empty() ? select(tail, records, error)
                               : select("WHERE definition_id = :k " + tail, records, error, definition_id);
}

bool Run_History::unsent(unsigned limit, std::vector<Run_Record>& records, std::string& error) const
{
  return select("WHERE sent = 0 AND ended_at <> 0 ORDER BY number LIMIT " + std::to_string(limit), records,
                error);
}

bool Run_History::mark_sent(const std::vector<std::string>& run_ids, std::string& error)
{
  return database_.write(
      [&](soci::session& session) {
        for (const std::string& run_id : run_ids)
          session << "UPDATE run SET sent = 1 WHERE run_id = :r AND ended_at <> 0", soci::use(run_id);
      },
      error);
}

bool Run_History::mark_refused(const std::vector<Refused_Run>& runs, std::string& error)
{
  return database_.write(
      [&](soci::session& session) {
        for (const Refused_Run& run : runs)
          session << "UPDATE run SET sent = 1, refusal = :w WHERE run_id = :r AND ended_at <> 0 AND sent = 0",
              soci::use(run.reason), soci::use(run.run_id);
      },
      error);
}

bool Run_History::prune(time_t ended_before, std::vector<std::string>& log_paths, std::string& error)
{
  std::vector<std::string> found;
  const long long limit = ended_before;
  const bool done = database_.write(
      [&](soci::session& session) {
        const std::string old = " FROM run WHERE sent = 1 AND ended_at <> 0 AND ended_at < :t";
        const soci::rowset<std::string> paths =
            (session.prepare << "SELECT log_path" << old, soci::use(limit));
        for (const std::string& path : paths)
          if (!path.empty())
            found.push_back(path);
        session << "DELETE" << old, soci::use(limit);
      },
      error);
  if (done)
    log_paths.swap(found);
  return done;
}
} // namespace kestrel
