#pragma once

#include "jobs/job_types.h"

#include <ace/Time_Value.h>

#include <cstdint>
#include <ctime>
#include <memory>
#include <string>

class Job;
class Job_Definition;

namespace kestrel
{
class Job_Event_Listener;
}

/// Something that happened to a job. Events are copies of what they tell: they may outlive the job.
class Job_Event
{
public:
  virtual ~Job_Event();
  /// Calls the listener's operation for this kind of event.
  virtual void deliver(kestrel::Job_Event_Listener& listener) const;

  const std::string& definition_id() const { return definition_id_; }
  const std::string& name() const { return name_; }

protected:
  Job_Event() = default;
  explicit Job_Event(const Job_Definition& def);

private:
  std::string definition_id_;
  std::string name_;
};

/// A progress report; the three counters are passed on as they were given.
class Job_Progress_Event : public Job_Event
{
public:
  Job_Progress_Event(const Job_Definition& def, int progress, unsigned long long a, unsigned long long b,
                     unsigned long long c);
  void deliver(kestrel::Job_Event_Listener& listener) const override;

  int progress() const { return progress_; }
  unsigned long long a() const { return a_; }
  unsigned long long b() const { return b_; }
  unsigned long long c() const { return c_; }

private:
  int progress_;
  unsigned long long a_, b_, c_;
};

namespace kestrel
{
/// A run got past its conditions and begins its work.
class Job_Start_Event : public Job_Event
{
public:
  Job_Start_Event(const Job_Definition& def, time_t start_time);
  void deliver(Job_Event_Listener& listener) const override;
  time_t start_time() const { return start_time_; }

private:
  time_t start_time_;
};

/// A run that had started reported its result: COMPLETED, PAUSED, CANCELED or ERROR.
class Job_Outcome_Event : public Job_Event
{
public:
  Job_Outcome_Event(const Job_Definition& def, Job_State state, int code, std::string text);
  void deliver(Job_Event_Listener& listener) const override;
  Job_State state() const { return state_; }
  /// Of a failure; -1 says that the job's log and its alerts tell why. 0 otherwise.
  int code() const { return code_; }
  const std::string& text() const { return text_; }

private:
  Job_State state_;
  int code_;
  std::string text_;
};

/// A job's state was set and published.
class Job_State_Event : public Job_Event
{
public:
  Job_State_Event(const Job_Definition& def, Job_State state);
  void deliver(Job_Event_Listener& listener) const override;
  Job_State state() const { return state_; }

private:
  Job_State state_;
};

class Job_Alert_Event : public Job_Event
{
public:
  Job_Alert_Event(const Job_Definition& def, int category, int code);
  void deliver(Job_Event_Listener& listener) const override;
  int category() const { return category_; }
  int code() const { return code_; }

private:
  int category_;
  int code_;
};

/// A run that works through several objects, one after the other, turned to the next one.
class Job_Item_Event : public Job_Event
{
public:
  /// number counts from 1.
  Job_Item_Event(const Job_Definition& def, std::string item, uint64_t number, uint64_t total);
  void deliver(Job_Event_Listener& listener) const override;
  const std::string& item() const { return item_; }
  uint64_t number() const { return number_; }
  uint64_t total() const { return total_; }

private:
  std::string item_;
  uint64_t number_, total_;
};

/// A run is over; comes once for each run, whether it started its work or not, and after all its other
/// events.
class Job_End_Event : public Job_Event
{
public:
  Job_End_Event(const Job_Definition& def, Job_State state);
  void deliver(Job_Event_Listener& listener) const override;
  Job_State state() const { return state_; }

private:
  Job_State state_;
};

/// Gets the events of all jobs, in the order in which they were put, on the event manager's thread. A
/// listener must not block for long (the queue is bounded, and jobs wait when it is full), must not wait for
/// a job's end, and must not throw.
class Job_Event_Listener
{
public:
  virtual ~Job_Event_Listener();
  virtual void handle_start(const Job_Start_Event&) {}
  virtual void handle_progress(const Job_Progress_Event&) {}
  virtual void handle_item(const Job_Item_Event&) {}
  virtual void handle_state(const Job_State_Event&) {}
  virtual void handle_alert(const Job_Alert_Event&) {}
  virtual void handle_outcome(const Job_Outcome_Event&) {}
  virtual void handle_end(const Job_End_Event&) {}
};
} // namespace kestrel

/// The queue between the jobs and everyone who follows them: a bounded queue, one consumer thread, any
/// listeners.
///
/// Threads:  all operations from any thread. Shutdown: close() delivers what is queued, ends the consumer
///           and refuses later events; it blocks until that is done. It runs by itself when the process
///           exits.
class Job_Event_Manager
{
public:
  static Job_Event_Manager* instance();

  Job_Event_Manager();
  ~Job_Event_Manager();
  Job_Event_Manager(const Job_Event_Manager&) = delete;
  Job_Event_Manager& operator=(const Job_Event_Manager&) = delete;

  /// The number of waiting events, or -1 and errno: EINVAL (no event), ESHUTDOWN (closed), EWOULDBLOCK (full
  /// until the given absolute time), ENOMEM. A null timeout waits for room. The event is gone in every case.
  int putq(std::unique_ptr<Job_Event> event, ACE_Time_Value* timeout);

  /// Queues an event whether there is room or not, and never waits: for the few events that tell a job's
  /// state, which must come in order and must not hold up a control request. 0, or -1 and errno as above.
  int post(std::unique_ptr<Job_Event> event);

  /// Listeners are not owned. remove_listener() returns when no call into the listener runs any more (except
  /// when it is called from the listener itself).
  void add_listener(kestrel::Job_Event_Listener* listener);
  void remove_listener(kestrel::Job_Event_Listener* listener);
  /// Returns when everything put before has been delivered. Not from a listener.
  void flush();
  void close();

private:
  struct Queue;
  int enqueue(std::unique_ptr<Job_Event> event);

  std::unique_ptr<Queue> queue_;
};

/// Reports a run's start, progress and result: keeps the job's activity record and sends the events.
/// Threads: the run thread of the job; handle_progress() also from the threads that the run started.
class Job_Event_Handler
{
public:
  /// The job is not owned and must outlive the handler.
  explicit Job_Event_Handler(Job& job);

  /// The work begins: RUNNING unless a control request came first (that one stays), start and last run time,
  /// a new uuid, the start event. Start times are unique among all processes of one installation, since names
  /// are made of them: blocks for as many seconds as jobs started in the same second.
  void handle_start_job();
  void handle_success();
  void handle_paused();
  void handle_canceled();
  /// code -1 without a text: the job's log and its alerts tell the reason. The text goes to the log, too.
  void handle_failure(int code, const char* format, ...) __attribute__((format(printf, 3, 4)));
  /// 0, or -1 when the event could not be queued.
  int handle_progress(int percent, unsigned long long total, unsigned long long done);

private:
  void finish(Job_State result, int code, const std::string& text);

  Job& job_;
};
