#include "agent/agent_services.h"

#include "base/ignore_result.h"
#include "base/scope_guard.h"
#include "json/json_util.h"

#include <exception>
#include <stdexcept>

namespace kestrel
{
namespace
{
/// Announcements go past the gate: a waiting job depends on them, and they start no tool.
const char announcement_method[] = "oscar.node.notify_selected";
const char node_state_method[] = "oscar.node.check_state";
const uint64_t default_log_bytes = 64 * 1024;

bool refuse(JSON_RPC_Error& error, int code, const std::string& message)
{
  error.code = code;
  error.message = message;
  return false;
}

bool refuse(JSON_RPC_Error& error, const Jobs_Error& cause)
{
  return refuse(error, cause.code, cause.text);
}

bool busy(JSON_RPC_Error& error)
{
  return refuse(error, JSON_RPC_BUSY, "this host is busy with other requests; ask again in a moment");
}

/// Reads parameters; what an accessor throws becomes the caller's error.
template <class Read> bool read_params(const json_spirit::Value& params, JSON_RPC_Error& error, Read read)
{
  static const json_spirit::Object none;
  try {
    read(params.is_null() ? none : params.get_obj());
    return true;
  } catch (const std::exception& exception) {
    return refuse(error, JSON_RPC_INVALID_PARAMS, std::string("wrong parameters: ") + exception.what());
  }
}
} // namespace

bool Service_Gate::enter()
{
  if (inside_.fetch_add(1) < limit_)
    return true;
  leave();
  return false;
}

void Service_Gate::leave()
{
  inside_.fetch_sub(1);
}

/// A module's handler behind the gate.
class Agent_Services::Gated_Handler : public JSON_RPC_Handler
{
public:
  Gated_Handler(Service_Gate& gate, JSON_RPC_Handler& handler) : gate_(gate), handler_(handler) {}

