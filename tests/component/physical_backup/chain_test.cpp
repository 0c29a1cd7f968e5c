#include "support/answering_catalog.h"
#include "support/physical_bench.h"

#include "catalog/catalog_admin.h"
#include "catalog/catalog_operator.h"
#include "oscar/backup_job_options.h"
#include "oscar/backup_job_source.h"
#include "storage/pool_registry.h"

#include <gtest/gtest.h>

#include <functional>
#include <sys/stat.h>
#include <unistd.h>

using namespace kestrel_test;
using json_spirit::find_value;

namespace
{
const unsigned FAST = 200;
const char FALLBACK[] = "Lack of backup info, run full backup instead.\n";

std::string text_of(const json_spirit::Value& row, const char* key)
{
  const json_spirit::Value& value = find_value(row.get_obj(), key);
  return value.type() == json_spirit::str_type ? value.get_str() : "(none)";
}

std::string number_of(const json_spirit::Value& row, const char* key)
{
  return std::to_string(find_value(row.get_obj(), key).get_uint64());
}

/// Everything that ties a record to its chain, in one line.
std::string chain_keys(const json_spirit::Value& row)
{
  std::string text = text_of(row, "type") + " " + text_of(row, "uuid") + "=" + text_of(row, "backup_id") +
                     " " + number_of(row, "backup_lsn") + "/" + number_of(row, "backup_scn");
  text += " last " + text_of(row, "last_backup_id") + " " + number_of(row, "last_backup_lsn") + "/" +
          number_of(row, "last_backup_scn");
  text += " full " + text_of(row, "last_full_backup_id") + " " + number_of(row, "last_full_backup_lsn") +
          "/" + number_of(row, "last_full_backup_scn");
  return text + " of " + text_of(row, "full_backup_id") + " on " + text_of(row, "predecessor_id");
}

std::string sequence(const std::string& backup_id)
{
  json_spirit::Value result;
  EXPECT_TRUE(Catalog_Operator(-1, 0).get_view("oscar_brcmd", "catalog_sequences",
                                               {{"backup_id", backup_id}, {"order", "desc"}}, result));
  std::string ids;
  for (const json_spirit::Value& row : find_value(result.get_obj(), "rows").get_array())
    ids += (ids.empty() ? "" : " ") + text_of(row, "backup_id");
  return ids;
}

void back_up_as(Physical_Bench& bench, Job_Definition_Subtype level, const std::string& full,
                const std::string& id, unsigned number)
{
  bench.set_next_state(full, id, number);
  bench.back_up(level);
}

/// An incremental job must have run as a full backup with the number, said so once, and left a full record.
void expect_fallback(Physical_Bench& bench, const std::string& id, unsigned number, unsigned fallbacks = 1)
{
  EXPECT_EQ(fallbacks, bench.log.count(LM_INFO, FALLBACK));
  EXPECT_NE(std::string::npos, bench.brcmd_arguments().find(" -t full "));
  const json_spirit::Value row = bench.rows().back();
  const std::string place = id + " " + std::to_string(number) + "/" + std::to_string(number + 1);
  EXPECT_EQ("full " + id + "=" + place + " last " + place + " full " + place + " of " + id + " on (none)",
            chain_keys(row));
  EXPECT_NE(std::string::npos, text_of(row, "backup_file").find("PHYS7_full_"));
  EXPECT_EQ(id, sequence(id));
}
} // namespace

