#pragma once

#include "base/charset.h"
#include "base/snprintf_t.h"

#include <string>

namespace oscar
{
/// <oscar_home>/admin/<file name>, in the local code page. The file name has room for 31 characters; the
/// servers look for their files under the same cut names.
inline std::string admin_file(const char* oscar_home, const snprintf_t<32>& file_name)
{
  const std::string path = std::string(oscar_home) + "/admin/" + file_name.c_str();
  return UTF16_String(path.c_str()).c_local();
}

inline std::string instance_conf_file(const char* oscar_home, const char* instance)
{
  return admin_file(oscar_home, snprintf_t<32>("%s.conf", instance));
}

inline std::string instance_db_file(const char* oscar_home, const char* instance)
{
  return admin_file(oscar_home, snprintf_t<32>("%s.db", instance));
}
} // namespace oscar
