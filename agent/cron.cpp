#include "agent/cron.h"

#include "base/files.h"

#include <boost/algorithm/string/case_conv.hpp>
#include <boost/algorithm/string/classification.hpp>
#include <boost/algorithm/string/split.hpp>
#include <boost/algorithm/string/trim.hpp>
#include <cctz/civil_time.h>
#include <cctz/time_zone.h>

#include <algorithm>
#include <cctype>
#include <chrono>
#include <cstring>
#include <limits>
#include <stdexcept>
#include <vector>

namespace kestrel
{
struct Cron_Schedule::Zone {
  cctz::time_zone zone;
};

namespace
{
typedef cctz::time_point<cctz::seconds> Moment;

constexpr int last_year = 9999;
/// The calendar repeats itself after so many years, days of the week included.
constexpr int calendar_years = 400;

struct Field {
  const char* name;
  int first, last;
  const char* const* names; ///< of the numbers from first_named on; null: none
  int first_named;
};

const char* const month_names[] = {"jan", "feb", "mar", "apr", "may", "jun",  "jul",
                                   "aug", "sep", "oct", "nov", "dec", nullptr};
const char* const weekday_names[] = {"sun", "mon", "tue", "wed", "thu", "fri", "sat", nullptr};

const Field fields[] = {{"minute", 0, 59, nullptr, 0},
                        {"hour", 0, 23, nullptr, 0},
                        {"day of the month", 1, 31, nullptr, 0},
                        {"month", 1, 12, month_names, 1},
                        {"day of the week", 0, 7, weekday_names, 0}};

struct Short_Form {
  const char* name;
  const char* line;
};

const Short_Form short_forms[] = {
    {"@hourly", "0 * * * *"},  {"@daily", "0 0 * * *"},  {"@midnight", "0 0 * * *"}, {"@weekly", "0 0 * * 0"},
    {"@monthly", "0 0 1 * *"}, {"@yearly", "0 0 1 1 *"}, {"@annually", "0 0 1 1 *"}};

[[noreturn]] void refuse(const Field& field, const std::string& reason)
{
  std::string allowed = std::to_string(field.first) + " to " + std::to_string(field.last);
  if (field.names)
    allowed += std::string(" or names such as ") + field.names[1];
  throw std::runtime_error(std::string("the ") + field.name + " " + reason + "; allowed are " + allowed +
                           ", ranges (a-b), steps (*/n, a-b/n), lists (a,b) and *");
}

bool all_digits(const std::string& text)
{
  return !text.empty() && text.find_first_not_of("0123456789") == std::string::npos;
}

/// A number of at most four digits.
int take_number(const Field& field, const std::string& text)
{
  if (!all_digits(text) || text.size() > 4)
    refuse(field, "\"" + text + "\" is no number in range");
  return std::stoi(text);
}

/// `range_end`: Sunday ends the week there.
int take_value(const Field& field, const std::string& text, bool range_end)
{
  for (int index = 0; field.names && field.names[index]; ++index)
    if (text == field.names[index])
      return range_end && field.last == 7 && index == 0 ? 7 : index + field.first_named;
  const int value = take_number(field, text);
  if (value < field.first || value > field.last)
    refuse(field, "\"" + text + "\" is out of range");
  return value;
}

/// "*", "a", "a-b", each but "a" perhaps with "/n".
template <class Set> void take_item(const Field& field, const std::string& item, Set& set)
{
  const size_t slash = item.find('/');
  const std::string range = item.substr(0, slash);
  const size_t dash = range.find('-');
  int from = field.first;
  int to = field.last;
  int step = 1;
  if (range == "*") {
    to = field.last == 7 ? 6 : field.last;
  } else {
    from = take_value(field, range.substr(0, dash), false);
    to = dash == std::string::npos ? from : take_value(field, range.substr(dash + 1), true);
    if (from > to)
      refuse(field, "range \"" + range + "\" runs backwards");
  }
  if (slash != std::string::npos) {
    if (range != "*" && dash == std::string::npos)
      refuse(field, "step \"" + item + "\" stands behind a single value");
    step = take_number(field, item.substr(slash + 1));
    if (step < 1)
      refuse(field, "step \"" + item + "\" is not 1 or more");
  }
  for (int value = from; value <= to; value += step)
    set.set(static_cast<size_t>(field.last == 7 ? value % 7 : value));
}

template <class Set> void take_field(const Field& field, const std::string& text, Set& set)
{
  std::vector<std::string> items;
  boost::split(items, text, boost::is_any_of(","));
  for (const std::string& item : items)
    take_item(field, item, set);
}

std::vector<std::string> split_line(const std::string& line)
{
  if (line.size() > Cron_Schedule::max_length)
    throw std::runtime_error("the line is longer than " + std::to_string(Cron_Schedule::max_length) +
                             " characters");
  std::string text = boost::trim_copy_if(line, boost::is_any_of(" \t"));
  boost::to_lower(text);
  if (!text.empty() && text[0] == '@') {
    std::string known;
    const std::string asked = text;
    for (const Short_Form& form : short_forms) {
      known += known.empty() ? form.name : std::string(", ") + form.name;
      if (asked == form.name)
        text = form.line;
    }
    if (text == asked)
      throw std::runtime_error("unknown short form; known are " + known);
  }
  std::vector<std::string> parts;
  boost::split(parts, text, boost::is_any_of(" \t"), boost::token_compress_on);
  if (parts.size() != 5)
    throw std::runtime_error(
        "it must have five fields: minute, hour, day of the month, month, day of the week");
  return parts;
}

/// The library remembers every name that it was ever asked for, so it is asked only for those that exist.
bool zone_exists(const std::string& name)
{
  if (name == "UTC")
    return true;
  if (name.size() > 64 || !std::isalpha(static_cast<unsigned char>(name[0])))
    return false;
  for (const char c : name)
    if (!std::isalnum(static_cast<unsigned char>(c)) && !std::strchr("_+-/", c))
      return false;
  const std::string place = get_env_r("TZDIR");
  return is_regular_file(((place.empty() ? "/usr/share/zoneinfo" : place) + "/" + name).c_str());
}

cctz::time_zone find_zone(const std::string& name)
{
  if (name.empty())
    return cctz::local_time_zone();
  cctz::time_zone zone;
  if (!zone_exists(name) || !cctz::load_time_zone(name, &zone))
    throw std::runtime_error("there is no time zone \"" + name +
                             "\" on this host; names are like Europe/Berlin or UTC");
  return zone;
}

int weekday_of(const cctz::civil_day& day)
{
  // The library's week begins on Monday, cron's on Sunday.
  return (static_cast<int>(cctz::get_weekday(day)) + 1) % 7;
}

/// When it is this time of day there: after a gap, and the first of two.
Moment moment_of(const cctz::time_zone& zone, const cctz::civil_second& time)
{
  const cctz::time_zone::civil_lookup found = zone.lookup(time);
  return found.kind == cctz::time_zone::civil_lookup::SKIPPED ? found.trans : found.pre;
}
} // namespace

Cron_Schedule::Cron_Schedule() = default;
Cron_Schedule::~Cron_Schedule() = default;
Cron_Schedule::Cron_Schedule(const Cron_Schedule&) = default;
Cron_Schedule& Cron_Schedule::operator=(const Cron_Schedule&) = default;

bool Cron_Schedule::parse(const std::string& line, const std::string& time_zone, Cron_Schedule& schedule,
                          std::string& error)
{
  try {
    const std::vector<std::string> parts = split_line(line);
    Cron_Schedule parsed;
    take_field(fields[0], parts[0], parsed.minutes_);
    take_field(fields[1], parts[1], parsed.hours_);
    take_field(fields[2], parts[2], parsed.days_);
    take_field(fields[3], parts[3], parsed.months_);
    take_field(fields[4], parts[4], parsed.weekdays_);
    parsed.either_day_ = parts[2].find('*') == std::string::npos && parts[4].find('*') == std::string::npos;
    parsed.zone_ = std::make_shared<Zone>(Zone{find_zone(time_zone)});
    if (!parsed.ever_matches())
      throw std::runtime_error("no day is ever like that");
    schedule = parsed;
    return true;
  } catch (const std::exception& problem) {
    error = "schedule \"" + line.substr(0, 80) + "\": " + problem.what();
    return false;
  }
}

bool Cron_Schedule::day_matches(int month, int day, int weekday) const
{
  if (!months_[static_cast<size_t>(month)])
    return false;
  const bool by_day = days_[static_cast<size_t>(day)];
  const bool by_weekday = weekdays_[static_cast<size_t>(weekday)];
  return either_day_ ? by_day || by_weekday : by_day && by_weekday;
}

bool Cron_Schedule::ever_matches() const
{
  for (cctz::civil_day day(2000, 1, 1); day.year() < 2000 + calendar_years;) {
    if (!months_[static_cast<size_t>(day.month())])
      day = cctz::civil_day(cctz::civil_month(day) + 1);
    else if (day_matches(day.month(), day.day(), weekday_of(day)))
      return true;
    else
      ++day;
  }
  return false;
}

bool Cron_Schedule::next_after(time_t time, time_t& next) const
{
  if (!zone_)
    return false;
  const cctz::time_zone& zone = zone_->zone;
  const Moment after{cctz::seconds(time)};
  const cctz::civil_minute start = cctz::civil_minute(cctz::convert(after, zone)) + 1;
  cctz::civil_day day(start);
  int first_minute = start.hour() * 60 + start.minute(); // of the first day
  while (day.year() <= last_year) {
    if (!months_[static_cast<size_t>(day.month())]) {
      day = cctz::civil_day(cctz::civil_month(day) + 1);
      first_minute = 0;
      continue;
    }
    if (day_matches(day.month(), day.day(), weekday_of(day))) {
      for (int minute = first_minute; minute < 24 * 60; ++minute) {
        if (!hours_[static_cast<size_t>(minute / 60)] || !minutes_[static_cast<size_t>(minute % 60)])
          continue;
        const cctz::civil_second civil(day.year(), day.month(), day.day(), minute / 60, minute % 60, 0);
        const Moment due = moment_of(zone, civil);
        if (due <= after)
          continue; // the second of two such times
        const cctz::seconds::rep seconds = due.time_since_epoch().count();
        if (seconds > std::numeric_limits<time_t>::max())
          return false; // on 32 bits the years are over in 2038, and nothing may come due in 1901
        next = static_cast<time_t>(seconds);
        return true;
      }
    }
    ++day;
    first_minute = 0;
  }
  return false;
}

bool Cron_Schedule::last_until(time_t until, time_t after, time_t& last) const
{
  time_t found = 0;
  if (after >= until || !next_after(after, found) || found > until)
    return false;
  // Nothing is due between the last time and `until`, and something is behind every moment before it.
  time_t before = after, behind = until;
  while (behind - before > 1) {
    const time_t middle = before + (behind - before) / 2;
    time_t next = 0;
    if (next_after(middle, next) && next <= until) {
      before = middle;
      found = next;
    } else {
      behind = middle;
    }
  }
  last = found;
  return true;
}

/// Whether the local day of `time` has 24 hours without a change of the clocks, and when the next one begins.
bool Cron_Schedule::whole_day(time_t time, time_t& next_day) const
{
  const cctz::time_zone& zone = zone_->zone;
  const cctz::civil_day day(cctz::convert(Moment{cctz::seconds(time)}, zone));
  const cctz::civil_second first(day), behind(day + 1);
  const cctz::time_zone::civil_lookup begin = zone.lookup(first), end = zone.lookup(behind);
  cctz::time_zone::civil_transition change;
  const bool changes = zone.next_transition(begin.pre - cctz::seconds(1), &change) &&
                       std::min(change.from, change.to) <= behind;
  if (changes || begin.kind != cctz::time_zone::civil_lookup::UNIQUE ||
      end.kind != cctz::time_zone::civil_lookup::UNIQUE || end.pre - begin.pre != cctz::seconds(24 * 3600))
    return false;
  const cctz::seconds::rep seconds = end.pre.time_since_epoch().count();
  if (seconds > std::numeric_limits<time_t>::max())
    return false;
  next_day = static_cast<time_t>(seconds);
  return true;
}

uint64_t Cron_Schedule::count(time_t after, time_t until, bool& complete) const
{
  uint64_t found = 0;
  unsigned days = 0;
  time_t next = 0;
  complete = true;
  while (next_after(after, next) && next <= until) {
    if (++days > max_counted_days) {
      complete = false;
      break;
    }
    time_t next_day = 0;
    const bool whole = whole_day(next, next_day);
    // The first and the last day are seldom meant as a whole.
    if (whole && after < next_day - 24 * 3600 && next_day <= until) {
      found += minutes_.count() * hours_.count();
      after = next_day - 1;
      continue;
    }
    const time_t end = whole ? std::min(until, next_day - 1)
                             : static_cast<time_t>(std::min<int64_t>(until, int64_t(next) + 24 * 3600));
    while (next <= end) {
      ++found;
      after = next;
      if (!next_after(after, next))
        return found;
    }
  }
  return found;
}
} // namespace kestrel
