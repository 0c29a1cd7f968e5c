#include "support/memory_channel.h"

#include "support/waiting.h"

#include <gtest/gtest.h>

namespace kestrel_test
{
Memory_Channel::~Memory_Channel()
{
  Memory_Channel::close("The other side let go of the connection.");
}

Memory_Channel::Ends Memory_Channel::pair()
{
  const Ends ends(std::make_shared<Memory_Channel>("memory:1"), std::make_shared<Memory_Channel>("memory:2"));
  ends.first->other_ = ends.second;
  ends.second->other_ = ends.first;
  return ends;
}

void Memory_Channel::start(const std::weak_ptr<kestrel::Message_Receiver>& receiver)
{
  std::vector<std::string> waiting;
  std::unique_lock<std::mutex> lock(mutex_);
  receiver_ = receiver;
  started_ = true;
  waiting.swap(waiting_);
  const bool is_open = open_;
  const std::string why = why_;
  lock.unlock();
  const std::shared_ptr<kestrel::Message_Receiver> user = receiver.lock();
  for (const std::string& text : waiting)
    if (user)
      user->message(text);
  if (user && !is_open)
    user->closed(why);
}

bool Memory_Channel::send(const std::string& text)
{
  std::shared_ptr<Memory_Channel> other;
  {
    const std::lock_guard<std::mutex> guard(mutex_);
    if (!open_ || text.size() > limit_bytes_)
      return false;
    sent_.push_back(text);
    if (!swallows_)
      other = other_.lock();
  }
  if (other)
    other->deliver(text);
  return true;
}

void Memory_Channel::deliver(const std::string& text)
{
  std::shared_ptr<kestrel::Message_Receiver> user;
  {
    const std::lock_guard<std::mutex> guard(mutex_);
    if (!started_)
      waiting_.push_back(text);
    else if (open_)
      user = receiver_.lock();
  }
  if (user)
    user->message(text);
}

void Memory_Channel::close(const std::string& why)
{
  std::shared_ptr<Memory_Channel> other;
  {
    const std::lock_guard<std::mutex> guard(mutex_);
    other = other_.lock();
  }
  end(why);
  if (other)
    other->end(why);
}

void Memory_Channel::end(const std::string& why)
{
  std::shared_ptr<kestrel::Message_Receiver> user;
  {
    const std::lock_guard<std::mutex> guard(mutex_);
    if (!open_)
      return;
    open_ = false;
    why_ = why;
    user = receiver_.lock();
  }
  if (user)
    user->closed(why);
}

bool Memory_Channel::open() const
{
  const std::lock_guard<std::mutex> guard(mutex_);
  return open_;
}

void Memory_Channel::swallow()
{
  const std::lock_guard<std::mutex> guard(mutex_);
  swallows_ = true;
}

std::vector<std::string> Memory_Channel::sent() const
{
  const std::lock_guard<std::mutex> guard(mutex_);
  return sent_;
}

std::vector<std::string> Memory_Channel::wait_sent(std::size_t count) const
{
  EXPECT_TRUE(eventually([&] { return sent().size() >= count; })) << count << " messages";
  return sent();
}
} // namespace kestrel_test
