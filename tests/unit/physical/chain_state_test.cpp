#include "oscar/brcmd_chain_state.h"

#include "support/fault_file_system.h"
#include "support/log_capture.h"
#include "support/temp_dir.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <limits>
#include <sys/stat.h>

using kestrel_test::Fault_File_System;
using kestrel_test::Log_Capture;
using kestrel_test::Temp_Dir;
using oscar::Last_Backup_Info;
using oscar::read_chain_state;

namespace
{
const char COMPLETE[] = "DB1_lastfullbackupid=full-1\n"
                        "DB1_lastfullbackuplsn=100\n"
                        "DB1_lastfullbackupscn=200\n"
                        "DB1_lastbackupid=incr-1\n"
                        "DB1_lastbackuplsn=300\n"
                        "DB1_lastbackupscn=400\n";

std::string replaced(std::string text, const std::string& from, const std::string& to)
{
  return text.replace(text.find(from), from.size(), to);
}
} // namespace

TEST(Chain_State, starts_empty)
{
  const Last_Backup_Info info;
  EXPECT_EQ("", info.last_full_backup_id);
  EXPECT_EQ("", info.last_backup_id);
  EXPECT_EQ(0u, info.last_full_backup_lsn + info.last_full_backup_scn + info.last_backup_lsn +
                    info.last_backup_scn);
  EXPECT_FALSE(info.complete());
}

TEST(Chain_State, reads_all_six_values)
{
  Temp_Dir dir;
  Last_Backup_Info info;
  ASSERT_TRUE(read_chain_state(dir.write("lastlsn.dat", COMPLETE), "DB1", info));
  EXPECT_EQ("full-1", info.last_full_backup_id);
  EXPECT_EQ(100u, info.last_full_backup_lsn);
  EXPECT_EQ(200u, info.last_full_backup_scn);
  EXPECT_EQ("incr-1", info.last_backup_id);
  EXPECT_EQ(300u, info.last_backup_lsn);
  EXPECT_EQ(400u, info.last_backup_scn);
}

TEST(Chain_State, finds_its_lines_among_those_of_other_instances)
{
  Temp_Dir dir;
  const std::string others =
      "DB2_lastbackupid=wrong\nDB11_lastbackupid=wrong\nxDB1_lastbackupid=wrong\n\n# note\n";
  Last_Backup_Info info;
  ASSERT_TRUE(read_chain_state(dir.write("lastlsn.dat", others + COMPLETE + others), "DB1", info));
  EXPECT_EQ("incr-1", info.last_backup_id);
}

TEST(Chain_State, does_not_take_the_lines_of_a_longer_instance_name)
{
  Temp_Dir dir;
  Log_Capture log;
  const std::string path = dir.write("lastlsn.dat", COMPLETE);
  Last_Backup_Info info;
  EXPECT_FALSE(read_chain_state(path, "DB", info));
  log.expect_exactly(LM_ERROR, "Failed to get DB backup info from " + path + ".\n");
  EXPECT_EQ("", info.last_backup_id);
}

TEST(Chain_State, fails_when_one_value_is_missing_or_zero)
{
  Temp_Dir dir;
  const char* const lines[] = {"DB1_lastfullbackupid=full-1\n", "DB1_lastfullbackuplsn=100\n",
                               "DB1_lastfullbackupscn=200\n",   "DB1_lastbackupid=incr-1\n",
                               "DB1_lastbackuplsn=300\n",       "DB1_lastbackupscn=400\n"};
  for (const std::string line : lines) {
    const std::string key = line.substr(0, line.find('=') + 1);
    for (const std::string& bad :
         {std::string(), key + "\n", key.find("id=") == std::string::npos ? key + "0\n" : key + "\n"}) {
      Log_Capture log;
      const std::string path = dir.write("lastlsn.dat", replaced(COMPLETE, line, bad));
      Last_Backup_Info info;
      EXPECT_FALSE(read_chain_state(path, "DB1", info)) << line << bad;
      log.expect_exactly(LM_ERROR, "Failed to get DB1 backup info from " + path + ".\n");
    }
  }
}

