#include "catalog/catalog_operator.h"

#include "base/checksum.h"
#include "catalog/catalog_back_end.h"
#include "catalog/catalog_repeat.h"
#include "catalog/catalog_retry.h"

#include <ace/Log_Msg.h>

#include <stdexcept>

namespace
{
bool log_failure(const char* operation, const std::string& error)
{
  ACE_ERROR((LM_ERROR, "(%P|%t) Catalog_Operator::%s: %s\n", operation, error.c_str()));
  return false;
}

/// An empty chain is an answer, not an error, but whoever reads the log wants to know why.
void log_problem(const json_spirit::Value& result)
{
  if (result.type() != json_spirit::obj_type)
    return;
  const json_spirit::Value& problem = json_spirit::find_value(result.get_obj(), "problem");
  if (problem.type() == json_spirit::str_type)
    ACE_DEBUG((LM_NOTICE, "(%P|%t) Catalog_Operator::get_view: %s\n", problem.get_str().c_str()));
}
} // namespace

Catalog_Operator::Catalog_Operator(int connection, int max_seconds_retry)
    : connection_(connection), max_seconds_retry_(max_seconds_retry)
{
}

bool Catalog_Operator::get_view(const char* catalog, const char* view,
                                const std::map<std::string, json_spirit::Value>& query,
                                json_spirit::Value& result)
{
  if (!catalog || !view)
    return log_failure("get_view", "The name of the catalog or of the view is missing");
  if (connection_ >= 0)
    return log_failure("get_view", "There is no catalog connection " + std::to_string(connection_));
  try {
    const std::shared_ptr<kestrel::Catalog_Back_End> back_end = kestrel::catalog_back_end();
    json_spirit::Value answer;
    std::string error;
    const bool done = kestrel::retry_while_busy(max_seconds_retry_, error, [&](std::string& problem) {
      return back_end->get_view(catalog, view, query, answer, problem);
    });
    if (!done)
      return log_failure("get_view", error);
    log_problem(answer);
    result = std::move(answer);
    return true;
  } catch (const std::exception& error) {
    return log_failure("get_view", error.what());
  }
}

bool Catalog_Operator::commit(const Backup_Set& set, bool must_be_new)
{
  if (connection_ >= 0)
    return log_failure("commit", "There is no catalog connection " + std::to_string(connection_));
  try {
    const std::shared_ptr<kestrel::Catalog_Back_End> back_end = kestrel::catalog_back_end();
    const kestrel::Backup_Record record = set.record();
    std::string error, warning;
    bool repeated = false;
    const bool done = kestrel::retry_while_busy(max_seconds_retry_, error, [&](std::string& problem) {
      const kestrel::Catalog_Status status =
          kestrel::commit_again(*back_end, record, must_be_new, repeated, warning, problem);
      repeated = true;
      return status;
    });
    if (!done)
      return log_failure("commit", error);
    if (!warning.empty())
      ACE_ERROR((LM_WARNING, "(%P|%t) Catalog_Operator::commit: %s\n", warning.c_str()));
    return true;
  } catch (const std::exception& error) {
    return log_failure("commit", error.what());
  }
}

bool compute_minor_resource_id(const std::string& resource, const std::string& backup_type,
                               std::string& minor_id)
{
  if (resource.empty() || backup_type.empty())
    return false;
  kestrel::Xxh3_128 checksum;
  checksum.update(resource.c_str(),
                  resource.size() + 1); // with the zero, so that "ab" + "c" is not "a" + "bc"
  checksum.update(backup_type.data(), backup_type.size());
  minor_id = checksum.hex();
  return true;
}
