#include "cli/command_line.h"

#include "cli/exit_code.h"

#include "support/scoped_env.h"

#include <gtest/gtest.h>

#include <map>

using namespace kestrel;

namespace
{
struct Parsed {
  bool ok = false;
  int exit_code = -1;
  Command_Line line;
  std::string out;
  std::string err;
};

Parsed parse(std::vector<std::string> words)
{
  words.insert(words.begin(), "kestrel");
  std::vector<char*> argv;
  for (std::string& word : words)
    argv.push_back(word.data());
  Parsed parsed;
  testing::internal::CaptureStdout();
  testing::internal::CaptureStderr();
  parsed.ok = parse_command_line(static_cast<int>(argv.size()), argv.data(), parsed.line, parsed.exit_code);
  parsed.out = testing::internal::GetCapturedStdout();
  parsed.err = testing::internal::GetCapturedStderr();
  return parsed;
}
} // namespace

TEST(Command_Line, takes_a_backup_with_its_defaults)
{
  const Parsed parsed = parse({"backup", "DB1"});
  ASSERT_TRUE(parsed.ok) << parsed.err;
  EXPECT_EQ("backup", parsed.line.command);
  EXPECT_EQ("DB1", parsed.line.instance);
  EXPECT_EQ("full", parsed.line.level);
  EXPECT_EQ("zstd", parsed.line.compression);
  EXPECT_FALSE(parsed.line.compression_level.has_value());
  EXPECT_EQ(0u, parsed.line.rate_limit_bytes_per_second);
}

TEST(Command_Line, takes_every_option_of_a_backup)
{
  const Parsed parsed = parse({"backup", "DB1", "--pool", "P", "--compression", "lz4", "--compression-level",
                               "9", "--rate-limit", "10m", "--level", "full"});
  ASSERT_TRUE(parsed.ok) << parsed.err;
  EXPECT_EQ("P", parsed.line.pool);
  EXPECT_EQ("lz4", parsed.line.compression);
  EXPECT_EQ(9, parsed.line.compression_level.value());
  EXPECT_EQ(10u * 1024 * 1024, parsed.line.rate_limit_bytes_per_second);
}

TEST(Command_Line, takes_global_options_before_and_after_the_command)
{
  const Parsed before = parse({"--root", "/r", "--json", "backups"});
  ASSERT_TRUE(before.ok) << before.err;
  EXPECT_EQ("/r", before.line.root);
  EXPECT_TRUE(before.line.json);
  const Parsed after = parse({"backups", "DB1", "--json", "--limit", "3"});
  ASSERT_TRUE(after.ok) << after.err;
  EXPECT_TRUE(after.line.json);
  EXPECT_EQ("DB1", after.line.instance);
  EXPECT_EQ(3u, after.line.limit);
}

TEST(Command_Line, names_a_command_that_there_is_not)
{
  const struct {
    std::vector<std::string> words;
    const char* text;
  } cases[] = {{{"bakup"}, "There is no command 'bakup'.\n"},
               {{"--json", "bakup", "DB1", "--level", "full"}, "There is no command 'bakup'.\n"},
               {{"pool", "ad", "main"}, "There is no command 'pool ad'.\n"},
               {{"pool"}, "A subcommand is required\n"},
               {{}, "A subcommand is required\n"},
               {{"backup"}, "INSTANCE is required\n"}};
  for (const auto& each : cases) {
    const Parsed parsed = parse(each.words);
    EXPECT_FALSE(parsed.ok);
    EXPECT_EQ(EXIT_CODE_USAGE, parsed.exit_code);
    EXPECT_EQ(each.text + std::string("Run with --help for more information.\n"), parsed.err);
  }
}

TEST(Command_Line, takes_only_numbers_as_limits)
{
  for (const char* limit : {"-1", "x", "1x", "1.5", "", "99999999999999999999"}) {
    const Parsed parsed = parse({"backups", "--limit", limit});
    EXPECT_FALSE(parsed.ok) << limit;
    EXPECT_EQ(EXIT_CODE_USAGE, parsed.exit_code);
    EXPECT_EQ(0u, parsed.err.find("--limit: '" + std::string(limit) + "' is not a number\n")) << parsed.err;
  }
  EXPECT_EQ(0u, parse({"backups", "--limit", "0"}).line.limit);
}

