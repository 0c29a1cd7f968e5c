#include "jobs/job_event.h"

#include "jobs/job_definition.h"

#include <utility>

Job_Event::Job_Event(const Job_Definition& def) : definition_id_(def.id()), name_(def.name()) {}

Job_Event::~Job_Event() = default;

void Job_Event::deliver(kestrel::Job_Event_Listener&) const {}

Job_Progress_Event::Job_Progress_Event(const Job_Definition& def, int progress, unsigned long long a,
                                       unsigned long long b, unsigned long long c)
    : Job_Event(def), progress_(progress), a_(a), b_(b), c_(c)
{
}

void Job_Progress_Event::deliver(kestrel::Job_Event_Listener& listener) const
{
  listener.handle_progress(*this);
}

namespace kestrel
{
Job_Event_Listener::~Job_Event_Listener() = default;

Job_Start_Event::Job_Start_Event(const Job_Definition& def, time_t start_time)
    : Job_Event(def), start_time_(start_time)
{
}

void Job_Start_Event::deliver(Job_Event_Listener& listener) const
{
  listener.handle_start(*this);
}

Job_Outcome_Event::Job_Outcome_Event(const Job_Definition& def, Job_State state, int code, std::string text)
    : Job_Event(def), state_(state), code_(code), text_(std::move(text))
{
}

void Job_Outcome_Event::deliver(Job_Event_Listener& listener) const
{
  listener.handle_outcome(*this);
}

Job_State_Event::Job_State_Event(const Job_Definition& def, Job_State state) : Job_Event(def), state_(state)
{
}

void Job_State_Event::deliver(Job_Event_Listener& listener) const
{
  listener.handle_state(*this);
}

Job_Alert_Event::Job_Alert_Event(const Job_Definition& def, int category, int code)
    : Job_Event(def), category_(category), code_(code)
{
}

void Job_Alert_Event::deliver(Job_Event_Listener& listener) const
{
  listener.handle_alert(*this);
}

Job_Item_Event::Job_Item_Event(const Job_Definition& def, std::string item, uint64_t number, uint64_t total)
    : Job_Event(def), item_(std::move(item)), number_(number), total_(total)
{
}

void Job_Item_Event::deliver(Job_Event_Listener& listener) const
{
  listener.handle_item(*this);
}

Job_End_Event::Job_End_Event(const Job_Definition& def, Job_State state) : Job_Event(def), state_(state) {}

void Job_End_Event::deliver(Job_Event_Listener& listener) const
{
  listener.handle_end(*this);
}
} // namespace kestrel
