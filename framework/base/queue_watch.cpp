#include "base/queue_watch.h"

#include "base/heartbeat.h"

namespace kestrel
{
void Queue_Watch::begin(Heartbeats* heartbeats, const std::string& name, int64_t limit_msec)
{
  end();
  heartbeats_ = heartbeats;
  name_ = name;
  limit_msec_ = limit_msec;
}

void Queue_Watch::end()
{
  look(false);
  heartbeats_ = nullptr;
}

void Queue_Watch::look(bool waits)
{
  if (!heartbeats_ || waits == watched_)
    return;
  watched_ = waits;
  if (waits)
    loop_ = heartbeats_->add(name_, limit_msec_);
  else
    heartbeats_->end(loop_);
}

void Queue_Watch::taken(bool waits)
{
  if (watched_ && waits)
    heartbeats_->beat(loop_);
  else
    look(waits);
}
} // namespace kestrel