TEST(Command_Line, tells_the_pool_commands_apart)
{
  const Parsed add = parse({"pool", "add", "main", "--path", "/p", "--default"});
  ASSERT_TRUE(add.ok) << add.err;
  EXPECT_EQ("pool add", add.line.command);
  EXPECT_EQ("main", add.line.pool);
  EXPECT_EQ("/p", add.line.path);
  EXPECT_TRUE(add.line.make_default);
  EXPECT_EQ("pool list", parse({"pool", "list"}).line.command);
  EXPECT_EQ("pool remove", parse({"pool", "remove", "main"}).line.command);
}

TEST(Command_Line, takes_any_number_of_backups_to_verify)
{
  EXPECT_TRUE(parse({"verify"}).line.names.empty());
  EXPECT_EQ((std::vector<std::string>{"a", "b"}), parse({"verify", "a", "b"}).line.names);
}

TEST(Command_Line, has_no_way_to_pass_a_password_in_words)
{
  EXPECT_EQ(EXIT_CODE_USAGE, parse({"login", "DB1", "--user", "u", "--password", "x"}).exit_code);
  EXPECT_EQ(EXIT_CODE_USAGE, parse({"login", "DB1", "--user", "u", "x"}).exit_code);
  const Parsed parsed = parse({"login", "DB1", "--user", "u", "--password-file", "-"});
  ASSERT_TRUE(parsed.ok) << parsed.err;
  EXPECT_EQ("-", parsed.line.password_file);
}

TEST(Command_Line, ends_with_the_usage_code_on_what_it_does_not_know)
{
  const std::vector<std::vector<std::string>> wrong = {{},
                                                       {"nonsense"},
                                                       {"backup"},
                                                       {"backup", "A", "B"},
                                                       {"backup", "A", "--compression", "rar"},
                                                       {"backup", "A", "--compression-level", "x"},
                                                       {"backup", "A", "--compression-level", "99"},
                                                       {"backup", "A", "--rate-limit", "-1"},
                                                       {"backup", "A", "--level", "monthly"},
                                                       {"pool"},
                                                       {"pool", "add", "P"},
                                                       {"show"},
                                                       {"show", "a", "b"},
                                                       {"restore"},
                                                       {"run"},
                                                       {"login", "DB1"}};
  for (const std::vector<std::string>& words : wrong) {
    const Parsed parsed = parse(words);
    EXPECT_FALSE(parsed.ok) << testing::PrintToString(words);
    EXPECT_EQ(EXIT_CODE_USAGE, parsed.exit_code) << testing::PrintToString(words);
    EXPECT_NE("", parsed.out + parsed.err) << testing::PrintToString(words);
  }
}

TEST(Command_Line, shows_help_and_version_with_success)
{
  const Parsed help = parse({"--help"});
  EXPECT_FALSE(help.ok);
  EXPECT_EQ(EXIT_CODE_DONE, help.exit_code);
  EXPECT_NE(std::string::npos,
            help.out.find("Exit codes: 0 done, 1 failed, 2 usage, 3 canceled, 4 skipped."));
  const Parsed version = parse({"--version"});
  EXPECT_EQ(EXIT_CODE_DONE, version.exit_code);
  EXPECT_EQ(0u, version.out.find("kestrel "));
}

TEST(Command_Line, knows_the_levels_by_short_and_long_names)
{
  const std::map<std::string, std::string> levels = {{"full", "full"},         {"incr", "incr"},
                                                     {"incremental", "incr"},  {"diff", "diff"},
                                                     {"differential", "diff"}, {"cumulative", "diff"}};
  for (const auto& [word, level] : levels) {
    const Parsed parsed = parse({"backup", "DB1", "--level", word});
    ASSERT_TRUE(parsed.ok) << parsed.err;
    EXPECT_EQ(level, parsed.line.level);
  }
}

TEST(Command_Line, refuses_other_levels_and_names_those_there_are)
{
  for (const char* word : {"export", "Full", "", "incr "}) {
    const Parsed parsed = parse({"backup", "DB1", "--level", word});
    EXPECT_FALSE(parsed.ok) << word;
    EXPECT_EQ(EXIT_CODE_USAGE, parsed.exit_code);
    EXPECT_NE(std::string::npos, parsed.err.find("full, incr and diff")) << parsed.err;
  }
}

TEST(Command_Line, verifies_all_or_what_is_named)
{
  EXPECT_TRUE(parse({"verify", "--all"}).ok);
  EXPECT_TRUE(parse({"verify", "--all", "--instance", "DB1"}).ok);
  EXPECT_TRUE(parse({"verify", "B1", "B2"}).ok);
  const Parsed both = parse({"verify", "--all", "B1"});
  EXPECT_FALSE(both.ok);
  EXPECT_EQ(EXIT_CODE_USAGE, both.exit_code);
}

