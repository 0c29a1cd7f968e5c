// A module whose jobs write down what is called of them: into the file that its creator's first word names,
// one line a call, "update full NAME -> NEW NAME". A definition whose name contains "refuses" has an executor
// that does not succeed, one with "throws" an executor that throws, and one with "waits" an executor whose
// calls go on until the file FILE.go is there.
#include "job/default_job_t.h"
#include "job/job_executor_t.h"
#include "jobs/job_creator.h"
#include "jobs/job_event.h"

#include <chrono>
#include <fcntl.h>
#include <stdexcept>
#include <string>
#include <thread>
#include <unistd.h>

namespace
{
std::string record_path;

/// One write() that appends: lines of several threads do not mix.
void note(const std::string& line)
{
  const int file = ::open(record_path.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600);
  if (file < 0 || ::write(file, line.data(), line.size()) != static_cast<ssize_t>(line.size()))
    throw std::runtime_error("cannot write " + record_path);
  ::close(file);
}

class Recording_Executor : public Job_Executor_T<Job_Source, Job_Options, Job_Event_Handler>
{
public:
  explicit Recording_Executor(Job& job) : Job_Executor_T(job) {}

  bool remove() override { return told("remove", ""); }
  bool setup_ondemand() override { return told("setup_ondemand", ""); }
  bool remove_ondemand() override { return told("remove_ondemand", ""); }
  bool update(Job_Definition_Ptr def) override { return told("update", " -> " + def->name()); }

protected:
  bool execute_i(const Opts*) override { return true; }

private:
  bool told(const std::string& what, const std::string& more)
  {
    const std::string& name = def_.name();
    note(what + " " + job_def_subtype_to_string(def_.subtype()) + " " + name + more + "\n");
    if (name.find("throws") != std::string::npos)
      throw std::runtime_error("thrown on purpose");
    while (name.find("waits") != std::string::npos && ::access((record_path + ".go").c_str(), F_OK) != 0)
      std::this_thread::sleep_for(std::chrono::milliseconds(5));
    return name.find("refuses") == std::string::npos;
  }
};

/// A base's update tells nobody that an executor refuses; this one does.
class Recording_Job : public Controllable_Job_T<Recording_Executor>
{
public:
  using Controllable_Job_T::Controllable_Job_T;

protected:
  /// Runs on the caller's thread and only says so.
  int start_i(const Opts*) override
  {
    note("run " + definition().name() + "\n");
    return state(JOB_STATE_COMPLETED) == 0 ? complete() : -1;
  }
  int update_i(Job_Definition_Ptr def) override { return Recording_Executor(*this).update(def) ? 0 : -1; }
};

class Recording_Creator : public Job_Creator
{
public:
  int init(int argc, char** argv) override
  {
    record_path = argc > 0 ? argv[0] : "";
    return 0;
  }
  ACE_Intrusive_Auto_Ptr<Job> create(Job_Definition_Ptr def) override
  {
    return ACE_Intrusive_Auto_Ptr<Job>(new Recording_Job(def), false);
  }
};

/// The same; another object, as one of another kind of job is.
class Other_Creator : public Recording_Creator
{
};

void release_creator(void* object)
{
  delete static_cast<Job_Creator*>(object);
}
} // namespace

extern "C" Job_Creator* _make_Recording_Creator(void (**release)(void*))
{
  *release = release_creator;
  return new Recording_Creator;
}

extern "C" Job_Creator* _make_Other_Creator(void (**release)(void*))
{
  *release = release_creator;
  return new Other_Creator;
}
