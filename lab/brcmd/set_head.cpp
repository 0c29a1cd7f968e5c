#include "lab/brcmd/set_head.h"

#include "lab/common/text.h"

namespace oscar_lab
{

namespace
{

constexpr const char* postgres_major = "15";
constexpr std::uint64_t min_segment_bytes = 1024 * 1024;
constexpr std::uint64_t max_segment_bytes = 1024 * 1024 * 1024;

std::string text_of(const Properties& properties, const char* key)
{
  const auto found = properties.find(key);
  if (found == properties.end() || found->second.empty())
    throw Failure(std::string("the backup stream is damaged: no ") + key);
  return found->second;
}

std::uint64_t number_of(const Properties& properties, const char* key, std::uint64_t maximum)
{
  std::uint64_t number = 0;
  if (!parse_number(text_of(properties, key), maximum, number))
    throw Failure(std::string("the backup stream is damaged: bad ") + key);
  return number;
}

} // namespace

Set_Head parse_set_head(const std::string& text)
{
  const Properties properties = Image_Reader::parse_properties(text);
  if (text_of(properties, "format") != "1")
    throw Failure("the backup has a format that this tool does not know");
  if (text_of(properties, "version") != postgres_major)
    throw Failure("the backup comes from another version of the server");
  Set_Head head;
  head.level = text_of(properties, "level");
  head.mode = text_of(properties, "mode");
  head.id = text_of(properties, "backup_id");
  head.system = text_of(properties, "system");
  head.directory = text_of(properties, "directory");
  head.log_shape.timeline = static_cast<unsigned>(number_of(properties, "timeline", UINT32_MAX));
  head.log_shape.segment_bytes = number_of(properties, "segment_bytes", max_segment_bytes);
  const std::uint64_t bytes = head.log_shape.segment_bytes;
  if ((head.level != "full" && head.level != "incr" && head.level != "diff") ||
      (head.mode != "online" && head.mode != "offline") || bytes < min_segment_bytes ||
      (bytes & (bytes - 1)) != 0)
    throw Failure("the backup stream is damaged: bad head");
  head.full_id = head.id;
  if (!head.is_full()) {
    head.full_id = text_of(properties, "full_id");
    head.base_id = text_of(properties, "base_id");
    head.first_lsn = number_of(properties, "first_lsn", INT64_MAX);
  }
  return head;
}

Set_End parse_set_end(const std::string& text)
{
  const Properties properties = Image_Reader::parse_properties(text);
  Set_End end;
  end.lsn = number_of(properties, "lsn", INT64_MAX);
  end.log_part.first_lsn = number_of(properties, "log_first", INT64_MAX);
  end.log_part.end_lsn = number_of(properties, "log_end", INT64_MAX);
  return end;
}

void require_continuation(const std::string& level, bool restored_before)
{
  if (level != "incr" && level != "diff")
    throw Failure("the stream is not a backup of this tool: no level");
  if (!restored_before)
    throw Failure("a restore must begin with a full backup");
}

void check_continuation(const Set_Head& head, const Pending_Restore& before)
{
  if (head.full_id != before.full_id || head.system != before.system || head.mode != before.mode ||
      head.log_shape.timeline != before.timeline || head.log_shape.segment_bytes != before.segment_bytes)
    throw Failure("backup " + head.id + " continues full backup " + head.full_id + ", but " + before.full_id +
                  " was restored");
  // Log that was restored already does no harm; files of a stopped server must be exactly the ones continued.
  const bool again_from_full =
      head.level == "diff" && head.mode == "online" && head.base_id == before.full_id;
  if (head.base_id != before.id && !again_from_full)
    throw Failure("backup " + head.id + " continues " + head.base_id + ", but " + before.id +
                  " was restored last: a set is missing or out of order");
  if (head.mode == "online" && head.first_lsn > before.lsn)
    throw Failure("backup " + head.id + " begins at " + format_lsn(head.first_lsn) +
                  ", but the restored data end at " + format_lsn(before.lsn));
}

} // namespace oscar_lab