TEST(Command_Line, takes_an_export_of_several_objects_with_the_options_of_a_backup)
{
  const Parsed parsed = parse({"export", "DB1", "DB1/DB1/S/T", "--pool", "P", "--compression", "lz4",
                               "--compression-level", "9", "--rate-limit", "10m"});
  ASSERT_TRUE(parsed.ok) << parsed.err;
  EXPECT_EQ("export", parsed.line.command);
  EXPECT_EQ((std::vector<std::string>{"DB1", "DB1/DB1/S/T"}), parsed.line.names);
  EXPECT_EQ("P", parsed.line.pool);
  EXPECT_EQ("lz4", parsed.line.compression);
  EXPECT_EQ(9, parsed.line.compression_level.value());
  EXPECT_EQ(10u * 1024 * 1024, parsed.line.rate_limit_bytes_per_second);
  EXPECT_FALSE(parse({"export"}).ok);
  EXPECT_FALSE(parse({"export", "DB1", "--level", "full"}).ok);
}

TEST(Command_Line, takes_an_import_with_its_names)
{
  const Parsed parsed =
      parse({"import", "latest", "--original", "DB1/DB1/S", "--as", "DB2/DB2/S2", "--pool", "P", "--yes"});
  ASSERT_TRUE(parsed.ok) << parsed.err;
  EXPECT_EQ("import", parsed.line.command);
  EXPECT_EQ(std::vector<std::string>{"latest"}, parsed.line.names);
  EXPECT_EQ("DB1/DB1/S", parsed.line.original);
  EXPECT_EQ("DB2/DB2/S2", parsed.line.target);
  EXPECT_TRUE(parsed.line.assume_yes);
  EXPECT_FALSE(parse({"import"}).ok);
  EXPECT_FALSE(parse({"import", "A", "B"}).ok);
}

TEST(Command_Line, takes_the_server_from_the_environment_unless_it_is_given)
{
  const kestrel_test::Scoped_Env server("KESTREL_SERVER", "https://one");
  const Parsed by_environment = parse({"jobs"});
  EXPECT_EQ("https://one", by_environment.line.server);
  EXPECT_FALSE(by_environment.line.server_given);
  const Parsed given = parse({"jobs", "--server=https://two"});
  EXPECT_EQ("https://two", given.line.server);
  EXPECT_TRUE(given.line.server_given);
}

TEST(Command_Line, leaves_the_agents_own_server_to_the_agent)
{
  const kestrel_test::Scoped_Env server("KESTREL_SERVER", "");
  const Parsed parsed = parse({"agent", "--server", "https://one"});
  ASSERT_TRUE(parsed.ok) << parsed.err;
  EXPECT_EQ("", parsed.line.server);
}

TEST(Command_Line, takes_several_hosts_and_flags_of_jobs)
{
  const Parsed define = parse({"job", "define", "f.json", "--host", "a", "--host", "b", "--disabled"});
  ASSERT_TRUE(define.ok) << define.err;
  EXPECT_EQ("job define", define.line.command);
  EXPECT_EQ((std::vector<std::string>{"a", "b"}), define.line.hosts);
  EXPECT_TRUE(define.line.disabled);
  const Parsed run = parse({"job", "run", "nightly", "--wait"});
  EXPECT_TRUE(run.line.wait);
  const Parsed log = parse({"job", "log", "-f", "nightly"});
  EXPECT_TRUE(log.line.follow);
  EXPECT_EQ(2, parse({"job"}).exit_code);
  EXPECT_EQ(2, parse({"job", "log"}).exit_code);
}

TEST(Command_Line, refuses_commands_that_make_no_sense_with_or_without_a_server)
{
  const kestrel_test::Scoped_Env none("KESTREL_SERVER", "");
  for (const std::vector<std::string>& words : {std::vector<std::string>{"jobs"},
                                                {"--server", "https://one", "verify"},
                                                {"backup", "DB1", "--host", "a"}}) {
    const Parsed parsed = parse(words);
    ASSERT_TRUE(parsed.ok) << words.front();
    testing::internal::CaptureStderr();
    EXPECT_EQ(2, run_command(parsed.line)) << words.front();
    EXPECT_NE("", testing::internal::GetCapturedStderr()) << words.front();
  }
}

TEST(Command_Line, runs_the_inner_of_two_commands)
{
  EXPECT_EQ("server", parse({"server"}).line.command);
  EXPECT_EQ("server user list", parse({"server", "user", "list"}).line.command);
}