TEST(Physical_Chain, each_record_tells_its_place)
{
  Physical_Bench bench(FAST);
  back_up_as(bench, JOB_DEFINITION_SUBTYPE_FULL, "full-1", "full-1", 10);
  back_up_as(bench, JOB_DEFINITION_SUBTYPE_INCREMENTAL, "full-1", "incr-1", 20);
  back_up_as(bench, JOB_DEFINITION_SUBTYPE_INCREMENTAL, "full-1", "incr-2", 30);
  back_up_as(bench, JOB_DEFINITION_SUBTYPE_CUMULATIVE, "full-1", "diff-1", 40);
  back_up_as(bench, JOB_DEFINITION_SUBTYPE_INCREMENTAL, "full-1", "incr-3", 50);

  const char* const expected[] = {
      "full full-1=full-1 10/11 last full-1 10/11 full full-1 10/11 of full-1 on (none)",
      "incr incr-1=incr-1 20/21 last full-1 10/11 full full-1 10/11 of full-1 on full-1",
      "incr incr-2=incr-2 30/31 last incr-1 20/21 full full-1 10/11 of full-1 on incr-1",
      "diff diff-1=diff-1 40/41 last incr-2 30/31 full full-1 10/11 of full-1 on full-1",
      "incr incr-3=incr-3 50/51 last diff-1 40/41 full full-1 10/11 of full-1 on diff-1",
  };
  const json_spirit::Array rows = bench.rows();
  ASSERT_EQ(std::size(expected), rows.size());
  for (size_t i = 0; i < rows.size(); ++i) {
    EXPECT_EQ(expected[i], chain_keys(rows[i]));
    EXPECT_FALSE(find_value(rows[i].get_obj(), "predecessor_missing").get_bool());
    EXPECT_NE(std::string::npos,
              text_of(rows[i], "backup_file").find("PHYS7_" + text_of(rows[i], "type") + "_2"));
  }
  EXPECT_EQ("full-1 incr-1 incr-2", sequence("incr-2"));
  EXPECT_EQ("full-1 diff-1 incr-3", sequence("incr-3"));
  EXPECT_EQ(0u, bench.log.count(FALLBACK));
  EXPECT_EQ(5u, bench.whole_files().size());
}

TEST(Physical_Chain, a_new_full_backup_begins_a_new_chain)
{
  Physical_Bench bench(FAST);
  back_up_as(bench, JOB_DEFINITION_SUBTYPE_FULL, "full-1", "full-1", 10);
  back_up_as(bench, JOB_DEFINITION_SUBTYPE_INCREMENTAL, "full-1", "incr-1", 20);
  // Full once more: the tool's file now tells of another full backup, with its own numbers.
  std::string state = bench.state_text("full-2", "full-2", 10);
  bench.dir.write("next_state", state);
  bench.back_up();
  back_up_as(bench, JOB_DEFINITION_SUBTYPE_INCREMENTAL, "full-2", "incr-2", 40);
  EXPECT_EQ("full-2 incr-2", sequence("incr-2"));
  EXPECT_EQ("full-1 incr-1", sequence("incr-1"));
  EXPECT_EQ("incr incr-2=incr-2 40/41 last full-2 10/11 full full-2 10/11 of full-2 on full-2",
            chain_keys(bench.rows().back()));
}

TEST(Physical_Chain, an_incremental_on_a_backup_that_was_not_recorded_is_flagged)
{
  Physical_Bench bench(FAST);
  back_up_as(bench, JOB_DEFINITION_SUBTYPE_FULL, "full-1", "full-1", 10);
  // incr-1 is taken by the tool, but the job fails after that: its file has moved on, the catalog has not.
  bench.set_next_state("full-1", "incr-1", 20);
  bench.set_brcmd(bench.good_backup() + "exit 1");
  EXPECT_EQ(JOB_STATE_ERROR, bench.run(bench.backup_fields(JOB_DEFINITION_SUBTYPE_INCREMENTAL)));
  bench.log.expect(LM_ERROR, "brcmd reported a failure");

  bench.set_brcmd(bench.good_backup());
  back_up_as(bench, JOB_DEFINITION_SUBTYPE_INCREMENTAL, "full-1", "incr-2", 30);
  bench.log.expect(LM_WARNING, "'incr-2' builds on backup 'incr-1', which is not in the catalog");
  const json_spirit::Value row = bench.rows().back();
  EXPECT_TRUE(find_value(row.get_obj(), "predecessor_missing").get_bool());
  EXPECT_EQ("", sequence("incr-2"));
  back_up_as(bench, JOB_DEFINITION_SUBTYPE_INCREMENTAL, "full-1", "incr-3", 40);
  bench.log.expect(LM_WARNING, "'incr-3' cannot be restored");
  // A differential backup does not need what is missing.
  back_up_as(bench, JOB_DEFINITION_SUBTYPE_CUMULATIVE, "full-1", "diff-1", 50);
  EXPECT_EQ("full-1 diff-1", sequence("diff-1"));
}

