#include "oscar/websvcs/list_handler.h"

#include "base/ignore_result.h"
#include "base/secure_allocator.h"
#include "base/snprintf_t.h"
#include "instances/instance_manager.h"
#include "oscar/instance_info.h"
#include "oscar/utils.h"
#include "oscar/websvcs/rpc_answer.h"
#include "json/json_util.h"

#include <ace/Log_Msg.h>

#include <exception>
#include <map>

using oscar::INTERNAL_ERROR;
using oscar::INVALID_PARAMS;
using oscar::refuse;

namespace
{
/// What the console asks to see.
struct Browse_Params {
  std::string uid;
  std::string instance;
  std::string database;
  std::string schema;
};

bool read_params(const json_spirit::Value& params, Browse_Params& wanted)
{
  try {
    const json_spirit::Object& members = params.get_obj();
    wanted.uid = kestrel::required<std::string>(members, "uid");
    wanted.instance = kestrel::required<std::string>(members, "instance");
    kestrel::ignore_result(kestrel::optional(members, "database", wanted.database), "empty says the same");
    kestrel::ignore_result(kestrel::optional(members, "schema", wanted.schema), "empty says the same");
  } catch (const std::exception&) {
    return false; // the answer says it
  }
  // Tables belong to the schema of one database.
  return wanted.schema.empty() || !wanted.database.empty();
}

typedef snprintf_t<256> Error_Text;

/// Calls `look` and takes what it throws for a failure, since nothing may leave a service: false after a line
/// in the log.
template <class Look> bool look_safely(const char* service, Look look)
{
  try {
    return look();
  } catch (const std::exception& failure) {
    ACE_ERROR((LM_ERROR, "(%P|%t) %C: %C\n", service, failure.what()));
    return false;
  }
}

/// False with the answer's text in `error`.
bool browse(const std::shared_ptr<Instance>& inst, const Browse_Params& wanted, const std::string& username,
            const secure_string& password, json_spirit::Value& result, Error_Text& error)
{
  const char* const instance = wanted.instance.c_str();
  const char* const database = wanted.database.c_str();
  const char* const schema = wanted.schema.c_str();
  if (!wanted.schema.empty()) {
    error.set("Internal error: failed to get tables info instance %s, db %s, schema %s", instance, database,
              schema);
    return get_tables_info(inst, instance, database, schema, username.c_str(), password.c_str(), result);
  }
  if (!wanted.database.empty()) {
    error.set("Internal error: failed to get schemas info %s, db %s", instance, database);
    return get_schemas_info(inst, instance, database, username.c_str(), password.c_str(), result);
  }
  error.set("Internal error: failed to get databases info, instance %s", instance);
  return get_database_info(inst, instance, username.c_str(), password.c_str(), result);
}

json_spirit::Object entry_of(const Oscar_Instance_Info& info)
{
  unsigned short port = 0;
  std::string status;
  if (!get_instance_port(info.oscar_home.c_str(), info.instance.c_str(), port))
    port = 0; // a port that stands on an unfinished line is none
  kestrel::ignore_result(get_instance_state(info.oscar_home.c_str(), info.instance.c_str(), status),
                         "the text says it");
  json_spirit::Object entry;
  entry.emplace_back("instance", info.instance);
  entry.emplace_back("port", static_cast<int>(port));
  entry.emplace_back("version", info.version);
  entry.emplace_back("status", status);
  return entry;
}
} // namespace

int JSON_RPC_Oscar_List_Handler::handle_object(ACE_Weak_Bound_Ptr<JSON_RPC_Channel, ACE_Thread_Mutex> channel,
                                               JSON_RPC_Object_Ptr object)
{
  const ACE_Strong_Bound_Ptr<JSON_RPC_Channel, ACE_Thread_Mutex> requester(channel);
  if (!requester.get()) {
    ACE_ERROR((LM_ERROR, "Abort handling JSON-RPC request, requester has gone.\n"));
    return -1;
  }
  const JSON_RPC_Request* request = object.get() ? object->request() : nullptr;
  if (!request) {
    ACE_ERROR((LM_EMERGENCY, "Unexpected error in %N:%l, obj is not JSON-RPC request!\n"));
    return -1;
  }
  switch (request->params().type()) {
  case json_spirit::obj_type:
    return get_oscar_info(requester.get(), request);
  case json_spirit::null_type:
    return get_oscar_instance_info(requester.get(), request);
  default:
    return refuse(*requester, *request, INVALID_PARAMS, "Invalid params");
  }
}

int get_oscar_instance_info(JSON_RPC_Channel* channel, const JSON_RPC_Request* request)
{
  std::map<std::string, Oscar_Instance_Info> found;
  if (!look_safely("get_oscar_instance_info", [&] { return get_instance_info(found, "C"); })) {
    ACE_ERROR((LM_ERROR, "Failed to get instance info.\n"));
    return refuse(*channel, *request, INTERNAL_ERROR, "Failed to get instance info");
  }
  std::unique_ptr<JSON_RPC_Response> response = oscar::make_response(*request);
  if (!response)
    return refuse(*channel, *request, INTERNAL_ERROR, "Internal error, out of memory.");
  json_spirit::Array& entries = json_spirit::to_new_array(response->result());
  for (const auto& [name, info] : found)
    entries.push_back(entry_of(info));
  return oscar::answer(*channel, std::move(response));
}

int get_oscar_info(JSON_RPC_Channel* channel, const JSON_RPC_Request* request)
{
  std::unique_ptr<JSON_RPC_Response> response = oscar::make_response(*request);
  if (!response)
    return refuse(*channel, *request, INTERNAL_ERROR, "Internal error, out of memory.");
  Browse_Params wanted;
  if (!read_params(request->params(), wanted))
    return refuse(*channel, *request, INVALID_PARAMS, "Invalid params");
  Instance_Manager* instmgr = Instance_Manager::instance();
  if (!instmgr)
    return refuse(*channel, *request, INTERNAL_ERROR, "Instance manager is null");
  std::string username;
  secure_string password;
  if (instmgr->get_account("oscar", wanted.instance, wanted.uid, username, password, nullptr) < 0)
    return refuse(*channel, *request, INTERNAL_ERROR, "Failed to get account");
  const std::shared_ptr<Instance> inst = instmgr->find("oscar", wanted.instance);
  if (!inst)
    return refuse(*channel, *request, INTERNAL_ERROR, "Instance info is null");
  Error_Text error;
  if (!look_safely("get_oscar_info",
                   [&] { return browse(inst, wanted, username, password, response->result(), error); }))
    return refuse(*channel, *request, INTERNAL_ERROR, error.c_str());
  return oscar::answer(*channel, std::move(response));
}
