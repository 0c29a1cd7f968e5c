#include "console_fixture.h"

#include "cli/console.h"
#include "cli/console_credentials.h"
#include "cli/exit_code.h"

namespace kestrel_test
{
using namespace kestrel;

const char* const Console_Test::host_1 = "11111111-1111-4111-8111-111111111111";
const char* const Console_Test::host_2 = "22222222-2222-4222-8222-222222222222";
const char* const Console_Test::db1_on_1 = "aaaaaaa1-0000-4000-8000-000000000001";
const char* const Console_Test::db1_on_2 = "aaaaaaa2-0000-4000-8000-000000000002";
const char* const Console_Test::db2_on_1 = "bbbbbbb1-0000-4000-8000-000000000003";
const char* const Console_Test::pool = "cccccccc-0000-4000-8000-000000000004";
const char* const Console_Test::job = "dddddddd-0000-4000-8000-000000000005";

namespace
{
std::string instance(const std::string& name, const std::string& uuid)
{
  return R"({"name":")" + name + R"(","uuid":")" + uuid +
         R"(","type":"oscar","port":2010,"version":"8.0","state":"open","home":"/opt/oscar","accounts":["sysdba"]})";
}
} // namespace

Console_Test::Console_Test()
    : console_directory_("KESTREL_CONSOLE_DIR", directory_.path()), no_server_("KESTREL_SERVER", ""),
      transport_(server_)
{
  Console_Credentials credentials;
  credentials.url = "https://backup:7480";
  credentials.user = "olga";
  credentials.role = "operator";
  credentials.token = "a-token-nobody-must-see";
  std::string path;
  std::string error;
  EXPECT_TRUE(save_credentials(credentials, path, error)) << error;
  server_->answer(
      "GET /k2/r/hosts", 200,
      std::string(R"({"hosts":[{"uuid":")") + host_1 +
          R"(","name":"alpha","online":true,"address":"10.0.0.1","version":"3.0","last_seen":1700000000,)" +
          R"("instances":[)" + instance("DB1", db1_on_1) + "," + instance("DB2", db2_on_1) +
          R"(]},{"uuid":")" + host_2 +
          R"(","name":"beta","online":false,"address":"10.0.0.2","version":"3.0","last_seen":0,)" +
          R"("instances":[)" + instance("DB1", db1_on_2) + "]}]}");
  server_->answer("GET /k2/r/jobs", 200, R"({"jobs":[]})");
  server_->answer("GET /k2/r/pools", 200,
                  std::string(R"({"pools":[{"id":")") + pool +
                      R"(","name":"main","path":"/backup","default":true}]})");
}

Command_Outcome Console_Test::run(std::vector<std::string> words)
{
  words.insert(words.begin(), {"kestrel", "--server", "backup", "--quiet"});
  std::vector<char*> argv;
  for (std::string& word : words)
    argv.push_back(word.data());
  Command_Line line;
  Command_Outcome outcome;
  testing::internal::CaptureStdout();
  testing::internal::CaptureStderr();
  if (parse_command_line(static_cast<int>(argv.size()), argv.data(), line, outcome.code)) {
    Console console(line);
    if (!line.actions.served)
      outcome.code = EXIT_CODE_USAGE;
    else
      outcome.code = console.start() ? line.actions.served(console) : EXIT_CODE_FAILED;
  }
  outcome.out = testing::internal::GetCapturedStdout();
  outcome.err = testing::internal::GetCapturedStderr();
  return outcome;
}
} // namespace kestrel_test