// The file is shared by the instances of one home.
TEST(Physical_Chain, lines_of_other_instances_in_the_file_change_nothing)
{
  Physical_Bench bench(FAST);
  std::string others;
  for (const char* const name : {"PHYS", "PHYS77", "OTHER", "phys7"})
    for (const char* const key : {"lastfullbackupid", "lastfullbackuplsn", "lastfullbackupscn",
                                  "lastbackupid", "lastbackuplsn", "lastbackupscn"})
      others += std::string(name) + "_" + key + "=999\n";
  const auto back_up = [&](Job_Definition_Subtype level, const std::string& id, unsigned number) {
    bench.dir.write("next_state", others + bench.state_text("full-1", id, number) + others);
    bench.back_up(level);
  };
  back_up(JOB_DEFINITION_SUBTYPE_FULL, "full-1", 10);
  back_up(JOB_DEFINITION_SUBTYPE_INCREMENTAL, "incr-1", 20);
  EXPECT_EQ("incr incr-1=incr-1 20/21 last full-1 10/11 full full-1 10/11 of full-1 on full-1",
            chain_keys(bench.rows().back()));
  EXPECT_EQ(0u, bench.log.count(FALLBACK));
}

TEST(Physical_Chain, carries_ids_with_the_line_ends_of_another_system)
{
  Physical_Bench bench(FAST);
  const auto back_up = [&](Job_Definition_Subtype level, const std::string& id, unsigned number) {
    std::string text;
    for (const char letter : bench.state_text("full-1", id, number))
      text += letter == '\n' ? std::string("\r\n") : std::string(1, letter);
    bench.dir.write("next_state", text);
    bench.back_up(level);
  };
  back_up(JOB_DEFINITION_SUBTYPE_FULL, "full-1", 10);
  back_up(JOB_DEFINITION_SUBTYPE_INCREMENTAL, "incr-1", 20);
  EXPECT_EQ("full-1\r incr-1\r", sequence("incr-1\r"));
  EXPECT_EQ(0u, bench.log.count(FALLBACK));
}

TEST(Physical_Chain, carries_numbers_above_the_signed_range)
{
  Physical_Bench bench(FAST);
  const auto state = [&](const std::string& id) {
    return "PHYS7_lastfullbackupid=full-1\nPHYS7_lastfullbackuplsn=18446744073709551615\n"
           "PHYS7_lastfullbackupscn=9223372036854775808\nPHYS7_lastbackupid=" +
           id + "\nPHYS7_lastbackuplsn=18446744073709551615\nPHYS7_lastbackupscn=9223372036854775808\n";
  };
  bench.dir.write("next_state", state("full-1"));
  bench.back_up();
  bench.dir.write("next_state", state("incr-1"));
  bench.back_up(JOB_DEFINITION_SUBTYPE_INCREMENTAL);
  const std::string numbers = " 18446744073709551615/9223372036854775808";
  EXPECT_EQ("incr incr-1=incr-1" + numbers + " last full-1" + numbers + " full full-1" + numbers +
                " of full-1 on full-1",
            chain_keys(bench.rows().back()));
}

