#include "agent/module_table.h"

#include "agent/module_loader.h"
#include "instances/instance_handler.h"
#include "jobs/job_definition_loader.h"
#include "rpc/json_rpc.h"
#include "json/object_creator.h"
#include "json/yajl_handler.h"

#include <cerrno>
#include <climits>
#include <cstring>
#include <functional>
#include <stdexcept>
#include <unistd.h>
#include <utility>

namespace kestrel
{
namespace
{
typedef Object_Creator_T<YAJL_Handler> Parser_Creator;

struct Job_Kind {
  Job_Definition_Type type;
  bool any_subtype;
  Job_Definition_Subtype subtype;
};

/// "backup" or "backup/export"; the configuration has checked the words.
Job_Kind job_kind(const std::string& text)
{
  const size_t slash = text.find('/');
  Job_Kind kind{JOB_DEFINITION_NONE, slash == std::string::npos, JOB_DEFINITION_SUBTYPE_NONE};
  if (!job_def_type_from_text(text.substr(0, slash), kind.type) ||
      (!kind.any_subtype && !job_def_subtype_from_text(text.substr(slash + 1), kind.subtype)))
    throw std::runtime_error("\"" + text + "\" is no type of job");
  return kind;
}

/// A module's object gets its words as C's main() does: writable, and a null behind the last one.
template <class T> int init_with_words(T& object, std::vector<std::string> words)
{
  std::vector<char*> pointers;
  pointers.reserve(words.size() + 1);
  for (std::string& word : words)
    pointers.push_back(&word[0]);
  pointers.push_back(nullptr);
  return object.init(static_cast<int>(words.size()), pointers.data());
}

std::string program_directory()
{
  char path[PATH_MAX];
  const ssize_t length = ::readlink("/proc/self/exe", path, sizeof path);
  const std::string program(path, length > 0 ? static_cast<size_t>(length) : 0);
  const size_t slash = program.find_last_of('/');
  return slash == std::string::npos ? std::string() : program.substr(0, slash);
}
} // namespace

struct Module_Table::State {
  ~State()
  {
    // The objects before their modules, the last made first.
    while (!releases.empty()) {
      releases.back()();
      releases.pop_back();
    }
    while (!modules.empty())
      modules.pop_back();
  }

  void load(const Module_Config& config);
  template <class T> T* make(Module_Loader& module, const Module_Config& config, const Service_Line& line);
  void make_parsers(Module_Loader& module, const Module_Config& config);
  /// Objects with the same line are one object.
  template <class T>
  T* shared(std::map<std::string, T*>& made, Module_Loader& module, const Module_Config& config,
            const Service_Line& line);

