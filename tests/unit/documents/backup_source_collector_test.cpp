#include "oscar/backup_source_collector.h"

#include "support/log_capture.h"

#include <gtest/gtest.h>

using kestrel_test::Log_Capture;
using oscar::Backup_Source_Collector;

namespace
{
/// One record as text, its fields joined.
std::string joined(const Backup_Source_Collector::Source& source)
{
  return source.servername + "|" + source.dbname + "|" + source.schema + "|" + source.table;
}

std::vector<std::string> collected(const std::vector<std::string>& entries)
{
  Backup_Source_Collector collector;
  EXPECT_EQ(collector.collect(entries), 0);
  std::vector<std::string> texts;
  for (const auto& source : collector.sources())
    texts.push_back(joined(source));
  return texts;
}

typedef std::vector<std::string> Strings;
} // namespace

TEST(Backup_Source_Collector, gives_one_record_for_each_entry)
{
  EXPECT_EQ(collected({"oscar/S", "oscar/S/D", "oscar/S/D/C", "oscar/S/D/C/T", "oscar/S/D/C/T/more"}),
            (Strings{"S|||", "S|D||", "S|D|C|", "S|D|C|T", "S|D|C|T"}));
}

TEST(Backup_Source_Collector, passes_over_an_entry_without_a_server)
{
  Log_Capture log;
  EXPECT_EQ(collected({"oscar", "oscar/A", "oscarx"}), (Strings{"A|||"}));
  EXPECT_TRUE(log.lines().empty());
}

TEST(Backup_Source_Collector, looks_only_at_the_first_letters_of_the_prefix)
{
  EXPECT_EQ(collected({"oscarx/a"}), (Strings{"a|||"}));
}

TEST(Backup_Source_Collector, keeps_empty_segments)
{
  EXPECT_EQ(collected({"oscar//D", "oscar/S/"}), (Strings{"|D||", "S|||"}));
}

TEST(Backup_Source_Collector, decodes_escapes_inside_a_segment)
{
  EXPECT_EQ(collected({"oscar/S%2FX/D%20E/%zz/100%"}), (Strings{"S/X|D E|%zz|100%"}));
}

TEST(Backup_Source_Collector, fails_at_the_first_entry_of_another_kind_and_keeps_the_records_before_it)
{
  Log_Capture log;
  Backup_Source_Collector collector;
  EXPECT_EQ(collector.collect({"oscar/a", "mysql/a", "oscar/b"}), -1);
  EXPECT_TRUE(log.expect_exactly(LM_ERROR, "Failed to collect oscar source:\"mysql/a\" to backup"));
  ASSERT_EQ(collector.sources().size(), 1u);
  EXPECT_EQ(joined(collector.sources()[0]), "a|||");
}

TEST(Backup_Source_Collector, fails_for_an_empty_entry_and_one_in_capitals)
{
  Log_Capture log;
  Backup_Source_Collector collector;
  EXPECT_EQ(collector.collect({""}), -1);
  EXPECT_TRUE(log.expect_exactly(LM_ERROR, "Failed to collect oscar source:\"\" to backup"));
  EXPECT_EQ(collector.collect({"OSCAR/a"}), -1);
  EXPECT_TRUE(log.expect_exactly(LM_ERROR, "Failed to collect oscar source:\"OSCAR/a\" to backup"));
}

TEST(Backup_Source_Collector, no_entries_give_no_records)
{
  EXPECT_TRUE(collected({}).empty());
}
