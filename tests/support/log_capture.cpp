#include "support/log_capture.h"

#include <ace/Log_Msg.h>
#include <ace/Log_Msg_Backend.h>
#include <ace/Log_Record.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <mutex>

namespace kestrel_test
{
struct Log_Capture::State {
  mutable std::mutex mutex;
  std::vector<Log_Line> lines;
  std::vector<Log_Line> allowed;
};

/// Hands each record to the innermost capture.
class Capture_Backend : public ACE_Log_Msg_Backend
{
public:
  static Capture_Backend& instance()
  {
    static Capture_Backend* const backend = new Capture_Backend;
    return *backend;
  }

  void push(Log_Capture* capture)
  {
    std::lock_guard<std::mutex> install_guard(install_mutex_);
    {
      std::lock_guard<std::mutex> guard(mutex_);
      captures_.push_back(capture);
      if (captures_.size() > 1)
        return;
    }
    previous_ = ACE_Log_Msg::msg_backend(this);
    previous_flags_ = ACE_LOG_MSG->flags();
    ACE_LOG_MSG->set_flags(ACE_Log_Msg::CUSTOM | ACE_Log_Msg::MSG_CALLBACK);
    ACE_LOG_MSG->clr_flags(ACE_Log_Msg::STDERR);
  }

  void pop(Log_Capture* capture)
  {
    std::lock_guard<std::mutex> install_guard(install_mutex_);
    {
      std::lock_guard<std::mutex> guard(mutex_);
      captures_.erase(std::remove(captures_.begin(), captures_.end(), capture), captures_.end());
      if (!captures_.empty())
        return;
    }
    ACE_Log_Msg::msg_backend(previous_);
    ACE_LOG_MSG->clr_flags(~previous_flags_);
    ACE_LOG_MSG->set_flags(previous_flags_);
  }

  int open(const ACE_TCHAR*) override { return 0; }
  int reset() override { return 0; }
  int close() override { return 0; }

  ssize_t log(ACE_Log_Record& record) override
  {
    std::lock_guard<std::mutex> guard(mutex_);
    if (captures_.empty())
      return 0;
    Log_Capture::State& state = *captures_.back()->state_;
    std::lock_guard<std::mutex> state_guard(state.mutex);
    Log_Line line;
    line.priority = static_cast<ACE_Log_Priority>(record.type());
    line.text = record.msg_data() ? record.msg_data() : "";
    state.lines.push_back(line);
    return 0;
  }

private:
  // ACE calls log() under a lock of its own, which installing a backend takes too: so installing has another
  // mutex.
  std::mutex install_mutex_;
  std::mutex mutex_;
  std::vector<Log_Capture*> captures_;
  ACE_Log_Msg_Backend* previous_ = nullptr;
  u_long previous_flags_ = 0;
};

namespace
{
bool matches(const Log_Line& line, ACE_Log_Priority priority, const std::string& text, bool exactly)
{
  return line.priority == priority &&
         (exactly ? line.text == text : line.text.find(text) != std::string::npos);
}
} // namespace

Log_Capture::Log_Capture() : state_(new State)
{
  Capture_Backend::instance().push(this);
}

Log_Capture::~Log_Capture()
{
  Capture_Backend::instance().pop(this);
  for (const Log_Line& line : state_->lines) {
    bool fine = line.expected || line.priority < LM_WARNING;
    for (const Log_Line& allowed : state_->allowed)
      fine = fine || matches(line, allowed.priority, allowed.text, false);
    if (!fine)
      ADD_FAILURE() << "unexpected log line of priority " << line.priority << ": " << line.text;
  }
}

bool Log_Capture::expect(ACE_Log_Priority priority, const std::string& text)
{
  return take(priority, text, false);
}

bool Log_Capture::expect_exactly(ACE_Log_Priority priority, const std::string& text)
{
  return take(priority, text, true);
}

bool Log_Capture::take(ACE_Log_Priority priority, const std::string& text, bool exactly)
{
  std::lock_guard<std::mutex> guard(state_->mutex);
  std::string seen;
  for (Log_Line& line : state_->lines) {
    if (!line.expected && matches(line, priority, text, exactly)) {
      line.expected = true;
      return true;
    }
    seen += "  " + std::to_string(line.priority) + ": " + line.text;
  }
  ADD_FAILURE() << "no log line of priority " << priority << (exactly ? " is \"" : " contains \"") << text
                << "\"; logged:\n"
                << seen;
  return false;
}

void Log_Capture::allow(ACE_Log_Priority priority, const std::string& text)
{
  std::lock_guard<std::mutex> guard(state_->mutex);
  Log_Line line;
  line.priority = priority;
  line.text = text;
  state_->allowed.push_back(line);
}

unsigned Log_Capture::count(const std::string& text) const
{
  std::lock_guard<std::mutex> guard(state_->mutex);
  unsigned number = 0;
  for (const Log_Line& line : state_->lines)
    number += line.text.find(text) != std::string::npos;
  return number;
}

unsigned Log_Capture::count(ACE_Log_Priority priority, const std::string& text) const
{
  std::lock_guard<std::mutex> guard(state_->mutex);
  unsigned number = 0;
  for (const Log_Line& line : state_->lines)
    number += matches(line, priority, text, false);
  return number;
}

std::vector<Log_Line> Log_Capture::lines() const
{
  std::lock_guard<std::mutex> guard(state_->mutex);
  return state_->lines;
}

void Log_Capture::clear()
{
  std::lock_guard<std::mutex> guard(state_->mutex);
  state_->lines.clear();
}
} // namespace kestrel_test
