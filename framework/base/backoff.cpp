#include "base/backoff.h"

#include <algorithm>
#include <cstdint>
#include <random>

Exponential_Backoff_Iterator::Exponential_Backoff_Iterator() {}

Exponential_Backoff_Iterator::Exponential_Backoff_Iterator(unsigned slot_time, unsigned max_retries,
                                                           unsigned capped, bool jitter)
    : slot_time_(slot_time), capped_(capped), jitter_(jitter), left_(max_retries)
{
  compute();
}

Exponential_Backoff_Iterator& Exponential_Backoff_Iterator::operator++()
{
  if (left_ > 0) {
    --left_;
    ++step_;
    compute();
  }
  return *this;
}

void Exponential_Backoff_Iterator::compute()
{
  value_ = 0;
  if (left_ == 0)
    return;
  // From step 32 on the product is above any cap (or 0 for a slot time of 0).
  const uint64_t uncapped = static_cast<uint64_t>(slot_time_) << std::min(step_, 32u);
  const unsigned value = static_cast<unsigned>(std::min<uint64_t>(uncapped, capped_));
  value_ = value;
  if (jitter_ && value > 0) {
    thread_local std::mt19937 generator{std::random_device{}()};
    value_ = std::uniform_int_distribution<unsigned>(std::max(1u, value / 2), value)(generator);
  }
}
