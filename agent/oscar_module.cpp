#include "agent/oscar_module.h"

#include "instances/instance_handler.h"
#include "jobs/job_creator.h"
#include "jobs/job_definition_loader.h"
#include "json/object_creator.h"
#include "json/yajl_handler.h"

#include <cerrno>
#include <cstring>

namespace kestrel
{
namespace
{
void release_nothing(void*) {}
} // namespace

Oscar_Module::Oscar_Module()
    : job_creator_(nullptr, release_nothing), instance_handler_(nullptr, release_nothing),
      backup_source_parsers_(nullptr, release_nothing), backup_options_parsers_(nullptr, release_nothing),
      restore_source_parsers_(nullptr, release_nothing), restore_options_parsers_(nullptr, release_nothing)
{
}

Oscar_Module::~Oscar_Module() = default;

template <class T> bool Oscar_Module::make(const char* name, Held<T>& held, std::string& error)
{
  void (*release)(void*) = nullptr;
  errno = 0;
  T* made = loader_.make<T>(name, &release);
  if (!made) {
    error = std::string("the module gives no ") + name + ": " + (errno ? std::strerror(errno) : "no reason given");
    return false;
  }
  held = Held<T>(made, release);
  return true;
}

bool Oscar_Module::open(const std::string& path, std::string& error)
{
  if (!loader_.open(path)) {
    error = loader_.error();
    return false;
  }
  if (!make("Oscar_Job_Creator", job_creator_, error) ||
      !make("Oscar_Instance_Handler", instance_handler_, error) ||
      !make("Oscar_Backup_Job_Source_Parser_Creator", backup_source_parsers_, error) ||
      !make("Oscar_Backup_Job_Options_Parser_Creator", backup_options_parsers_, error) ||
      !make("Oscar_Restore_Job_Source_Parser_Creator", restore_source_parsers_, error) ||
      !make("Oscar_Restore_Job_Options_Parser_Creator", restore_options_parsers_, error))
    return false;
  // No words of configuration: every service starts with its defaults.
  const bool ready = job_creator_->init(0, nullptr) == 0 && instance_handler_->init(0, nullptr) == 0 &&
                     backup_source_parsers_->init(0, nullptr) == 0 && backup_options_parsers_->init(0, nullptr) == 0 &&
                     restore_source_parsers_->init(0, nullptr) == 0 && restore_options_parsers_->init(0, nullptr) == 0;
  if (!ready)
    error = "a service of the module refused to start";
  return ready;
}

void Oscar_Module::add_parsers_to(Job_Definition_Loader& loader) const
{
  loader.add_parsers(JOB_DEFINITION_BACKUP, backup_source_parsers_.get(), backup_options_parsers_.get());
  loader.add_parsers(JOB_DEFINITION_RESTORE, restore_source_parsers_.get(), restore_options_parsers_.get());
}
} // namespace kestrel