  std::vector<std::unique_ptr<Module_Loader>> modules;
  std::vector<std::function<void()>> releases;
  std::map<std::string, JSON_RPC_Handler*> rpc;
  std::vector<Instance_Handler*> instances;
  std::map<int, Job_Creator*> creators_by_type;
  std::map<std::pair<int, int>, Job_Creator*> creators_by_subtype;
  Job_Definition_Loader loader;
};

template <class T>
T* Module_Table::State::make(Module_Loader& module, const Module_Config& config, const Service_Line& line)
{
  void (*release)(void*) = nullptr;
  errno = 0;
  T* const object = module.make<T>(line.factory.c_str(), &release);
  if (!object)
    throw std::runtime_error("the module " + config.name + " gives no " + line.factory + ": " +
                             (errno ? std::strerror(errno) : "no reason given"));
  releases.push_back([object, release] {
    if (release)
      release(object);
  });
  return object;
}

template <class T>
T* Module_Table::State::shared(std::map<std::string, T*>& made, Module_Loader& module,
                               const Module_Config& config, const Service_Line& line)
{
  std::string key = line.factory;
  for (const std::string& word : line.words)
    key += '\n' + word;
  T*& object = made[key];
  if (!object) {
    T* const fresh = make<T>(module, config, line);
    if (init_with_words(*fresh, line.words) != 0)
      throw std::runtime_error("the " + line.factory + " of the module " + config.name + " refused to start");
    object = fresh;
  }
  return object;
}

void Module_Table::State::make_parsers(Module_Loader& module, const Module_Config& config)
{
  std::map<std::string, Parser_Creator*> made;
  std::map<std::string, std::pair<Parser_Creator*, Parser_Creator*>> by_kind;
  for (const auto& entry : config.source_parsers)
    by_kind[entry.first].first = shared(made, module, config, entry.second);
  for (const auto& entry : config.options_parsers)
    by_kind[entry.first].second = shared(made, module, config, entry.second);
  for (const auto& entry : by_kind) {
    const Job_Kind kind = job_kind(entry.first);
    if (kind.any_subtype)
      loader.add_parsers(kind.type, entry.second.first, entry.second.second);
    else
      loader.add_parsers(kind.type, kind.subtype, entry.second.first, entry.second.second);
  }
}

void Module_Table::State::load(const Module_Config& config)
{
  modules.push_back(std::make_unique<Module_Loader>());
  Module_Loader& module = *modules.back();
  if (!module.open(installed_path(config.path)))
    throw std::runtime_error(module.error());

  std::map<std::string, Job_Creator*> creators;
  for (const auto& entry : config.jobs) {
    Job_Creator* const creator = shared(creators, module, config, entry.second);
    const Job_Kind kind = job_kind(entry.first);
    if (kind.any_subtype)
      creators_by_type[kind.type] = creator;
    else
      creators_by_subtype[{kind.type, kind.subtype}] = creator;
  }
  make_parsers(module, config);
  for (const Service_Line& line : config.instance_handlers) {
    Instance_Handler* const handler = make<Instance_Handler>(module, config, line);
    if (init_with_words(*handler, line.words) != 0)
      throw std::runtime_error("the " + line.factory + " of the module " + config.name + " refused to start");
    instances.push_back(handler);
  }
  // These take no words: their interface has no init().
  for (const auto& entry : config.rpc)
    rpc[entry.first] = make<JSON_RPC_Handler>(module, config, entry.second);
}

Module_Table::Module_Table() : state_(new State) {}

Module_Table::~Module_Table() = default;

bool Module_Table::open(const std::vector<Module_Config>& modules, std::string& error)
{
  if (!state_->modules.empty()) {
    error = "the modules are loaded already";
    return false;
  }
  auto opened = std::make_unique<State>();
  try {
    for (const Module_Config& config : modules)
      opened->load(config);
  } catch (const std::exception& problem) {
    error = problem.what();
    return false;
  }
  state_ = std::move(opened);
  return true;
}

void Module_Table::close()
{
  state_ = std::make_unique<State>();
}

const std::map<std::string, JSON_RPC_Handler*>& Module_Table::rpc_handlers() const
{
  return state_->rpc;
}

const std::vector<Instance_Handler*>& Module_Table::instance_handlers() const
{
  return state_->instances;
}

Instance_Handler* Module_Table::instance_handler(const std::string& type) const
{
  for (Instance_Handler* handler : state_->instances)
    if (handler->type() == type)
      return handler;
  return nullptr;
}

Job_Creator* Module_Table::job_creator(Job_Definition_Type type, Job_Definition_Subtype subtype) const
{
  const auto exact = state_->creators_by_subtype.find({type, subtype});
  if (exact != state_->creators_by_subtype.end())
    return exact->second;
  const auto any = state_->creators_by_type.find(type);
  return any != state_->creators_by_type.end() ? any->second : nullptr;
}

const Job_Definition_Loader& Module_Table::loader() const
{
  return state_->loader;
}

std::string Module_Table::installed_path(const std::string& path)
{
  if (path.find('/') != std::string::npos)
    return path;
  const std::string file = path.empty() ? "oscar.so" : path;
  const std::string program = program_directory();
  for (const char* place : {"/../lib/", "/../lib/kestrel/", "/"})
    if (::access((program + place + file).c_str(), R_OK) == 0)
      return program + place + file;
  return program + "/../lib/" + file;
}
} // namespace kestrel
