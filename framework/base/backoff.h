#pragma once

/// Waiting times that double: exactly max_retries values; value n (from 0) is the smaller of capped and
/// slot_time * 2^n. With jitter a value v becomes a uniform random integer from max(1, v/2) to v, so that
/// many nodes do not ask in step. Never 0 with jitter, unless v is.
/// Units:   seconds.
/// Threads: one at a time; copies are independent.
class Exponential_Backoff_Iterator
{
public:
  /// The end: what every iterator equals once its retries are spent.
  Exponential_Backoff_Iterator();
  Exponential_Backoff_Iterator(unsigned slot_time, unsigned max_retries, unsigned capped, bool jitter);

  /// The same value however often it is asked for; 0 at the end.
  unsigned operator*() const { return value_; }
  Exponential_Backoff_Iterator& operator++();
  /// Equal when as many values are left; the rest of the settings is not compared.
  bool operator==(const Exponential_Backoff_Iterator& other) const { return left_ == other.left_; }
  bool operator!=(const Exponential_Backoff_Iterator& other) const { return !(*this == other); }

private:
  void compute();

  unsigned slot_time_ = 0;
  unsigned capped_ = 0;
  bool jitter_ = false;
  unsigned left_ = 0;
  unsigned step_ = 0;
  unsigned value_ = 0;
};
