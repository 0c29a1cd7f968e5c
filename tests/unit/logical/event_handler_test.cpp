#include "oscar/backup_event_handler.h"
#include "oscar/restore_event_handler.h"
#include "oscar/utils_progress.h"

#include "jobs/job_activity.h"
#include "jobs/job_definition.h"
#include "jobs/job_event.h"

#include <gtest/gtest.h>

#include <array>
#include <mutex>
#include <vector>

namespace
{
struct Progress {
  std::string definition_id;
  std::array<unsigned long long, 4> values;
  bool operator==(const Progress& other) const
  {
    return definition_id == other.definition_id && values == other.values;
  }
};

class Progress_Listener : public kestrel::Job_Event_Listener
{
public:
  Progress_Listener() { Job_Event_Manager::instance()->add_listener(this); }
  ~Progress_Listener() override { Job_Event_Manager::instance()->remove_listener(this); }
  void handle_progress(const Job_Progress_Event& event) override
  {
    const std::lock_guard<std::mutex> guard(mutex_);
    events_.push_back({event.definition_id(),
                       {static_cast<unsigned long long>(event.progress()), event.a(), event.b(), event.c()}});
  }
  void handle_item(const kestrel::Job_Item_Event& event) override
  {
    const std::lock_guard<std::mutex> guard(mutex_);
    items_.push_back(event.item() + " " + std::to_string(event.number()) + "/" +
                     std::to_string(event.total()));
  }
  std::vector<Progress> events()
  {
    Job_Event_Manager::instance()->flush();
    const std::lock_guard<std::mutex> guard(mutex_);
    return events_;
  }
  std::vector<std::string> items()
  {
    Job_Event_Manager::instance()->flush();
    const std::lock_guard<std::mutex> guard(mutex_);
    return items_;
  }

private:
  std::mutex mutex_;
  std::vector<Progress> events_;
  std::vector<std::string> items_;
};

kestrel::Job_Definition_Fields fields()
{
  kestrel::Job_Definition_Fields fields;
  fields.id = "0c9f6d1e-3b52-4f0a-9a57-1d2c3b4a5f60";
  return fields;
}

template <class Handler> class Logical_Event_Handler : public testing::Test
{
protected:
  const Job_Definition definition_{fields()};
  Job_Activity activity_{};
  Handler handler_{&definition_, &activity_};
};

typedef testing::Types<oscar::Backup_Event_Handler, oscar::Restore_Event_Handler> Handlers;
} // namespace

TYPED_TEST_SUITE(Logical_Event_Handler, Handlers);

TYPED_TEST(Logical_Event_Handler, sends_an_event_when_the_percentage_changes_either_way)
{
  Progress_Listener listener;
  const unsigned long long large = 1ull << 40;
  for (const int progress : {0, 50, 50, 49, 49, 100}) {
    EXPECT_EQ(0, this->handler_.handle_progress(progress, large, 2, 3));
    EXPECT_EQ(progress, this->activity_.progress);
  }
  const std::string id = this->definition_.id();
  EXPECT_EQ(
      (std::vector<Progress>{{id, {50, large, 2, 3}}, {id, {49, large, 2, 3}}, {id, {100, large, 2, 3}}}),
      listener.events());
}

TYPED_TEST(Logical_Event_Handler, is_canceling_in_the_three_states_of_a_cancel)
{
  for (int state = 0; state <= 25; ++state) {
    this->activity_.state = static_cast<Job_State>(state);
    const bool expected =
        state == JOB_STATE_CANCELING || state == JOB_STATE_CANCELED || state == JOB_STATE_ABORTING;
    EXPECT_EQ(expected, this->handler_.canceling()) << state;
    EXPECT_EQ(state == JOB_STATE_PAUSING, this->handler_.pausing()) << state;
  }
}

TEST(Progress_Event, carries_its_counters_unchanged)
{
  Progress_Listener listener;
  const Job_Definition definition(fields());
  EXPECT_EQ(0, oscar::put_progress_event(definition, -1, 1, ~0ull, 0));
  EXPECT_EQ((std::vector<Progress>{{definition.id(), {~0ull, 1, ~0ull, 0}}}), listener.events());
}

TEST(Item_Event, names_the_object_and_its_place)
{
  Progress_Listener listener;
  const Job_Definition definition(fields());
  EXPECT_EQ(0, oscar::put_item_event(definition, "DB1/SALES", 2, 3));
  EXPECT_EQ(std::vector<std::string>{"DB1/SALES 2/3"}, listener.items());
}
