#pragma once

#include <ace/Refcounted_Auto_Ptr.h>
#include <ace/Thread_Mutex.h>

#include <string>

/// One schedule of a job definition, as plain data: when the job is due is decided by whoever drives the
/// jobs.
///
/// Threads: immutable after construction.
class Job_Schedule
{
public:
  /// The type of a schedule that runs only when another job or a user asks for it.
  static constexpr int ON_DEMAND = 7;

  explicit Job_Schedule(int type, std::string text = std::string()) : type_(type), text_(std::move(text)) {}

  int type() const { return type_; }
  /// The schedule's JSON object as it stood in the definition; empty when it was made by code.
  const std::string& text() const { return text_; }

private:
  int type_;
  std::string text_;
};

typedef ACE_Refcounted_Auto_Ptr<Job_Schedule, ACE_Thread_Mutex> Job_Schedule_Ptr;