namespace
{
/// A backup whose name another one has got: the hour that comes twice when summer time ends, or a clock that
/// was set back.
void expect_kept(const char* kept_suffixes)
{
  Physical_Bench bench(FAST);
  bench.back_up();
  const std::string first = bench.stored_path(bench.whole_files().at(0));
  const std::string content = read_file(first);
  bench.set_stream(bench.make_good_stream(50000));
  bench.set_next_state("full-2", "full-2", 20);
  // Asked for the log mode, it finds the FIFO of the run and gives the first backup the name of this one.
  ASSERT_EQ(0, ::unlink((bench.home + "/bin/isql").c_str())); // a link to the fake tool
  bench.dir.write("home/bin/isql",
                  "#!/bin/sh\nfor fifo in " + (bench.dir / "root/var/opt/tarnvik/kestrel3/agent/oscar") +
                      "/*_fifo; do time=`basename $fifo _fifo`; for file in " + first + kept_suffixes +
                      "; do mv $file `dirname $file`/PHYS7_full_$time${file#" + first +
                      "}; done; done\nprintf 'a\\n-\\nARCHIVELOG\\n(1 row)\\n'\n",
                  0755);
  std::vector<int> alerts;
  EXPECT_EQ(JOB_STATE_ERROR, bench.run(bench.backup_fields(), &alerts));
  EXPECT_EQ(std::vector<int>{14}, alerts);
  bench.log.expect(LM_ERROR, "a backup of this name is stored already");
  const std::vector<std::string> files = bench.whole_files();
  ASSERT_EQ(1u, files.size());
  EXPECT_NE(first, bench.stored_path(files[0]));
  EXPECT_TRUE(content == read_file(bench.stored_path(files[0])));
}
} // namespace

TEST(Physical_Chain, a_backup_never_takes_the_place_of_one_with_the_same_time_in_its_name)
{
  expect_kept("*");
}

// Its side file may come back from wherever the pool was copied from.
TEST(Physical_Chain, a_backup_never_takes_the_place_of_one_that_cannot_be_read_now)
{
  expect_kept("");
}

TEST(Physical_Chain_Fallback, for_every_state_file_that_tells_no_chain)
{
  struct Case {
    const char* name;
    std::function<void(Physical_Bench&, const std::string& path)> prepare;
    const char* reason; // with the path in the place of %
  };
  const char* const incomplete = "Failed to get PHYS7 backup info from %.\n";
  const auto content = [](const std::string& text) {
    return [text](Physical_Bench& bench, const std::string&) {
      bench.dir.write("home/agent/lastlsn.dat", text);
    };
  };
  const auto changed = [](const std::string& from, const std::string& to) {
    return [from, to](Physical_Bench& bench, const std::string&) {
      std::string text = bench.state_text("full-1", "full-1", 10);
      text.replace(text.find(from), from.size(), to);
      bench.dir.write("home/agent/lastlsn.dat", text);
    };
  };
  const Case cases[] = {
      {"missing", [](Physical_Bench&, const std::string& path) { ::unlink(path.c_str()); },
       "Failed to open file %: No such file or directory\n"},
      {"dangling link",
       [](Physical_Bench&, const std::string& path) {
         ::unlink(path.c_str());
         EXPECT_EQ(0, ::symlink("/nowhere/at/all", path.c_str()));
       },
       "Failed to open file %: No such file or directory\n"},
      {"empty", content(""), incomplete},
      {"other instance only", content("DB2_lastbackupid=x\nPHYS72_lastbackupid=x\n"), incomplete},
      {"binary", content(std::string("\0\xff\x01PHYS7_lastbackupid", 22)), incomplete},
      {"no full id", changed("PHYS7_lastfullbackupid=full-1\n", ""), incomplete},
      {"empty full id", changed("lastfullbackupid=full-1", "lastfullbackupid="), incomplete},
      {"full lsn zero", changed("lastfullbackuplsn=10", "lastfullbackuplsn=0"), incomplete},
      {"full scn text", changed("lastfullbackupscn=11", "lastfullbackupscn=x11"), incomplete},
      {"empty last id", changed("lastbackupid=full-1", "lastbackupid="), incomplete},
      {"last lsn negative", changed("lastbackuplsn=10", "lastbackuplsn=-10"), incomplete},
      {"no last scn", changed("PHYS7_lastbackupscn=11\n", ""), incomplete},
      {"another full backup", changed("lastfullbackupid=full-1", "lastfullbackupid=full-0"), nullptr},
      {"another full lsn", changed("lastfullbackuplsn=10", "lastfullbackuplsn=12"), nullptr},
      {"another full scn", changed("lastfullbackupscn=11", "lastfullbackupscn=12"), nullptr},
      {"overflowing full lsn",
       changed("lastfullbackuplsn=10", "lastfullbackuplsn=999999999999999999999999999"), nullptr},
  };
  for (const Case& one : cases) {
    SCOPED_TRACE(one.name);
    Physical_Bench bench(FAST);
    back_up_as(bench, JOB_DEFINITION_SUBTYPE_FULL, "full-1", "full-1", 10);
    const std::string path = bench.home + "/agent/lastlsn.dat";
    one.prepare(bench, path);
    // The tool's script copies over the file.
    bench.set_brcmd("remove " + path + "\n" + bench.good_backup());
    back_up_as(bench, JOB_DEFINITION_SUBTYPE_INCREMENTAL, "full-2", "full-2", 30);
    expect_fallback(bench, "full-2", 30);
    if (one.reason) {
      std::string reason = one.reason;
      reason.replace(reason.find('%'), 1, path);
      bench.log.expect_exactly(LM_ERROR, reason);
    }
  }
}

