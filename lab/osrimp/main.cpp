/// The import tool of the stand-in: brings back what osrexp wrote, in place or under another name.
#include "lab/common/arguments.h"
#include "lab/common/text.h"
#include "lab/osrimp/import.h"

#include <csignal>
#include <cstdio>

namespace
{

using namespace oscar_lab;

constexpr const char* usage =
    "usage: osrimp -U USER/PASSWORD [-p PORT] -d INSTANCE file=PATH [PARAMETER=VALUE]...\n"
    "         level=database|schema|table   default database: everything, under its own name\n"
    "         schema=NAME, table=SCHEMA.NAME   where the file's schema or table goes\n"
    "         view, procedure, sequence, constraint, trigger, index = true|false   default true\n"
    "         recreateschema=true|false   replace schemas that exist (database, schema); default false\n"
    "         recreatetable=true|false    replace a table that exists (table); default false\n"
    "         recreateotherobject, deletetabledata = true|false   must agree with the two before\n"
    "         tablespace=true|false   keep the tablespaces of tables and indexes; default true\n"
    "         mode=entirety   ignore=false\n"
    "       osrimp -v\n";

const std::set<std::string> keys = {
    "level",          "file",           "mode",          "ignore",
    "schema",         "table",          "view",          "procedure",
    "sequence",       "constraint",     "trigger",       "index",
    "tablespace",     "recreateschema", "recreatetable", "recreateotherobject",
    "deletetabledata"};

/// Replacing a schema replaces all that is in it, and replacing a table its rows; a command line that says
/// otherwise in the next word cannot be honoured.
void read_replacement(const Parameters& parameters, Import_Request& request)
{
  request.recreate_schema = parameters.flag("recreateschema", false);
  request.recreate_table = parameters.flag("recreatetable", request.recreate_schema);
  request.tablespaces = parameters.flag("tablespace", true);
  if (request.level == Level::table) {
    if (request.recreate_schema)
      throw Usage_Failure("recreateschema=true cannot be used with level=table");
    if (parameters.flag("recreateotherobject", false))
      throw Usage_Failure("recreateotherobject=true cannot be used with level=table");
  } else {
    if (request.recreate_table != request.recreate_schema)
      throw Usage_Failure("recreatetable and recreateschema must be the same, except with level=table");
    if (parameters.flag("recreateotherobject", request.recreate_schema) != request.recreate_schema)
      throw Usage_Failure("recreateotherobject and recreateschema must be the same, except with level=table");
  }
  if (parameters.flag("deletetabledata", request.recreate_table) != request.recreate_table)
    throw Usage_Failure("deletetabledata and recreatetable must be the same: rows go with their table only");
}

int run(int argc, char** argv)
{
  const Arguments arguments(argc, argv, login_options(), 32);
  if (answers_question(arguments, usage, {"-v", "--version"}, "osrimp 2.5.6x20230817132129"))
    return 0;
  const Instance_Files files(home_of_this_tool(), arguments.required("-d"));
  const Parameters parameters(arguments.operands(), keys);
  Import_Request request;
  static_cast<Request&>(request) = read_request(parameters);
  read_replacement(parameters, request);
  std::fputs(import_objects(request, read_login(arguments, files), files.name).c_str(), stdout);
  return 0;
}

} // namespace

int main(int argc, char** argv)
{
  std::signal(SIGPIPE, SIG_IGN);
  try {
    return run(argc, argv);
  } catch (const oscar_lab::Usage_Failure& failure) {
    std::fprintf(stderr, "osrimp: ERROR, %s\n%s", failure.what(), usage);
    return 2;
  } catch (const std::exception& failure) {
    std::fprintf(stderr, "osrimp: ERROR, %s\n", failure.what());
    return 1;
  }
}
