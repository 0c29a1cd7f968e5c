/// The export tool of the stand-in: a database, a schema or a table into one file.
#include "lab/common/arguments.h"
#include "lab/common/text.h"
#include "lab/osrexp/export.h"

#include <csignal>
#include <cstdio>

namespace
{

using namespace oscar_lab;

constexpr const char* usage =
    "usage: osrexp -U USER/PASSWORD [-p PORT] -d INSTANCE file=PATH [PARAMETER=VALUE]...\n"
    "         level=database|schema|table   default database\n"
    "         schema=NAME, table=SCHEMA.NAME   what to export\n"
    "         view, procedure, sequence, constraint, trigger, index = true|false   default true\n"
    "         mode=entirety   ignore=false\n"
    "       osrexp -v\n";

int run(int argc, char** argv)
{
  const Arguments arguments(argc, argv, login_options(), 32);
  if (answers_question(arguments, usage, {"-v", "--version"}, "osrexp 2.5.6x20230817132129"))
    return 0;
  const Instance_Files files(home_of_this_tool(), arguments.required("-d"));
  const Parameters parameters(arguments.operands(),
                              {"level", "file", "mode", "ignore", "schema", "table", "view", "procedure",
                               "sequence", "constraint", "trigger", "index"});
  const Request request = read_request(parameters);
  if (request.level == Level::table)
    for (const char* const key : {"view", "procedure", "sequence"})
      if (parameters.flag(key, false))
        throw Usage_Failure(std::string(key) + "=true cannot be used with level=table");
  std::fputs(export_objects(request, read_login(arguments, files), files.name).c_str(), stdout);
  return 0;
}

} // namespace

int main(int argc, char** argv)
{
  std::signal(SIGPIPE, SIG_IGN);
  std::signal(SIGXFSZ, SIG_IGN);
  try {
    return run(argc, argv);
  } catch (const oscar_lab::Usage_Failure& failure) {
    std::fprintf(stderr, "osrexp: ERROR, %s\n%s", failure.what(), usage);
    return 2;
  } catch (const std::exception& failure) {
    std::fprintf(stderr, "osrexp: ERROR, %s\n", failure.what());
    return 1;
  }
}
