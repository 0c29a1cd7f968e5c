#include "oscar/dump_directory.h"

#include "base/files.h"
#include "base/path_conf.h"
#include "base/scope_guard.h"
#include "base/string_sprintf.h"
#include "base/uuid.h"

#include <ace/Log_Msg.h>
#include <ace/OS_NS_stdlib.h>
#include <ace/OS_NS_string.h>

#include <cerrno>

namespace oscar
{
namespace
{
const char DUMP_ROOT[] = "/var/cache/tarnvik/kestrel3/oscar/dump";

std::string expanded(const std::string& path)
{
  char* const text = ACE_OS::strenvdup(path.c_str());
  if (!text)
    return std::string();
  const kestrel::Scope_Guard release([text] { ACE_OS::free(text); });
  return text;
}

/// The whole path of the definition's own directory, or nothing.
std::string dump_path(const std::string& definition_id)
{
  // Anything else in place of a uuid could name another directory, or expand to one.
  if (!kestrel::is_uuid(definition_id))
    return std::string();
  std::string path;
  string_sprintf(path, "%s/%s", product_path(DUMP_ROOT).c_str(), definition_id.c_str());
  path = expanded(path);
  const std::string end = "/" + definition_id;
  const bool own = path.size() > end.size() && path[0] == '/' &&
                   path.compare(path.size() - end.size(), end.size(), end) == 0;
  return own ? path : std::string();
}
} // namespace

Dump_Directory::Dump_Directory(const std::string& definition_id)
    : definition_id_(definition_id), path_(dump_path(definition_id))
{
}

Dump_Directory::~Dump_Directory()
{
  if (remove_at_end_ && !path_.empty() && rm_rf(path_.c_str()) != 0)
    ACE_ERROR(
        (LM_ERROR,
         "(%P|%t) Dump_Directory: %C cannot be removed: %m; it holds exported data, remove it by hand\n",
         path_.c_str()));
}

bool Dump_Directory::clear()
{
  if (path_.empty()) {
    ACE_ERROR(
        (LM_ERROR,
         "(%P|%t) Dump_Directory::clear: the definition's id \"%C\" is no uuid, so it names no directory "
         "for dump files; nothing is removed and the job does not run\n",
         definition_id_.c_str()));
    return false;
  }
  if (rm_rf(path_.c_str()) == 0)
    return true;
  ACE_ERROR((LM_ERROR,
             "(%P|%t) Dump_Directory::clear: %C cannot be emptied: %m; remove it by hand and run the job "
             "again\n",
             path_.c_str()));
  return false;
}

bool Dump_Directory::create()
{
  if (make_dirs(path_.c_str(), MODE) == 0)
    return true;
  ACE_ERROR((LM_ERROR, "Failed to create directory %s, errno=%d, %m\n", path_.c_str(), errno));
  return false;
}
} // namespace oscar
