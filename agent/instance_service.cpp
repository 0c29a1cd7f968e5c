#include "agent/instance_service.h"

#include "instances/instance_handler.h"
#include "json/json_util.h"

#include <ace/Log_Msg.h>

#include <algorithm>
#include <chrono>

namespace kestrel
{
namespace
{
json_spirit::Object described(const Instance_Registry::Survey_Entry& survey)
{
  const Instance& instance = survey.entry.instance;
  json_spirit::Array accounts;
  for (const Instance_Registry::Account& account : survey.entry.accounts)
    accounts.push_back(account.username);
  json_spirit::Object object;
  object.emplace_back("name", instance.name);
  object.emplace_back("uuid", instance.uuid);
  object.emplace_back("type", instance.type);
  object.emplace_back("port", survey.port == 0 ? json_spirit::Value() : json_spirit::Value(survey.port));
  object.emplace_back("version", option_text(instance, "version"));
  object.emplace_back("state", survey.state);
  object.emplace_back("home", option_text(instance, "oscar_home"));
  object.emplace_back("accounts", accounts);
  return object;
}
} // namespace

Instance_Service::Instance_Service(Instance_Registry& registry, std::vector<Instance_Handler*> handlers)
    : Instance_Service(registry, std::move(handlers), Settings())
{
}

Instance_Service::Instance_Service(Instance_Registry& registry, std::vector<Instance_Handler*> handlers,
                                   Settings settings)
    : registry_(registry), handlers_(std::move(handlers)), settings_(settings)
{
}

void Instance_Service::set_listener(std::function<void(const json_spirit::Array&)> listener)
{
  const std::lock_guard<std::mutex> guard(listener_mutex_);
  listener_ = std::move(listener);
}

void Instance_Service::start()
{
  // What is known from former times is shown at once: looking for more may take long.
  look(false);
  const std::lock_guard<std::mutex> guard(mutex_);
  stop_ = false;
  if (!thread_.joinable())
    thread_ = std::thread([this] { run(); });
}

void Instance_Service::stop()
{
  {
    const std::lock_guard<std::mutex> guard(mutex_);
    stop_ = true;
  }
  wake_.notify_all();
  if (thread_.joinable())
    thread_.join();
}

void Instance_Service::set_probe_msec(int64_t probe_msec)
{
  {
    const std::lock_guard<std::mutex> guard(mutex_);
    settings_.probe_msec = probe_msec;
  }
  wake_.notify_all();
}

void Instance_Service::run()
{
  typedef std::chrono::steady_clock Time;
  Time::time_point last_probe{};
  bool probed = false;
  std::unique_lock<std::mutex> lock(mutex_);
  while (!stop_) {
    const bool due = !probed || Time::now() - last_probe >= std::chrono::milliseconds(settings_.probe_msec);
    lock.unlock();
    look(due);
    if (due) {
      probed = true;
      last_probe = Time::now();
    }
    lock.lock();
    if (!stop_)
      wake_.wait_for(lock, std::chrono::milliseconds(std::min(settings_.state_msec, settings_.probe_msec)));
  }
}

void Instance_Service::look(bool for_new_ones)
{
  const std::lock_guard<std::mutex> guard(handlers_mutex_);
  json_spirit::Array instances;
  std::string error;
  if (for_new_ones && !probe(error))
    ACE_ERROR((LM_ERROR, "The instances of this host cannot be looked for: %C\n", error.c_str()));
  if (!refresh(instances, error))
    ACE_ERROR((LM_ERROR, "The instances of this host cannot be listed: %C\n", error.c_str()));
}

bool Instance_Service::probe(std::string& error)
{
  std::string problem;
  for (Instance_Handler* handler : handlers_) {
    std::string cause;
    if (registry_.probe(*handler, cause) != 0)
      problem += (problem.empty() ? "" : "; ") + cause;
  }
  if (problem.empty())
    return true;
  error = problem;
  return false;
}

bool Instance_Service::refresh(json_spirit::Array& instances, std::string& error)
{
  std::vector<Instance_Registry::Survey_Entry> surveyed;
  if (registry_.survey(handlers_, surveyed, error) != 0) {
    const std::lock_guard<std::mutex> guard(mutex_);
    problem_ = error;
    return false;
  }
  json_spirit::Array described_all;
  for (const Instance_Registry::Survey_Entry& survey : surveyed)
    described_all.push_back(described(survey));
  publish(described_all);
  instances.swap(described_all);
  return true;
}

void Instance_Service::publish(const json_spirit::Array& instances)
{
  {
    const std::lock_guard<std::mutex> guard(mutex_);
    problem_.clear();
    if (known_ && write_json(last_) == write_json(instances))
      return;
    last_ = instances;
    known_ = true;
  }
  const std::lock_guard<std::mutex> guard(listener_mutex_);
  if (listener_)
    listener_(instances);
}

bool Instance_Service::list(bool look_for_new_ones, json_spirit::Array& instances, std::string& error)
{
  if (look_for_new_ones) {
    const std::lock_guard<std::mutex> guard(handlers_mutex_);
    return probe(error) && refresh(instances, error);
  }
  const std::unique_lock<std::mutex> idle(handlers_mutex_, std::try_to_lock);
  if (idle.owns_lock())
    return refresh(instances, error);
  // Tools of unknown length run. What was published before they began is at most one interval old.
  std::unique_lock<std::mutex> lock(mutex_);
  if (known_) {
    instances = last_;
    return true;
  }
  if (!problem_.empty()) {
    error = problem_;
    return false;
  }
  lock.unlock();
  const std::lock_guard<std::mutex> guard(handlers_mutex_);
  return refresh(instances, error);
}

json_spirit::Array Instance_Service::known()
{
  const std::lock_guard<std::mutex> guard(mutex_);
  return last_;
}

bool Instance_Service::logon(const std::string& name, const std::string& user, const secure_string& password,
                             std::string& warning, std::string& error)
{
  const std::lock_guard<std::mutex> guard(handlers_mutex_);
  // Handlers test logins only at instances that they have found themselves since they were made.
  std::vector<Instance_Registry::Entry> entries;
  if (!probe(error) || registry_.list(entries, error) != 0)
    return false;
  const auto known = std::find_if(entries.begin(), entries.end(), [&](const Instance_Registry::Entry& entry) {
    return entry.instance.name == name;
  });
  const std::string type = known == entries.end() ? "" : known->instance.type;
  for (Instance_Handler* handler : handlers_) {
    if (handler->type() != type)
      continue;
    if (registry_.logon(*handler, name, "", user, password, warning, error) != 0)
      return false;
    json_spirit::Array instances;
    std::string problem;
    if (!refresh(instances, problem))
      ACE_ERROR((LM_WARNING, "The instances of this host cannot be listed: %C\n", problem.c_str()));
    return true;
  }
  error = "there is no instance " + name + " on this host; start it and list the instances again";
  return false;
}
} // namespace kestrel
