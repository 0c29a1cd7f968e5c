#include "catalog/catalog_chain.h"

#include <set>

namespace kestrel
{
namespace
{
std::string link_missing(const std::string& backup_id, bool is_end)
{
  return "Backup " + backup_id + (is_end ? "" : ", on which a later one builds,") + " is not in the catalog";
}

std::string base_not_full(const std::string& backup_id, const std::string& base_id)
{
  return "Backup " + base_id + ", on which the differential backup " + backup_id +
         " builds, is not a full backup";
}
} // namespace

/// One set as far as its chain goes.
struct Chain_Judge::Link {
  std::string type;
  std::string predecessor_id;
  std::string state;
  std::string state_reason;
};

/// Prepared once; the bound texts are members, so that their addresses stay.
struct Chain_Judge::Statements {
  explicit Statements(soci::session& session) : link(session), child(session)
  {
    const std::string of_set = " FROM backup_set WHERE catalog = 'oscar_brcmd' AND resource_uuid = :r AND ";
    link.alloc();
    link.prepare("SELECT type, predecessor_id, state, state_reason" + of_set + "backup_id = :b");
    link.exchange(soci::into(row.type, type_is));
    link.exchange(soci::into(row.predecessor_id, predecessor_is));
    link.exchange(soci::into(row.state));
    link.exchange(soci::into(row.state_reason));
    bind(link);
    child.alloc();
    child.prepare("SELECT backup_id" + of_set + "predecessor_id = :b ORDER BY id");
    child.exchange(soci::into(child_id, child_is));
    bind(child);
  }

  void bind(soci::statement& statement)
  {
    statement.exchange(soci::use(resource, "r"));
    statement.exchange(soci::use(backup, "b"));
    statement.define_and_bind();
  }

  std::string resource;
  std::string backup;
  Link row;
  soci::indicator type_is = soci::i_null;
  soci::indicator predecessor_is = soci::i_null;
  std::string child_id;
  soci::indicator child_is = soci::i_null;
  soci::statement link;
  soci::statement child;
};

Chain_Judge::Chain_Judge(soci::session& session) : statements_(new Statements(session)) {}

Chain_Judge::~Chain_Judge() = default;

bool Chain_Judge::find(const Key& key, Link& link)
{
  statements_->resource = key.first;
  statements_->backup = key.second;
  statements_->link.execute(false);
  if (!statements_->link.fetch())
    return false;
  link = statements_->row;
  if (statements_->type_is != soci::i_ok)
    link.type.clear();
  if (statements_->predecessor_is != soci::i_ok)
    link.predecessor_id.clear();
  return true;
}

Chain_Judge::Verdict Chain_Judge::judge(const std::string& resource_uuid, const std::string& backup_id)
{
  // Down to the full backup, or to a set that was judged before; then the verdict goes the same way up.
  std::vector<Key> way;
  std::set<Key> seen;
  Verdict verdict;
  std::string differential_id; // the set above the present one, when it needs a full backup below it
  for (Key key(resource_uuid, backup_id);;) {
    if (!seen.insert(key).second) {
      verdict.problem = "The chain of backup " + backup_id + " runs in a circle at " + key.second;
      break;
    }
    const auto known = verdicts_.find(key);
    if (known != verdicts_.end() && differential_id.empty()) {
      verdict = known->second;
      break;
    }
    Link link;
    if (!find(key, link)) {
      verdict.problem = link_missing(key.second, way.empty());
      break;
    }
    if (!differential_id.empty() && link.type != "full") {
      verdict.problem = base_not_full(differential_id, key.second);
      break;
    }
    way.push_back(key);
    if (link.state != "available") {
      verdict.problem = "Backup " + key.second + " is not available: " + link.state_reason;
      break;
    }
    if (link.predecessor_id.empty())
      break;
    differential_id = link.type == "diff" ? key.second : std::string();
    key.second = link.predecessor_id;
  }
  for (; !way.empty(); way.pop_back()) {
    verdict.length = verdict.problem.empty() ? verdict.length + 1 : 0;
    verdicts_[way.back()] = verdict;
  }
  return verdict;
}

std::vector<std::string> Chain_Judge::children(const std::string& resource_uuid, const std::string& backup_id)
{
  statements_->resource = resource_uuid;
  statements_->backup = backup_id;
  std::vector<std::string> ids;
  statements_->child.execute(false);
  while (statements_->child.fetch())
    if (statements_->child_is == soci::i_ok)
      ids.push_back(statements_->child_id);
  return ids;
}
} // namespace kestrel
