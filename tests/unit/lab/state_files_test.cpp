#include "lab/brcmd/set_head.h"
#include "lab/common/pending_restore.h"
#include "lab/common/set_notes.h"
#include "lab/common/text.h"

#include <gtest/gtest.h>

using namespace oscar_lab;

namespace
{

Pending_Restore sample_pending()
{
  Pending_Restore pending;
  pending.complete = true;
  pending.full_id = "20260101000000-1";
  pending.id = "20260102000000-2";
  pending.mode = "online";
  pending.system = "777";
  pending.timeline = 1;
  pending.segment_bytes = 16777216;
  pending.lsn = UINT64_C(0x1234567890);
  pending.roots = {{"", "/o/pgdata"}, {"16385", "/o/a b.dbf.d"}};
  return pending;
}

Set_Notes sample_notes()
{
  Set_Notes notes;
  notes.full_id = "20260101000000-1";
  notes.mode = "offline";
  notes.system = "777";
  notes.timeline = 1;
  notes.lsn = 99;
  notes.files[note_key("", "base/1/1259")] = {8192, 5, UINT64_C(1767225600123456789), 6};
  notes.files[note_key("16385", "PG_15/1/2")] = {0, 7, 8, 9};
  return notes;
}

/// Text without the line that begins so.
std::string without_line(const std::string& text, const std::string& beginning)
{
  std::string kept;
  for (const std::string& line : split_lines(text))
    if (!starts_with(line, beginning))
      kept += line + "\n";
  return kept;
}

std::string replaced(std::string text, const std::string& from, const std::string& to)
{
  return text.replace(text.find(from), from.size(), to);
}

const char* const head_text =
    "format=1\ninstance=DB\ndirectory=/o\nlevel=incr\nmode=online\nsystem=777\ntimeline=1\n"
    "segment_bytes=16777216\nbackup_id=3\nversion=15\nbase_id=2\nfull_id=1\nfirst_lsn=100\n";

Pending_Restore restored(const std::string& full, const std::string& last, std::uint64_t lsn)
{
  Pending_Restore pending = sample_pending();
  pending.full_id = full;
  pending.id = last;
  pending.lsn = lsn;
  return pending;
}

} // namespace

TEST(Note_About_A_Restore, comes_back_as_written)
{
  const std::string text = format_pending(sample_pending());
  EXPECT_EQ(format_pending(parse_pending(text)), text);
  EXPECT_EQ(parse_pending(text).roots[1].target, "/o/a b.dbf.d");
  EXPECT_TRUE(parse_pending(text).complete);
}

TEST(Note_About_A_Restore, is_refused_when_damaged)
{
  const std::string text = format_pending(sample_pending());
  for (const char* const line : {"full_id", "id", "timeline", "segment_bytes", "lsn", "root", "end"})
    EXPECT_THROW(parse_pending(without_line(text, line)), Failure) << line;
  EXPECT_THROW(parse_pending(""), Failure);
  EXPECT_THROW(parse_pending(text + "junk\n"), Failure);
  EXPECT_THROW(parse_pending(replaced(text, "root=16385\t", "root=16385 ")), Failure);
  EXPECT_THROW(parse_pending(replaced(text, "timeline=1", "timeline=-1")), Failure);
  EXPECT_FALSE(parse_pending(without_line(text, "complete")).complete);
}

TEST(Note_About_A_Backup, comes_back_as_written)
{
  const Set_Notes notes = parse_notes(format_notes(sample_notes()));
  EXPECT_EQ(format_notes(notes), format_notes(sample_notes()));
  EXPECT_EQ(notes.files.at(":base/1/1259").modified_nsec, UINT64_C(1767225600123456789));
  EXPECT_TRUE(notes.files.at("16385:PG_15/1/2") == sample_notes().files.at("16385:PG_15/1/2"));
}

