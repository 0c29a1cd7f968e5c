#include "cli/session.h"

#include "json/json_util.h"

#include <boost/algorithm/string/case_conv.hpp>

#include <csignal>
#include <cstdio>

namespace kestrel
{
namespace
{
volatile std::sig_atomic_t cancel_flag = 0;

void note_cancel(int) { cancel_flag = 1; }

struct sigaction previous_interrupt;
struct sigaction previous_terminate;
struct sigaction previous_hangup;
} // namespace

Cancel_Signals::Cancel_Signals()
{
  cancel_flag = 0;
  struct sigaction action = {};
  action.sa_handler = note_cancel;
  action.sa_flags = SA_RESTART;
  ::sigaction(SIGINT, &action, &previous_interrupt);
  ::sigaction(SIGTERM, &action, &previous_terminate);
  ::sigaction(SIGHUP, &action, &previous_hangup);
}

Cancel_Signals::~Cancel_Signals()
{
  ::sigaction(SIGINT, &previous_interrupt, nullptr);
  ::sigaction(SIGTERM, &previous_terminate, nullptr);
  ::sigaction(SIGHUP, &previous_hangup, nullptr);
}

bool Cancel_Signals::requested() { return cancel_flag != 0; }

bool Session::start()
{
  Embedded_Host::Options options;
  options.stderr_log = line_.verbose;
  std::string error;
  if (host_.start(options, error))
    return true;
  fail("kestrel cannot start: " + error);
  return false;
}

void Session::result(const json_spirit::Object& json, const std::string& text)
{
  const std::string shown = line_.json ? write_json_pretty(json) : text;
  std::fwrite(shown.data(), 1, shown.size(), stdout);
  std::fflush(stdout);
}

void Session::note(const std::string& text)
{
  if (!line_.quiet && !line_.json)
    std::fprintf(stderr, "%s\n", text.c_str());
}

int Session::fail(const std::string& what, int code, const std::string& log_path)
{
  last_code_ = code;
  if (line_.json) {
    json_spirit::Object error;
    set_value(error, "message", what);
    set_value(error, "exit_code", code);
    if (!log_path.empty())
      set_value(error, "log", log_path);
    json_spirit::Object object;
    set_value(object, "error", error);
    result(object, "");
  }
  std::fprintf(stderr, "kestrel: %s%s\n", what.c_str(), log_path.empty() ? "" : (" (log: " + log_path + ")").c_str());
  return code;
}

bool Session::find_registered(const std::string& name, Instance_Registry::Entry& entry, std::string& error)
{
  std::vector<Instance_Registry::Entry> entries;
  if (host_.instances().list(entries, error) != 0)
    return false;
  for (const std::string& wanted : {name, boost::to_upper_copy(name)}) {
    for (const Instance_Registry::Entry& candidate : entries) {
      if (candidate.instance.name == wanted) {
        entry = candidate;
        return true;
      }
    }
  }
  error.clear();
  return false;
}

bool Session::find_instance(const std::string& name, Instance_Registry::Entry& entry)
{
  std::string error;
  if (find_registered(name, entry, error))
    return true;
  if (error.empty() && host_.instances().probe(host_.instance_handler(), error) == 0 &&
      find_registered(name, entry, error))
    return true;
  fail(error.empty() ? "there is no instance " + name + " on this host; start it and look at 'kestrel instances'" : error);
  return false;
}

bool Session::resource_of(const std::string& name, std::string& resource_uuid)
{
  Instance_Registry::Entry entry;
  if (!name.empty() && !find_instance(name, entry))
    return false;
  resource_uuid = entry.instance.uuid;
  return true;
}

std::string Session::instance_name(const std::string& resource_uuid)
{
  std::vector<Instance_Registry::Entry> entries;
  std::string error;
  if (host_.instances().list(entries, error) == 0)
    for (const Instance_Registry::Entry& entry : entries)
      if (entry.instance.uuid == resource_uuid)
        return entry.instance.name;
  return resource_uuid.substr(0, 8);
}
} // namespace kestrel
