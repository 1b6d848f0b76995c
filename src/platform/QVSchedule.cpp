#include "platform/QVSchedule.h"

#include <time.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <chrono>
#include <climits>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <vector>

#include "platform/QVConstants.h"

namespace {

constexpr const char* kMinuteKey = "minute";
constexpr const char* kHourKey = "hour";
constexpr const char* kWeekdayKey = "weekday";
constexpr const char* kDayKey = "day";

constexpr std::array<const char*, 7> kDayNames = {"monday", "tuesday",  "wednesday", "thursday",
                                                  "friday", "saturday", "sunday"};

// An integer stored as an integer or a real number; nullopt for anything else.
std::optional<int> storedInteger(const QVValue& value) {
  if (value.isInteger()) {
    std::int64_t i = *value.integerValue();
    return static_cast<int>(std::clamp<std::int64_t>(i, INT_MIN, INT_MAX));
  }
  if (value.isReal()) {
    double d = *value.doubleValue();
    if (!std::isfinite(d)) return std::nullopt;
    return static_cast<int>(std::clamp<double>(std::trunc(d), INT_MIN, INT_MAX));
  }
  return std::nullopt;
}

int minuteOf(const QVSchedule& s) { return std::clamp(s.minute.value_or(0), 0, 59); }
int hourOf(const QVSchedule& s) { return std::clamp(s.hour.value_or(0), 0, 23); }
int weekdayOf(const QVSchedule& s) { return std::clamp(s.weekday.value_or(1), 1, 7); }
int dayOf(const QVSchedule& s) { return std::clamp(s.day.value_or(1), 1, 31); }

// ----- Local time -----------------------------------------------------------------------------------------
// A wall-clock time of the local zone is carried as "local seconds": the seconds since 1970-01-01 00:00 of
// the same wall clock, as if the zone were UTC.

using std::chrono::days;
using std::chrono::sys_days;
using std::chrono::year_month_day;

long utcOffsetAt(std::int64_t t) {
  time_t tt = static_cast<time_t>(t);
  tm local{};
  if (!localtime_r(&tt, &local)) return 0;
  return local.tm_gmtoff;
}

std::int64_t localSecondsAt(std::int64_t t) { return t + utcOffsetAt(t); }

// The real moment at which the local wall clock shows `wall`.
// - A wall time that occurs twice (the hour repeated when the clocks go back) gives the first occurrence.
// - A wall time that does not occur (the hour skipped when the clocks go forward) is moved on by the
//   length of the gap: 02:30 on a day when 02:00 jumps to 03:00 becomes 03:30. The moment is then the
//   same time after the previous midnight as on any other day.
std::int64_t momentForLocalSeconds(std::int64_t wall) {
  // Every offset in use around that wall time (zones stay within about ±14 h of UTC, and no zone changes
  // its offset twice within half a day).
  std::vector<long> offsets;
  for (std::int64_t probe = wall - 2 * 86400; probe <= wall + 2 * 86400; probe += 43200) {
    long offset = utcOffsetAt(probe);
    if (std::find(offsets.begin(), offsets.end(), offset) == offsets.end()) offsets.push_back(offset);
  }
  std::optional<std::int64_t> best;
  for (long offset : offsets) {
    std::int64_t t = wall - offset;
    if (utcOffsetAt(t) == offset && (!best || t < *best)) best = t;
  }
  if (best) return *best;
  // In a gap: read the wall time with the offset from before the jump, which lands after the gap.
  std::optional<std::int64_t> after;
  for (long offset : offsets) {
    std::int64_t t = wall - offset;
    std::int64_t shown = localSecondsAt(t);
    if (shown > wall && (!after || shown < localSecondsAt(*after))) after = t;
  }
  return after.value_or(wall - offsets.front());
}

std::int64_t localSecondsOf(const year_month_day& date, int hour, int minute) {
  return std::chrono::duration_cast<std::chrono::seconds>(sys_days(date).time_since_epoch()).count() + hour * 3600 +
         minute * 60;
}

year_month_day localDateOf(std::int64_t t) {
  std::int64_t local = localSecondsAt(t);
  std::int64_t dayNumber = local >= 0 ? local / 86400 : -((-local + 86399) / 86400);
  return year_month_day(sys_days(days(dayNumber)));
}

std::int64_t floorSeconds(QVDate date) {
  return std::chrono::floor<std::chrono::seconds>(date.time_since_epoch()).count();
}

QVDate dateFromSeconds(std::int64_t t) { return QVDate(std::chrono::seconds(t)); }

// The first moment of the schedule strictly after `after`.
std::optional<QVDate> nextMomentAfter(const QVSchedule& schedule, QVDate after) {
  const std::int64_t t = floorSeconds(after);
  const int minute = minuteOf(schedule);
  const int hour = hourOf(schedule);

  if (schedule.period == "hourly") {
    // On the real timeline: one moment per elapsed hour, so the hour repeated or skipped by a clock change
    // gets its moment like any other hour. The minute is the one the local clock shows.
    // In zones whose offset changes by half an hour the local minute moves; each step follows the clock.
    auto atMinuteOfLocalHour = [&](std::int64_t s) {
      return s - (((localSecondsAt(s) % 3600) + 3600) % 3600) + minute * 60;
    };
    std::int64_t candidate = atMinuteOfLocalHour(t);
    for (int i = 0; i < 4 && candidate <= t; ++i) candidate = atMinuteOfLocalHour(candidate + 3600);
    return dateFromSeconds(candidate);
  }

  const year_month_day today = localDateOf(t);
  if (schedule.period == "daily") {
    for (int k = 0; k <= 3; ++k) {
      year_month_day date{sys_days(today) + days(k)};
      std::int64_t candidate = momentForLocalSeconds(localSecondsOf(date, hour, minute));
      if (dateFromSeconds(candidate) > after) return dateFromSeconds(candidate);
    }
    return std::nullopt;
  }
  if (schedule.period == "weekly") {
    const unsigned weekday = static_cast<unsigned>(weekdayOf(schedule));
    for (int k = 0; k <= 15; ++k) {
      year_month_day date{sys_days(today) + days(k)};
      if (std::chrono::weekday(sys_days(date)).iso_encoding() != weekday) continue;
      std::int64_t candidate = momentForLocalSeconds(localSecondsOf(date, hour, minute));
      if (dateFromSeconds(candidate) > after) return dateFromSeconds(candidate);
    }
    return std::nullopt;
  }
  if (schedule.period == "monthly") {
    const unsigned wantedDay = static_cast<unsigned>(dayOf(schedule));
    const std::chrono::year_month thisMonth = today.year() / today.month();
    for (int k = 0; k <= 3; ++k) {
      std::chrono::year_month month = thisMonth + std::chrono::months(k);
      unsigned lastDay = static_cast<unsigned>((month / std::chrono::last).day());
      year_month_day date = month / std::chrono::day(std::min(wantedDay, lastDay));
      std::int64_t candidate = momentForLocalSeconds(localSecondsOf(date, hour, minute));
      if (dateFromSeconds(candidate) > after) return dateFromSeconds(candidate);
    }
    return std::nullopt;
  }
  return std::nullopt;
}

// ----- Readable form ----------------------------------------------------------------------------------------

std::string lowercase(std::string text) {
  for (char& c : text) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  return text;
}

// One or two decimal digits within [low, high].
std::optional<int> parseNumber(const std::string& text, int low, int high) {
  if (text.empty() || text.size() > 2) return std::nullopt;
  int value = 0;
  for (char c : text) {
    if (c < '0' || c > '9') return std::nullopt;
    value = value * 10 + (c - '0');
  }
  if (value < low || value > high) return std::nullopt;
  return value;
}

std::optional<int> parseWeekday(const std::string& text) {
  if (auto number = parseNumber(text, 1, 7); number && text.size() == 1) return number;
  std::string name = lowercase(text);
  for (size_t i = 0; i < kDayNames.size(); ++i) {
    if (name == kDayNames[i] || (name.size() == 3 && std::string(kDayNames[i]).compare(0, 3, name) == 0))
      return static_cast<int>(i) + 1;
  }
  return std::nullopt;
}

std::vector<std::string> split(const std::string& text, char separator) {
  std::vector<std::string> parts;
  size_t start = 0;
  for (;;) {
    size_t end = text.find(separator, start);
    parts.push_back(text.substr(start, end == std::string::npos ? std::string::npos : end - start));
    if (end == std::string::npos) return parts;
    start = end + 1;
  }
}

std::string twoDigits(int value) {
  char buffer[16];
  std::snprintf(buffer, sizeof buffer, "%02d", value);
  return buffer;
}

}  // namespace

