#pragma once

#include <bitset>
#include <cstdint>
#include <ctime>
#include <memory>
#include <string>

namespace kestrel
{
/// When something is due, in the five fields of a cron line: minute, hour, day of the month, month, day of
/// the week. Fields hold "*", numbers, ranges ("1-5"), steps ("*/15", "8-18/2"), lists of these, and English
/// names of three letters for months and days; 0 and 7 are Sunday. When neither day field holds a "*", a day
/// that satisfies one of them is enough; else both must be satisfied. "@hourly", "@daily" ("@midnight"),
/// "@weekly", "@monthly" and
/// "@yearly" ("@annually") stand for whole lines.
///
/// Times are those of a time zone of the system's database. A time of day that does not exist on a day comes
/// at the first moment after the gap; one that exists twice counts once, the first time. So times an hour
/// apart may lie two hours apart in the night when the clocks go back. Threads: a value; const access from
/// any number of threads. Limits:  lines of 1000 characters; years up to 9999, and no time that a time_t cannot
/// hold (on 32-bit hosts from 2038 on).
class Cron_Schedule
{
public:
  static constexpr std::size_t max_length = 1000;

  Cron_Schedule();
  ~Cron_Schedule();
  Cron_Schedule(const Cron_Schedule&);
  Cron_Schedule& operator=(const Cron_Schedule&);

  /// `time_zone` is a name like "Europe/Berlin"; empty takes the zone of this host.
  /// Errors: false with `error` naming the field and what is allowed; a line that never comes true ("0 0 30
  ///         2 *") is refused, too. `schedule` is untouched then.
  [[nodiscard]] static bool parse(const std::string& line, const std::string& time_zone,
                                  Cron_Schedule& schedule, std::string& error);

  /// The first time that is due after `time`; false, with `next` untouched, when there is none within the
  /// limits.
  [[nodiscard]] bool next_after(time_t time, time_t& next) const;

  /// The last time that was due after `after`, up to and including `until`; false, with `last` untouched,
  /// when there was none.
  [[nodiscard]] bool last_until(time_t until, time_t after, time_t& last) const;

  /// How many times were due after `after`, up to and including `until`. Days are counted as a whole, so
  /// years of minutes take no longer than years of days; `complete` becomes false when there were more than
  /// max_counted_days days with such times, and the number is then a lower bound.
  uint64_t count(time_t after, time_t until, bool& complete) const;
  static constexpr unsigned max_counted_days = 2000;

private:
  struct Zone;

  bool day_matches(int month, int day, int weekday) const;
  bool ever_matches() const;
  bool whole_day(time_t time, time_t& next_day) const;

  std::bitset<60> minutes_;
  std::bitset<24> hours_;
  std::bitset<32> days_;
  std::bitset<13> months_;
  std::bitset<7> weekdays_;
  bool either_day_ = false; ///< one of the day fields is enough
  std::shared_ptr<const Zone> zone_;
};
} // namespace kestrel