TEST(Chain_State, parses_numbers_up_to_the_first_other_character)
{
  Last_Backup_Info info;
  oscar::take_chain_state_line("DB1_lastbackuplsn=+12x", "DB1", info);
  EXPECT_EQ(12u, info.last_backup_lsn);
  oscar::take_chain_state_line("DB1_lastbackuplsn=18446744073709551615", "DB1", info);
  EXPECT_EQ(std::numeric_limits<uint64_t>::max(), info.last_backup_lsn);
  oscar::take_chain_state_line("DB1_lastbackuplsn=99999999999999999999", "DB1", info);
  EXPECT_EQ(std::numeric_limits<uint64_t>::max(), info.last_backup_lsn);
  oscar::take_chain_state_line("DB1_lastbackuplsn=-5", "DB1", info);
  EXPECT_EQ(0u, info.last_backup_lsn);
}

TEST(Chain_State, keeps_an_id_verbatim)
{
  Last_Backup_Info info;
  oscar::take_chain_state_line("DB1_lastbackupid= a = b ", "DB1", info);
  EXPECT_EQ(" a = b ", info.last_backup_id);
}

TEST(Chain_State, takes_the_last_line_of_a_key)
{
  Temp_Dir dir;
  Last_Backup_Info info;
  ASSERT_TRUE(read_chain_state(dir.write("lastlsn.dat", std::string(COMPLETE) + "DB1_lastbackupid=incr-2"),
                               "DB1", info));
  EXPECT_EQ("incr-2", info.last_backup_id);
}

TEST(Chain_State, reports_a_file_that_cannot_be_opened)
{
  Temp_Dir dir;
  Log_Capture log;
  Last_Backup_Info info;
  EXPECT_FALSE(read_chain_state(dir / "none", "DB1", info));
  log.expect_exactly(LM_ERROR, "Failed to open file " + (dir / "none") + ": No such file or directory\n");
}

// Ids are verbatim: with the line ends of another system they keep the '\r', here and in the catalog alike.
TEST(Chain_State, keeps_carriage_returns_in_ids_and_ignores_them_in_numbers)
{
  Temp_Dir dir;
  std::string text;
  for (const char letter : std::string(COMPLETE))
    text += letter == '\n' ? std::string("\r\n") : std::string(1, letter);
  Last_Backup_Info info;
  ASSERT_TRUE(read_chain_state(dir.write("lastlsn.dat", text), "DB1", info));
  EXPECT_EQ("full-1\r", info.last_full_backup_id);
  EXPECT_EQ(100u, info.last_full_backup_lsn);
  EXPECT_EQ("incr-1\r", info.last_backup_id);
  EXPECT_EQ(400u, info.last_backup_scn);
}

TEST(Chain_State, reads_a_last_line_without_an_end)
{
  Temp_Dir dir;
  const std::string text = COMPLETE;
  Last_Backup_Info info;
  ASSERT_TRUE(read_chain_state(dir.write("lastlsn.dat", text.substr(0, text.size() - 1)), "DB1", info));
  EXPECT_EQ(400u, info.last_backup_scn);
}

TEST(Chain_State, finds_its_lines_in_a_huge_file)
{
  Temp_Dir dir;
  std::string text(3000000, 'x'); // one line
  text += "\n";
  for (int i = 0; i < 100000; ++i)
    text += "DB" + std::to_string(i + 2) + "_lastbackupid=other\n";
  Last_Backup_Info info;
  ASSERT_TRUE(read_chain_state(dir.write("lastlsn.dat", text + COMPLETE + text), "DB1", info));
  EXPECT_EQ("incr-1", info.last_backup_id);
}

