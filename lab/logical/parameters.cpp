#include "lab/logical/parameters.h"

#include "lab/common/text.h"

#include <filesystem>

namespace oscar_lab
{

const char* level_name(Level level)
{
  switch (level) {
  case Level::schema:
    return "schema";
  case Level::table:
    return "table";
  case Level::database:
    break;
  }
  return "database";
}

const char* kind_name(Object_Kind kind)
{
  switch (kind) {
  case Object_Kind::view:
    return "view";
  case Object_Kind::procedure:
    return "procedure";
  case Object_Kind::sequence:
    return "sequence";
  case Object_Kind::constraint:
    return "constraint";
  case Object_Kind::trigger:
    return "trigger";
  case Object_Kind::index:
    break;
  }
  return "index";
}

Parameters::Parameters(const std::vector<std::string>& operands, const std::set<std::string>& allowed)
{
  for (std::size_t i = 0; i < operands.size(); ++i) {
    const auto equals = operands[i].find('=');
    const std::string key = to_lower(operands[i].substr(0, equals));
    if (equals == std::string::npos || allowed.count(key) == 0)
      throw Usage_Failure("parameter " + std::to_string(i + 1) + " is not one that this tool knows");
    if (!values_.emplace(key, operands[i].substr(equals + 1)).second)
      throw Usage_Failure("parameter " + key + " is given twice");
  }
}

bool Parameters::flag(const std::string& key, bool fallback) const
{
  const auto found = values_.find(key);
  if (found == values_.end())
    return fallback;
  const std::string value = to_lower(found->second);
  if (value != "true" && value != "false")
    throw Usage_Failure("parameter " + key + " is true or false");
  return value == "true";
}

const std::string& Parameters::required(const std::string& key) const
{
  const auto found = values_.find(key);
  if (found == values_.end())
    throw Usage_Failure("parameter " + key + " is missing");
  if (found->second.empty())
    throw Usage_Failure("parameter " + key + " has an empty value");
  return found->second;
}

namespace
{

Level read_level(const Parameters& parameters)
{
  if (!parameters.has("level"))
    return Level::database;
  const std::string text = to_lower(parameters.required("level"));
  for (const Level level : {Level::database, Level::schema, Level::table})
    if (text == level_name(level))
      return level;
  throw Usage_Failure("the level is database, schema or table");
}

void read_object(const Parameters& parameters, Request& request)
{
  if (request.level != Level::schema && parameters.has("schema"))
    throw Usage_Failure("parameter schema needs level=schema");
  if (request.level != Level::table && parameters.has("table"))
    throw Usage_Failure("parameter table needs level=table");
  if (request.level == Level::schema) {
    const auto words = parse_names(parameters.required("schema"), "parameter schema");
    if (words.size() != 1)
      throw Usage_Failure(
          "parameter schema holds more than one name; put a name with a dot in double quotes");
    request.schema = words[0];
  }
  if (request.level == Level::table) {
    const auto words = parse_names(parameters.required("table"), "parameter table");
    if (words.size() != 2)
      throw Usage_Failure("parameter table is SCHEMA.TABLE; put a name with a dot in double quotes");
    request.schema = words[0];
    request.table = words[1];
  }
}

} // namespace

Request read_request(const Parameters& parameters)
{
  Request request;
  request.level = read_level(parameters);
  request.file = std::filesystem::absolute(parameters.required("file")).string();
  if (parameters.has("mode") && to_lower(parameters.required("mode")) != "entirety")
    throw Usage_Failure("the only mode is entirety: definitions and rows");
  if (parameters.flag("ignore", false))
    throw Usage_Failure("ignore=true is not supported: every error ends the run");
  read_object(parameters, request);
  for (const Object_Kind kind : all_object_kinds)
    if (!parameters.flag(kind_name(kind), true))
      request.left_out.insert(kind);
  return request;
}

const std::vector<Option>& login_options()
{
  static const std::vector<Option> options = {{"-U", true},     {"-p", true},  {"-d", true},
                                              {"-h", true},     {"-v", false}, {"--version", false},
                                              {"--help", false}};
  return options;
}

Login read_login(const Arguments& arguments, const Instance_Files& files)
{
  std::uint64_t port = 0;
  if (arguments.has("-p") && (!parse_number(arguments.required("-p"), 65535, port) || port == 0))
    throw Usage_Failure("the port is a number from 1 to 65535");
  const std::string& text = arguments.required("-U");
  if (port == 0)
    files.require_existing();
  Login login = user_login(files, arguments.value("-h"), static_cast<std::uint16_t>(port));
  // Catalog queries here mean PostgreSQL's own relations.
  login.settings = "-c search_path=pg_catalog -c client_min_messages=warning";
  const auto slash = text.find('/'); // a password may hold further slashes
  login.user = text.substr(0, slash);
  login.password = slash == std::string::npos ? std::string() : text.substr(slash + 1);
  if (login.user.empty())
    throw Usage_Failure("option -U needs USER/PASSWORD");
  return login;
}

} // namespace oscar_lab