QVSchedule QVSchedule::fromDictionary(const QVDictionary& dictionary) {
  QVSchedule schedule;
  for (const auto& [key, value] : dictionary) {
    if (key == kQVSchedulePeriodKey && value.isString()) {
      schedule.period = *value.string();
      continue;
    }
    std::optional<int>* field = key == kMinuteKey    ? &schedule.minute
                                : key == kHourKey    ? &schedule.hour
                                : key == kWeekdayKey ? &schedule.weekday
                                : key == kDayKey     ? &schedule.day
                                                     : nullptr;
    std::optional<int> number = field ? storedInteger(value) : std::nullopt;
    if (number) {
      *field = number;
    } else {
      // Unknown, or of a type this version cannot read: kept so that a save does not lose it.
      schedule.otherKeys[key] = value;
    }
  }
  return schedule;
}

QVDictionary QVSchedule::dictionary() const {
  QVDictionary result = otherKeys;
  // A stored period of another type reads as "manual"; unless the period was changed since, it is written
  // back as it was.
  bool keepStoredPeriod = period == "manual" && otherKeys.count(kQVSchedulePeriodKey) != 0;
  if (!keepStoredPeriod) result[kQVSchedulePeriodKey] = QVValue(period);
  if (minute) result[kMinuteKey] = QVValue(*minute);
  if (hour) result[kHourKey] = QVValue(*hour);
  if (weekday) result[kWeekdayKey] = QVValue(*weekday);
  if (day) result[kDayKey] = QVValue(*day);
  return result;
}

