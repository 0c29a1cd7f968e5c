#include "cli/password_input.h"
#include "cli/served_commands.h"
#include "cli/served_json.h"

#include "base/durable_file.h"
#include "json/json_util.h"
#include "json/wipe_json.h"

namespace kestrel
{
namespace
{
const size_t MOST_CA_BYTES = 1u << 20;
const char no_server[] = "which backup server? Give --server URL or set KESTREL_SERVER";

/// What both commands need before they may speak to the server.
bool prepare(Command_Output& output, std::string& url)
{
  std::string error;
  if (normal_server_url(output.line().server, url, error))
    return true;
  output.fail(error);
  return false;
}

REST_Client_Options connection_of(const Console_Credentials& credentials)
{
  REST_Client_Options options;
  options.url = credentials.url;
  options.ca_pem = credentials.ca_pem;
  options.bearer = credentials.token;
  return options;
}

/// The authorities: those of --ca, else those of the sign-in before.
bool choose_ca(Command_Output& output, Console_Credentials& credentials)
{
  std::string error;
  bool found = false;
  Console_Credentials before;
  if (!output.line().ca_file.empty()) {
    if (read_whole_file(output.line().ca_file, credentials.ca_pem, error, MOST_CA_BYTES))
      return true;
    output.fail("the file of --ca cannot be used: " + error);
    return false;
  }
  if (load_credentials(credentials.url, before, found, error) && found)
    credentials.ca_pem = before.ca_pem;
  return true;
}

/// False with the exit code in `code`.
bool ask_for_token(Command_Output& output, Console_Credentials& credentials, secure_string& password,
                   int& code)
{
  json_spirit::Value body = json_spirit::Object();
  const Wipe_JSON_Guard wipe_body(body);
  set_value(body.get_obj(), "user", credentials.user);
  set_value(body.get_obj(), "password", std::string(password.data(), password.size()));
  json_spirit::Value reply;
  REST_Problem problem;
  REST_Client client(connection_of(credentials));
  const bool answered = client.post(rest_path({"sessions"}), body, reply, problem);
  if (!answered) {
    code = output.fail("the sign-in of " + credentials.user + " failed: " + problem.text);
    return false;
  }
  const json_spirit::Object object =
      reply.type() == json_spirit::obj_type ? reply.get_obj() : json_spirit::Object();
  credentials.token = text_in(object, "token");
  credentials.role = text_in(object, "role");
  const json_spirit::Value& expires = find_value(object, "expires_at");
  credentials.expires = expires.type() == json_spirit::int_type ? std::to_string(expires.get_int64())
                                                                : text_in(object, "expires_at");
  if (!credentials.token.empty())
    return true;
  code = output.fail("the sign-in of " + credentials.user + " at " + credentials.url +
                     " failed: the answer holds no token; check that a backup server listens there");
  return false;
}
} // namespace

int served_sign_in(const Command_Line& line)
{
  Command_Output output(line);
  if (line.server.empty())
    return output.fail(no_server, EXIT_CODE_USAGE);
  Console_Credentials credentials;
  credentials.user = line.user;
  std::string error;
  if (!prepare(output, credentials.url) || !choose_ca(output, credentials))
    return EXIT_CODE_FAILED;
  secure_string password;
  const Wipe_Guard<secure_string> wipe(password);
  const Exit_Code read = read_password(
      line.password_file, "Password of " + line.user + " at " + credentials.url + ": ", password, error);
  if (read != EXIT_CODE_DONE)
    return output.fail("no password for " + line.user + " at " + credentials.url + ": " + error, read);
  int code = EXIT_CODE_FAILED;
  if (!ask_for_token(output, credentials, password, code))
    return code;
  std::string path;
  if (!save_credentials(credentials, path, error))
    return output.fail("the sign-in cannot be kept: " + error);
  json_spirit::Object json;
  set_value(json, "server", credentials.url);
  set_value(json, "user", credentials.user);
  set_value(json, "role", credentials.role);
  set_value(json, "file", path);
  output.result(json, "Signed in at " + credentials.url + " as " + credentials.user +
                          (credentials.role.empty() ? "" : " (" + credentials.role + ")") + ".\n");
  return EXIT_CODE_DONE;
}

int served_sign_out(const Command_Line& line)
{
  Command_Output output(line);
  if (line.server.empty())
    return output.fail(no_server, EXIT_CODE_USAGE);
  Console_Credentials credentials;
  std::string url;
  std::string error;
  bool found = false;
  if (!prepare(output, url))
    return EXIT_CODE_FAILED;
  const bool readable = load_credentials(url, credentials, found, error);
  REST_Problem problem;
  if (readable && found) {
    REST_Client client(connection_of(credentials));
    REST_Call call;
    call.method = "DELETE";
    call.path = rest_path({"sessions", "current"});
    json_spirit::Value reply;
    // A session that the server has forgotten is what is wanted.
    if (!client.call(call, nullptr, reply, problem) && problem.status != 401)
      output.note("The server was not told; the session ends there by itself: " + problem.text);
  }
  if (!remove_credentials(url, error))
    return output.fail("the sign-in cannot be forgotten: " + error);
  json_spirit::Object json;
  set_value(json, "server", url);
  set_value(json, "signed_in", false);
  output.result(json, readable && !found ? "Nobody was signed in at " + url + ".\n"
                                         : "Signed out of " + url + ".\n");
  return EXIT_CODE_DONE;
}

int served_whoami(Console& console)
{
  // The server must still know the session, or the answer would be worth nothing.
  json_spirit::Object reply;
  if (!console.get({"status"}, reply))
    return EXIT_CODE_FAILED;
  const Console_Credentials& credentials = console.credentials();
  json_spirit::Object json;
  set_value(json, "server", credentials.url);
  set_value(json, "user", credentials.user);
  set_value(json, "role", credentials.role);
  console.result(json, credentials.user + (credentials.role.empty() ? "" : " (" + credentials.role + ")") +
                           " at " + credentials.url + "\n");
  return EXIT_CODE_DONE;
}
} // namespace kestrel
