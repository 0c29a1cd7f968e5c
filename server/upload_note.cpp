#include "server/upload_note.h"

#include "base/uuid.h"
#include "json/json_util.h"

#include <algorithm>
#include <iterator>
#include <stdexcept>

namespace kestrel
{
namespace
{
using json_spirit::Object;
using json_spirit::Value;

const int FORMAT_VERSION = 1;
const char* const STATE_TEXTS[] = {"open", "left", "finished"};
} // namespace

std::string upload_note(const Upload_Record& record)
{
  return write_json(Object{{"version", FORMAT_VERSION},
                           {"id", record.id},
                           {"host_uuid", record.host_uuid},
                           {"pool_id", record.pool_id},
                           {"folder", record.folder},
                           {"name", record.name},
                           {"overwrite", record.overwrite},
                           {"keep_seconds", record.keep_seconds},
                           {"inode", record.inode},
                           {"boot_id", record.boot_id},
                           {"created", record.created},
                           {"state", STATE_TEXTS[record.state]}});
}

Upload_Record upload_from_note(const std::string& text)
{
  Value value;
  std::string error;
  if (!read_json(text, value, error))
    throw std::runtime_error(error);
  const Object& object = value.get_obj();
  if (required<int>(object, "version") != FORMAT_VERSION)
    throw std::runtime_error("it was written by a newer release");
  Upload_Record record;
  record.id = required<std::string>(object, "id");
  record.host_uuid = required<std::string>(object, "host_uuid");
  record.pool_id = required<std::string>(object, "pool_id");
  record.folder = required<std::string>(object, "folder");
  record.name = required<std::string>(object, "name");
  record.overwrite = required<bool>(object, "overwrite");
  record.keep_seconds = required<uint64_t>(object, "keep_seconds");
  record.inode = required<uint64_t>(object, "inode");
  record.boot_id = required<std::string>(object, "boot_id");
  record.created = required<int64_t>(object, "created");
  const std::string state = required<std::string>(object, "state");
  const auto found = std::find(std::begin(STATE_TEXTS), std::end(STATE_TEXTS), state);
  if (found == std::end(STATE_TEXTS) || !is_uuid(record.id))
    throw std::runtime_error("its state or id is unknown");
  record.state = static_cast<Upload_Record::State>(found - std::begin(STATE_TEXTS));
  return record;
}
} // namespace kestrel