namespace qv {

std::optional<QVDate> nextFireDateForScheduleLastFireDate(const std::optional<QVSchedule>& schedule,
                                                          const std::optional<QVDate>& lastFireDate, QVDate now) {
  if (!schedule) return std::nullopt;
  // Picks up a time zone that changed while the program runs.
  tzset();
  return nextMomentAfter(*schedule, lastFireDate ? *lastFireDate : now);
}

std::optional<QVSchedule> scheduleFromSpec(const std::string& spec, std::string* error) {
  auto fail = [&](const std::string& reason) -> std::optional<QVSchedule> {
    if (error) *error = "invalid schedule \"" + spec + "\": " + reason;
    return std::nullopt;
  };
  if (spec.empty()) return fail("empty (expected manual, hourly, daily, weekly or monthly)");

  // "HH:MM" into the schedule.
  auto parseTime = [&](const std::string& text, QVSchedule& schedule) -> std::optional<std::string> {
    std::vector<std::string> parts = split(text, ':');
    if (parts.size() != 2) return "expected a time as HH:MM, not \"" + text + "\"";
    auto hour = parseNumber(parts[0], 0, 23);
    if (!hour) return std::string("hour must be 0-23");
    auto minute = parseNumber(parts[1], 0, 59);
    if (!minute || parts[1].size() != 2) return std::string("minute must be 00-59");
    schedule.hour = hour;
    schedule.minute = minute;
    return std::nullopt;
  };

  QVSchedule schedule;
  const std::string lower = lowercase(spec);
  if (lower == "manual") return schedule;
  if (lower.rfind("manual", 0) == 0) return fail("manual takes no time");

  if (lower.rfind("hourly", 0) == 0) {
    schedule.period = "hourly";
    schedule.minute = 0;
    std::string rest = lower.substr(6);
    if (rest.empty()) return schedule;
    if (rest[0] != ':') return fail("expected hourly or hourly:MM");
    auto minute = parseNumber(rest.substr(1), 0, 59);
    if (!minute || rest.size() != 3) return fail("minute must be 00-59");
    schedule.minute = minute;
    return schedule;
  }

  std::vector<std::string> parts = split(lower, '@');
  const std::string& period = parts[0];
  if (period == "daily") {
    schedule.period = "daily";
    schedule.hour = 0;
    schedule.minute = 0;
    if (parts.size() > 2) return fail("expected daily or daily@HH:MM");
    if (parts.size() == 2)
      if (auto problem = parseTime(parts[1], schedule)) return fail(*problem);
    return schedule;
  }
  if (period == "weekly") {
    schedule.period = "weekly";
    schedule.weekday = 1;
    schedule.hour = 0;
    schedule.minute = 0;
    if (parts.size() > 3) return fail("expected weekly, weekly@DAY or weekly@DAY@HH:MM");
    if (parts.size() >= 2) {
      auto weekday = parseWeekday(parts[1]);
      if (!weekday) return fail("day must be mon..sun or 1-7 (1 = Monday)");
      schedule.weekday = weekday;
    }
    if (parts.size() == 3)
      if (auto problem = parseTime(parts[2], schedule)) return fail(*problem);
    return schedule;
  }
  if (period == "monthly") {
    schedule.period = "monthly";
    schedule.day = 1;
    schedule.hour = 0;
    schedule.minute = 0;
    if (parts.size() > 3) return fail("expected monthly, monthly@D or monthly@D@HH:MM");
    if (parts.size() >= 2) {
      auto day = parseNumber(parts[1], 1, 31);
      if (!day) return fail("day of the month must be 1-31");
      schedule.day = day;
    }
    if (parts.size() == 3)
      if (auto problem = parseTime(parts[2], schedule)) return fail(*problem);
    return schedule;
  }
  return fail("unknown period \"" + period + "\" (expected manual, hourly, daily, weekly or monthly)");
}

std::string specFromSchedule(const QVSchedule& schedule) {
  const std::string time = twoDigits(hourOf(schedule)) + ":" + twoDigits(minuteOf(schedule));
  if (schedule.period == "hourly") return "hourly:" + twoDigits(minuteOf(schedule));
  if (schedule.period == "daily") return "daily@" + time;
  if (schedule.period == "weekly")
    return "weekly@" + std::string(kDayNames[weekdayOf(schedule) - 1]).substr(0, 3) + "@" + time;
  if (schedule.period == "monthly") return "monthly@" + std::to_string(dayOf(schedule)) + "@" + time;
  return schedule.period;  // "manual", or a period this version does not know
}

}  // namespace qv
