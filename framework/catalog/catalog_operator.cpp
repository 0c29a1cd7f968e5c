#include "catalog/catalog_operator.h"

#include <ace/Log_Msg.h>

Catalog_Operator::Catalog_Operator(int connection, int max_seconds_retry)
    : connection_(connection), max_seconds_retry_(max_seconds_retry)
{
}

bool Catalog_Operator::get_view(const char*, const char*, const std::map<std::string, json_spirit::Value>&,
                                json_spirit::Value&)
{
  ACE_ERROR(
      (LM_ERROR, "(%P|%t) Catalog_Operator::get_view: there is no catalog on connection %d\n", connection_));
  return false;
}

bool Catalog_Operator::commit(const Backup_Set&, bool)
{
  ACE_ERROR((LM_ERROR, "(%P|%t) Catalog_Operator::commit: there is no catalog for %d seconds\n",
             max_seconds_retry_));
  return false;
}

bool compute_minor_resource_id(const std::string&, const std::string&, std::string&)
{
  return false;
}

namespace kestrel
{
static int default_retry_seconds = 300;
int catalog_retry_seconds()
{
  return default_retry_seconds;
}
void set_catalog_retry_seconds(int seconds)
{
  default_retry_seconds = seconds;
}
} // namespace kestrel
