#include "oscar/oscar_metadata.h"

#include "json/json_util.h"

#include <ace/Log_Msg.h>

// Reports the place of the check, therefore a macro.
#define METADATA_IS_OBJECT                                                                                   \
  (metadata_.type() == json_spirit::obj_type || [] {                                                         \
    ACE_ERROR((LM_EMERGENCY,                                                                                 \
               "Unexpected error in /builds/7/rpm/src/backup/oscar/oscar_metadata:%d, "                      \
               "metadata_ is not object!\n",                                                                 \
               __LINE__));                                                                                   \
    return false;                                                                                            \
  }())

namespace oscar
{
namespace
{
const char DBINSTANCE[] = "dbinstance";
const char TABLESPACES[] = "tablespaces";
} // namespace

bool Oscar_Metadata::get_dbinstance(std::string& value) const
{
  if (!METADATA_IS_OBJECT)
    return false;
  const json_spirit::Value& found = json_spirit::find_value(metadata_.get_obj(), DBINSTANCE);
  if (found.type() != json_spirit::str_type)
    return false;
  value = found.get_str();
  return true;
}

bool Oscar_Metadata::set_dbinstance(const std::string& value)
{
  if (!METADATA_IS_OBJECT)
    return false;
  kestrel::set_value(metadata_.get_obj(), DBINSTANCE, value);
  return true;
}

bool Oscar_Metadata::get_tablespaces(std::vector<json_spirit::Value>& value) const
{
  if (!METADATA_IS_OBJECT)
    return false;
  const json_spirit::Value& found = json_spirit::find_value(metadata_.get_obj(), TABLESPACES);
  if (found.type() != json_spirit::array_type)
    return false;
  value = found.get_array();
  return true;
}

bool Oscar_Metadata::set_tablespaces(const std::vector<json_spirit::Value>& value)
{
  if (!METADATA_IS_OBJECT)
    return false;
  kestrel::set_value(metadata_.get_obj(), TABLESPACES, value);
  return true;
}
} // namespace oscar