  int handle_object(ACE_Weak_Bound_Ptr<JSON_RPC_Channel, ACE_Thread_Mutex> channel,
                    ACE_Refcounted_Auto_Ptr<JSON_RPC_Object, ACE_Recursive_Thread_Mutex> object) override
  {
    if (gate_.enter()) {
      const Scope_Guard leave([this] { gate_.leave(); });
      return handler_.handle_object(channel, object);
    }
    const ACE_Strong_Bound_Ptr<JSON_RPC_Channel, ACE_Thread_Mutex> strong(channel);
    const JSON_RPC_Request* request = object.get() ? object->request() : nullptr;
    JSON_RPC_Error error;
    busy(error);
    return strong.get() && request
               ? strong->send_error(error.code, request->id(), error.message.c_str(), error.data)
               : -1;
  }

private:
  Service_Gate& gate_;
  JSON_RPC_Handler& handler_;
};

Agent_Services::Agent_Services(Identity identity, Agent_Jobs& jobs, Instance_Service& instances)
    : identity_(std::move(identity)), jobs_(jobs), instances_(instances), gate_(slow_limit),
      node_gate_(node_state_limit)
{
}

Agent_Services::~Agent_Services() = default;

Agent_Services::Method Agent_Services::gated(Method method)
{
  return [this, method](const json_spirit::Value& params, json_spirit::Value& result, JSON_RPC_Error& error) {
    if (!gate_.enter())
      return busy(error);
    const Scope_Guard leave([this] { gate_.leave(); });
    return method(params, result, error);
  };
}

bool Agent_Services::bind(JSON_RPC_Dispatcher& dispatcher,
                          const std::map<std::string, JSON_RPC_Handler*>& handlers, std::string& error)
{
  typedef const json_spirit::Value Params;
  typedef json_spirit::Value Result;
  std::map<std::string, Method> methods;
  methods["agent.status"] = [this](Params&, Result& result, JSON_RPC_Error&) { return status(result); };
  methods["job.list"] = [this](Params&, Result& result, JSON_RPC_Error&) {
    json_spirit::Object jobs;
    jobs.emplace_back("jobs", jobs_.list());
    result = jobs;
    return true;
  };
  methods["job.sync"] = [this](Params& params, Result& result, JSON_RPC_Error& problem) {
    return sync_jobs(params, result, problem);
  };
  methods["job.control"] = [this](Params& params, Result& result, JSON_RPC_Error& problem) {
    return control_job(params, result, problem);
  };
  methods["job.log"] = [this](Params& params, Result& result, JSON_RPC_Error& problem) {
    return job_log(params, result, problem);
  };
  methods["instance.list"] = gated([this](Params& params, Result& result, JSON_RPC_Error& problem) {
    return list_instances(params, result, problem);
  });
  methods["instance.login"] = gated([this](Params& params, Result& result, JSON_RPC_Error& problem) {
    return login(params, result, problem);
  });
  for (const auto& [name, method] : methods) {
    // Of two sets of definitions the later one counts.
    const JSON_RPC_Order order = name == "job.sync" ? JSON_RPC_Order::as_received : JSON_RPC_Order::any;
    if (!dispatcher.bind(name, method, order)) {
      error = "the method " + name + " cannot be offered";
      return false;
    }
  }
  for (const auto& [name, handler] : handlers) {
    JSON_RPC_Handler* bound = handler;
    if (name != announcement_method) {
      gated_.push_back(
          std::make_unique<Gated_Handler>(name == node_state_method ? node_gate_ : gate_, *handler));
      bound = gated_.back().get();
    }
    if (!dispatcher.bind(name, bound)) {
      error = "a module offers the method " + name + ", which is taken already";
      return false;
    }
  }
  return true;
}

bool Agent_Services::status(json_spirit::Value& result)
{
  const Agent_Jobs::Counts counts = jobs_.counts();
  json_spirit::Object status;
  status.emplace_back("version", identity_.version);
  status.emplace_back("host_uuid", identity_.host_uuid);
  status.emplace_back("name", identity_.name);
  status.emplace_back("started", identity_.started);
  status.emplace_back("jobs_running", counts.running);
  status.emplace_back("jobs_queued", counts.queued);
  status.emplace_back("definitions", counts.definitions);
  result = status;
  return true;
}

json_spirit::Object Agent_Services::hello()
{
  json_spirit::Object hello;
  hello.emplace_back("version", identity_.version);
  hello.emplace_back("host_uuid", identity_.host_uuid);
  hello.emplace_back("name", identity_.name);
  // As far as it is known; changes are told later.
  hello.emplace_back("instances", instances_.known());
  hello.emplace_back("jobs", jobs_.list());
  return hello;
}

bool Agent_Services::list_instances(const json_spirit::Value& params, json_spirit::Value& result,
                                    JSON_RPC_Error& error)
{
  bool probe = false;
  if (!read_params(params, error, [&](const json_spirit::Object& given) {
        ignore_result(optional(given, "probe", probe), "it has a default");
      }))
    return false;
  json_spirit::Array instances;
  std::string problem;
  if (!instances_.list(probe, instances, problem))
    return refuse(error, JSON_RPC_INTERNAL_ERROR, "the instances of this host cannot be listed: " + problem);
  json_spirit::Object listed;
  listed.emplace_back("instances", instances);
  result = listed;
  return true;
}

bool Agent_Services::login(const json_spirit::Value& params, json_spirit::Value& result,
                           JSON_RPC_Error& error)
{
  std::string instance, user;
  secure_string password;
  const Wipe_Guard<secure_string> wipe(password);
  const bool read = read_params(params, error, [&](const json_spirit::Object& given) {
    instance = required<std::string>(given, "instance");
    user = required<std::string>(given, "user");
    // Without a copy that nobody wipes.
    const json_spirit::Value& word = json_spirit::find_value(given, "password");
    if (word.type() != json_spirit::str_type)
      throw std::runtime_error("JSON key \"password\" is missing or not a text");
    password = word.get_str().c_str();
  });
  if (!read)
    return false;
  if (instance.empty() || user.empty() || password.empty())
    return refuse(error, JSON_RPC_INVALID_PARAMS,
                  "wrong parameters: instance, user and password may not be empty");
  std::string warning, problem;
  if (!instances_.logon(instance, user, password, warning, problem))
    return refuse(error, JSON_RPC_INTERNAL_ERROR,
                  "the login of " + user + " at " + instance + " failed: " + problem);
  json_spirit::Object answer;
  answer.emplace_back("warning", warning);
  result = answer;
  return true;
}

bool Agent_Services::sync_jobs(const json_spirit::Value& params, json_spirit::Value& result,
                               JSON_RPC_Error& error)
{
  json_spirit::Array definitions, refused;
  if (!read_params(params, error, [&](const json_spirit::Object& given) {
        definitions = required<json_spirit::Array>(given, "definitions");
      }))
    return false;
  Jobs_Error cause;
  if (!jobs_.sync(definitions, refused, cause))
    return refuse(error, cause);
  json_spirit::Object answer;
  answer.emplace_back("refused", refused);
  result = answer;
  return true;
}

bool Agent_Services::control_job(const json_spirit::Value& params, json_spirit::Value& result,
                                 JSON_RPC_Error& error)
{
  std::string id, action;
  json_spirit::Object options;
  const bool read = read_params(params, error, [&](const json_spirit::Object& given) {
    id = required<std::string>(given, "id");
    action = required<std::string>(given, "action");
    json_spirit::Object run;
    if (optional(given, "run", run))
      ignore_result(optional(run, "options", options), "none are given");
  });
  if (!read)
    return false;
  std::string run_id;
  Jobs_Error cause;
  if (!jobs_.control(id, action, options, run_id, cause))
    return refuse(error, cause);
  json_spirit::Object answer;
  answer.emplace_back("run_id", run_id);
  result = answer;
  return true;
}

bool Agent_Services::job_log(const json_spirit::Value& params, json_spirit::Value& result,
                             JSON_RPC_Error& error)
{
  std::string run_id;
  uint64_t offset = 0;
  uint64_t limit = default_log_bytes;
  const bool read = read_params(params, error, [&](const json_spirit::Object& given) {
    run_id = required<std::string>(given, "run_id");
    ignore_result(optional(given, "offset", offset), "it has a default");
    ignore_result(optional(given, "limit", limit), "it has a default");
  });
  if (!read)
    return false;
  json_spirit::Object answer;
  Jobs_Error cause;
  if (!jobs_.log(run_id, offset, limit, answer, cause))
    return refuse(error, cause);
  result = answer;
  return true;
}
} // namespace kestrel