TEST(Note_About_A_Backup, is_refused_when_damaged)
{
  const std::string text = format_notes(sample_notes());
  for (const char* const line : {"full_id", "mode", "system", "timeline", "lsn", "end"})
    EXPECT_THROW(parse_notes(without_line(text, line)), Failure) << line;
  EXPECT_THROW(parse_notes(replaced(text, "mode=offline", "mode=other")), Failure);
  EXPECT_THROW(parse_notes(replaced(text, "\t8192\t", "\t81x2\t")), Failure);
  EXPECT_THROW(parse_notes(replaced(text, "\t8192\t", "\t")), Failure);
  EXPECT_THROW(parse_notes(replaced(text, "lsn=99", "lsn=0")), Failure);
  EXPECT_THROW(parse_notes(text.substr(0, text.size() / 2)), Failure);
}

TEST(Head_Of_A_Backup, needs_all_its_values)
{
  const Set_Head head = parse_set_head(head_text);
  EXPECT_EQ(head.base_id, "2");
  EXPECT_EQ(head.first_lsn, 100U);
  for (const std::string& line : split_lines(without_line(head_text, "instance")))
    EXPECT_THROW(parse_set_head(without_line(head_text, line)), Failure) << line;
  EXPECT_THROW(parse_set_head(replaced(head_text, "level=incr", "level=weekly")), Failure);
  EXPECT_THROW(parse_set_head(replaced(head_text, "version=15", "version=14")), Failure);
  EXPECT_THROW(parse_set_head(replaced(head_text, "16777216", "16777215")), Failure);
  EXPECT_THROW(parse_set_head(replaced(head_text, "first_lsn=100", "first_lsn=ten")), Failure);
}

TEST(Head_Of_A_Backup, of_a_full_backup_needs_no_predecessor)
{
  std::string text = replaced(head_text, "level=incr", "level=full");
  for (const char* const line : {"base_id", "full_id", "first_lsn"})
    text = without_line(text, line);
  EXPECT_EQ(parse_set_head(text).full_id, "3");
}

TEST(Continuation, follows_its_base_without_a_gap)
{
  const Set_Head head = parse_set_head(head_text);
  EXPECT_NO_THROW(check_continuation(head, restored("1", "2", 100)));
  EXPECT_NO_THROW(check_continuation(head, restored("1", "2", 150)));
  EXPECT_THROW(check_continuation(head, restored("1", "2", 99)), Failure);
  EXPECT_THROW(check_continuation(head, restored("1", "1", 100)), Failure) << "a set was left out";
  EXPECT_THROW(check_continuation(head, restored("9", "2", 100)), Failure) << "another full backup";
  Pending_Restore other = restored("1", "2", 100);
  other.system = "778";
  EXPECT_THROW(check_continuation(head, other), Failure);
  other = restored("1", "2", 100);
  other.mode = "offline";
  EXPECT_THROW(check_continuation(head, other), Failure);
}

TEST(Continuation, from_the_full_backup_may_repeat_log_but_not_pages)
{
  const std::string diff =
      replaced(replaced(head_text, "level=incr", "level=diff"), "base_id=2", "base_id=1");
  EXPECT_NO_THROW(check_continuation(parse_set_head(diff), restored("1", "1", 100)));
  EXPECT_NO_THROW(check_continuation(parse_set_head(diff), restored("1", "2", 150)));
  Pending_Restore before = restored("1", "2", 150);
  before.mode = "offline";
  EXPECT_THROW(check_continuation(parse_set_head(replaced(diff, "mode=online", "mode=offline")), before),
               Failure);
}

TEST(Continuation, needs_something_to_continue)
{
  EXPECT_NO_THROW(require_continuation("incr", true));
  EXPECT_NO_THROW(require_continuation("diff", true));
  EXPECT_THROW(require_continuation("incr", false), Failure);
  EXPECT_THROW(require_continuation("", true), Failure);
  EXPECT_THROW(require_continuation("full2", true), Failure);
}