TEST(Physical_Chain_Fallback, begins_a_chain_that_goes_on)
{
  Physical_Bench bench(FAST);
  bench.log.allow(LM_ERROR, "Failed to open file ");
  back_up_as(bench, JOB_DEFINITION_SUBTYPE_INCREMENTAL, "full-1", "full-1", 10);
  expect_fallback(bench, "full-1", 10);
  back_up_as(bench, JOB_DEFINITION_SUBTYPE_INCREMENTAL, "full-1", "incr-1", 20);
  EXPECT_EQ("full-1 incr-1", sequence("incr-1"));
  EXPECT_EQ(1u, bench.log.count(LM_INFO, FALLBACK));
}

TEST(Physical_Chain_Fallback, for_a_directory_in_the_place_of_the_state_file)
{
  Physical_Bench bench(FAST);
  const std::string path = bench.home + "/agent/lastlsn.dat";
  ASSERT_EQ(0, ::mkdir(path.c_str(), 0700));
  // The tool cannot write its state either: the backup is not recorded.
  bench.set_brcmd("begin ${option:-f}\nput_file " + (bench.dir / "stream") + "\nfinish\n");
  std::vector<int> alerts;
  EXPECT_EQ(JOB_STATE_ERROR, bench.run(bench.backup_fields(JOB_DEFINITION_SUBTYPE_INCREMENTAL), &alerts));
  EXPECT_EQ(std::vector<int>{18}, alerts);
  EXPECT_EQ(1u, bench.log.count(LM_INFO, FALLBACK));
  bench.log.expect_exactly(LM_ERROR, "Failed to get PHYS7 backup info from " + path + ".\n");
  bench.log.expect_exactly(LM_ERROR, "Failed to get PHYS7 backup info from " + path + ".\n");
  bench.log.expect_exactly(LM_ERROR, "Failed to get backup info.\n");
  EXPECT_TRUE(bench.rows().empty());
}

TEST(Physical_Chain_Fallback, for_a_full_backup_of_another_source)
{
  Physical_Bench bench(FAST);
  kestrel::Job_Definition_Fields other = bench.backup_fields();
  oscar::Backup_Job_Source* const source = new oscar::Backup_Job_Source;
  source->id("7d3a1c52-0000-4000-8000-00000000eeee");
  source->entries() = {"oscar/PHYS7"};
  other.source = ACE_Refcounted_Auto_Ptr<Job_Source, ACE_Thread_Mutex>(source);
  EXPECT_EQ(JOB_STATE_COMPLETED, bench.run(other));
  back_up_as(bench, JOB_DEFINITION_SUBTYPE_INCREMENTAL, "full-2", "full-2", 30);
  expect_fallback(bench, "full-2", 30);
}

