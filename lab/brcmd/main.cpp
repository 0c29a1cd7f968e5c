/// The physical backup tool of the stand-in.
#include "lab/brcmd/backup.h"
#include "lab/brcmd/restore.h"
#include "lab/common/arguments.h"
#include "lab/common/text.h"

#include <csignal>
#include <cstdio>
#include <memory>

namespace
{

using namespace oscar_lab;

constexpr const char* usage =
    "usage: brcmd -O backup -d INSTANCE -u USER -p PASSWORD -P PORT -t full|incr|diff -k pipe -f PIPE -e "
    "LOG\n"
    "       brcmd -O restore -d INSTANCE -t backup_point_last -k pipe -f PIPE -e LOG\n"
    "       brcmd --version\n";

void back_up(const Arguments& arguments, const Instance_Files& files, Run_Log& log)
{
  Backup_Request request;
  request.user = arguments.required("-u");
  request.password = arguments.required("-p");
  request.level = arguments.required("-t");
  request.pipe = arguments.required("-f");
  std::uint64_t port = 0;
  if (!parse_number(arguments.required("-P"), 65535, port) || port == 0)
    throw Usage_Failure("the port is a number from 1 to 65535");
  request.port = static_cast<std::uint16_t>(port);
  if (request.level != "full" && request.level != "incr" && request.level != "diff")
    throw Usage_Failure("the level of a backup is full, incr or diff");
  run_backup(files, request, log);
}

void restore(const Arguments& arguments, const Instance_Files& files, Run_Log& log)
{
  arguments.only({"-O", "-d", "-t", "-k", "-f", "-e"}, "in a restore");
  if (arguments.required("-t") != "backup_point_last")
    throw Usage_Failure("a restore takes -t backup_point_last only");
  run_restore(files, arguments.required("-f"), log);
}

int run(int argc, char** argv, std::unique_ptr<Run_Log>& log)
{
  const Arguments arguments(argc, argv,
                            {{"-O", true},
                             {"-d", true},
                             {"-u", true},
                             {"-p", true},
                             {"-P", true},
                             {"-t", true},
                             {"-k", true},
                             {"-f", true},
                             {"-e", true},
                             {"--version", false},
                             {"--help", false}},
                            0);
  if (answers_question(arguments, usage, {"--version"},
                       "brcmd 2.5.6 (build 2.5.6x20230817132129) for Linux x86_64"))
    return 0;
  const std::string& operation = arguments.required("-O");
  if (operation != "backup" && operation != "restore")
    throw Usage_Failure("the operation is backup or restore");
  if (arguments.required("-k") != "pipe")
    throw Usage_Failure("the only kind of target is pipe");
  arguments.required("-f");
  const Instance_Files files(home_of_this_tool(), arguments.required("-d"));
  log = std::make_unique<Run_Log>(arguments.required("-e"));
  if (operation == "backup")
    back_up(arguments, files, *log);
  else
    restore(arguments, files, *log);
  return 0;
}

} // namespace

int main(int argc, char** argv)
{
  // A reader that goes away is an error with a message, not a silent death.
  std::signal(SIGPIPE, SIG_IGN);
  std::unique_ptr<Run_Log> log;
  try {
    return run(argc, argv, log);
  } catch (const Usage_Failure& failure) {
    std::fprintf(stderr, "brcmd: ERROR, %s\n%s", failure.what(), usage);
    return 2;
  } catch (const std::exception& failure) {
    std::fprintf(stderr, "brcmd: ERROR, %s\n", failure.what());
    if (log)
      log->line("ERROR", failure.what());
    return 1;
  }
}
