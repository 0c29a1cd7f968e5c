#include "agent/catalog_view.h"

#include "base/clock.h"
#include "catalog/catalog_back_end.h"

#include <ace/Log_Msg.h>

namespace kestrel
{
namespace
{
constexpr int64_t busy_limit_msec = 10000;
constexpr int64_t retry_msec = 100;
} // namespace

bool query_catalog(const char* catalog, const char* view, const Catalog_View_Query& query,
                   json_spirit::Object& answer, std::string& error)
{
  const int64_t give_up_msec = clock().monotonic_msec() + busy_limit_msec;
  json_spirit::Value result;
  for (;;) {
    const Catalog_Status status = catalog_back_end()->get_view(catalog, view, query, result, error);
    if (status == Catalog_Status::done)
      break;
    if (status != Catalog_Status::busy || clock().monotonic_msec() >= give_up_msec)
      return false;
    clock().sleep_msec(retry_msec);
  }
  answer = result.get_obj();
  return true;
}

std::string note_damage(const json_spirit::Object& row, const std::string& problem)
{
  const json_spirit::Value& told = json_spirit::find_value(row, "unreadable");
  const std::string damage = told.type() == json_spirit::str_type ? told.get_str() : problem;
  if (damage.empty())
    return damage;
  const json_spirit::Value& id = json_spirit::find_value(row, "uuid");
  ACE_ERROR(
      (LM_WARNING,
       "(%P|%t) The catalog's record of backup %C is damaged: %C. The backup cannot be used until a saved "
       "copy of the catalog is put back; the others can\n",
       id.type() == json_spirit::str_type ? id.get_str().c_str() : "(without an id)", damage.c_str()));
  return damage;
}

uint64_t number_of_row(const json_spirit::Object& row, const char* key)
{
  const json_spirit::Value& value = json_spirit::find_value(row, key);
  return value.type() == json_spirit::int_type ? value.get_uint64() : 0;
}
} // namespace kestrel