TEST(Physical_Chain_Fallback, for_a_full_backup_that_was_removed_or_is_not_available)
{
  for (const bool remove : {false, true}) {
    Physical_Bench bench(FAST);
    bench.back_up();
    std::string error;
    ASSERT_TRUE(
        remove ? kestrel::Catalog_Admin().remove("full-1", error)
               : kestrel::Catalog_Admin().set_state("full-1", kestrel::Set_State::unavailable, "", error))
        << error;
    back_up_as(bench, JOB_DEFINITION_SUBTYPE_CUMULATIVE, "full-2", "full-2", 30);
    expect_fallback(bench, "full-2", 30);
  }
}

TEST(Physical_Chain_Fallback, for_every_wrong_shape_of_the_catalogs_answer)
{
  Physical_Bench bench(FAST);
  back_up_as(bench, JOB_DEFINITION_SUBTYPE_FULL, "full-1", "full-1", 10);
  const std::string pool = "\"pool_uuid\": \"" + bench.pool_id + "\"";
  const std::string answers[] = {
      "null",
      "[]",
      "\"rows\"",
      "{}",
      "{\"rows\": null}",
      "{\"rows\": {}}",
      "{\"rows\": 1}",
      "{\"rows\": []}",
      "{\"rows\": [null]}",
      "{\"rows\": [[]]}",
      "{\"rows\": [\"full-1\"]}",
      "{\"rows\": [{}]}",
      "{\"rows\": [{" + pool + "}]}",
      "{\"rows\": [{\"state\": [], " + pool + "}]}",
      "{\"rows\": [{\"state\": null, " + pool + "}]}",
      "{\"rows\": [{\"state\": \"available\", " + pool + "}]}",
      "{\"rows\": [{\"state\": {\"available\": 1}, " + pool + "}]}",
      "{\"rows\": [{\"state\": [\"available\"]}]}",
      "{\"rows\": [{\"state\": [\"available\"], \"pool_uuid\": null}]}",
      "{\"rows\": [{\"state\": [\"available\"], \"pool_uuid\": 1}]}",
      "{\"rows\": [{\"state\": [\"available\"], \"pool_uuid\": \"\"}]}",
      "{\"rows\": [{\"state\": [\"available\"], \"pool_uuid\": \"" + bench.pool_id + "x\"}]}",
      // Only the newest match counts.
      "{\"rows\": [{\"state\": [], " + pool + "}, {\"state\": [\"available\"], " + pool + "}]}",
  };
  Catalog_Answers catalog;
  unsigned runs = 0;
  for (const std::string& answer : answers) {
    SCOPED_TRACE(answer);
    bench.dir.write("home/agent/lastlsn.dat", bench.state_text("full-1", "full-1", 10));
    const unsigned number = 100 + ++runs;
    const std::string id = "full-" + std::to_string(number);
    catalog->answer("catalogs", answer);
    back_up_as(bench, JOB_DEFINITION_SUBTYPE_INCREMENTAL, id, id, number);
    catalog->answer("catalogs", "");
    expect_fallback(bench, id, number, runs);
  }
}

TEST(Physical_Chain_Fallback, does_not_come_from_what_the_state_holds_or_from_later_rows)
{
  Physical_Bench bench(FAST);
  back_up_as(bench, JOB_DEFINITION_SUBTYPE_FULL, "full-1", "full-1", 10);
  const std::string pool = "\"pool_uuid\": \"" + bench.pool_id + "\"";
  Catalog_Answers catalog;
  unsigned number = 20;
  for (const std::string& row : {"{\"state\": [null], " + pool + "}", "{\"state\": [0], " + pool + "}",
                                 "{\"state\": [\"online\", \"copied\"], " + pool + "}, 17, null"}) {
    catalog->answer("catalogs", "{\"rows\": [" + row + "], \"more\": 1}");
    back_up_as(bench, JOB_DEFINITION_SUBTYPE_INCREMENTAL, "full-1", "incr-" + std::to_string(number), number);
    ++number;
  }
  EXPECT_EQ(0u, bench.log.count(FALLBACK));
}