TEST(Chain_State, fails_on_files_that_hold_nothing_of_the_instance)
{
  Temp_Dir dir;
  std::string with_zeros = COMPLETE;
  for (size_t at = 0; (at = with_zeros.find('\n', at)) != std::string::npos;)
    with_zeros[at] = '\0'; // one line then: the first key takes it all
  for (const std::string& text :
       {std::string(), std::string("\n\n\n"), std::string(1, '\0'),
        replaced(COMPLETE, "DB1_lastbackupscn=400\n", "DB1_lastbackupscn=-400\n"),
        replaced(COMPLETE, "DB1_lastbackupscn=", "DB1_lastbackupscn= "),
        replaced(COMPLETE, "DB1_lastbackupscn=", "DB1_lastbackupscn ="),
        replaced(COMPLETE, "DB1_lastbackupscn=", "db1_lastbackupscn="),
        replaced(COMPLETE, "DB1_lastbackupscn=", " DB1_lastbackupscn="),
        replaced(COMPLETE, "DB1_lastbackupscn=", "DB1_lastbackupscn=++"),
        "\xef\xbb\xbf" + std::string(COMPLETE), with_zeros, std::string(COMPLETE) + "DB1_lastbackupscn=0\n",
        std::string(COMPLETE) + "DB1_lastbackupid=\n"}) {
    Log_Capture log;
    const std::string path = dir.write("lastlsn.dat", text);
    Last_Backup_Info info;
    EXPECT_FALSE(read_chain_state(path, "DB1", info)) << text;
    log.expect_exactly(LM_ERROR, "Failed to get DB1 backup info from " + path + ".\n");
  }
}

TEST(Chain_State, fails_on_a_directory_and_on_a_pipe_that_nobody_writes)
{
  Temp_Dir dir;
  dir.make_dir("directory");
  ASSERT_EQ(0, ::mkfifo((dir / "pipe").c_str(), 0600));
  for (const char* const name : {"directory", "pipe"}) {
    Log_Capture log;
    Last_Backup_Info info;
    EXPECT_FALSE(read_chain_state(dir / name, "DB1", info));
    log.expect_exactly(LM_ERROR, "Failed to get DB1 backup info from " + (dir / name) + ".\n");
  }
}

TEST(Chain_State, reports_a_file_that_may_not_be_read)
{
  Temp_Dir dir;
  const std::string path = dir.write("lastlsn.dat", COMPLETE);
  Log_Capture log;
  Fault_File_System faults;
  faults.fail("open", 1, EACCES);
  Last_Backup_Info info;
  EXPECT_FALSE(read_chain_state(path, "DB1", info));
  log.expect_exactly(LM_ERROR, "Failed to open file " + path + ": Permission denied\n");
  EXPECT_EQ("", info.last_backup_id);
}

TEST(Chain_State, fails_when_a_read_fails_before_all_values_are_there)
{
  Temp_Dir dir;
  const std::string path = dir.write("lastlsn.dat", COMPLETE);
  Log_Capture log;
  Fault_File_System faults;
  faults.fail("read", 1, EIO);
  Last_Backup_Info info;
  EXPECT_FALSE(read_chain_state(path, "DB1", info));
  log.expect_exactly(LM_ERROR, "Failed to get DB1 backup info from " + path + ".\n");
}

TEST(Chain_State, keeps_what_was_read_of_an_incomplete_file)
{
  Temp_Dir dir;
  Log_Capture log;
  log.allow(LM_ERROR, "Failed to get DB1 backup info");
  Last_Backup_Info info;
  EXPECT_FALSE(read_chain_state(dir.write("lastlsn.dat", "DB1_lastbackupid=incr-1\nDB1_lastbackuplsn=7\n"),
                                "DB1", info));
  EXPECT_EQ("incr-1", info.last_backup_id);
  EXPECT_EQ(7u, info.last_backup_lsn);
}

TEST(Chain_State, survives_binary_content)
{
  Temp_Dir dir;
  Log_Capture log;
  std::string garbage(100000, '\xff');
  for (size_t i = 0; i < garbage.size(); i += 3)
    garbage[i] = static_cast<char>(i);
  Last_Backup_Info info;
  EXPECT_FALSE(read_chain_state(dir.write("lastlsn.dat", garbage), "DB1", info));
  log.expect(LM_ERROR, "Failed to get DB1 backup info from ");
}
