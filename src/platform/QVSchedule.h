// The schedule of a group and its arithmetic. A schedule is a period under kQVSchedulePeriodKey
// ("manual", "hourly", "daily", "weekly", "monthly") and the moment in that period:
//   "minute"  minute of the hour, 0-59 (hourly, daily, weekly, monthly; default 0)
//   "hour"    hour of the day, 0-23 (daily, weekly, monthly; default 0)
//   "weekday" day of the week, 1 = Monday ... 7 = Sunday (weekly; default 1)
//   "day"     day of the month, 1-31, clamped to the month's last day (monthly; default 1)
// Keys the program does not know are kept as they were stored. Plain value type; any thread.
#pragma once

#include <optional>
#include <string>

#include "platform/QVValue.h"

struct QVSchedule {
  std::string period = "manual";
  std::optional<int> minute;
  std::optional<int> hour;
  std::optional<int> weekday;
  std::optional<int> day;
  QVDictionary otherKeys;  // stored keys this version does not know

  bool operator==(const QVSchedule& other) const = default;

  static QVSchedule fromDictionary(const QVDictionary& dictionary);
  QVDictionary dictionary() const;
};

namespace qv {

// When a group with this schedule is next due, given its last attempt: nullopt for "manual" or an
// unknown period. A group never attempted is due at the next scheduled moment after now. A due moment
// that passed (while the machine slept or the program was not running) is returned as it is, in the
// past. Dates are computed in the local time zone and stay right across daylight-saving changes.
std::optional<QVDate> nextFireDateForScheduleLastFireDate(const std::optional<QVSchedule>& schedule,
                                                          const std::optional<QVDate>& lastFireDate, QVDate now);

// The readable forms of the command line: manual, hourly[:MM], daily[@HH:MM], weekly[@DAY[@HH:MM]],
// monthly[@D[@HH:MM]] (DAY: mon..sun or 1..7). nullopt, with *error set, for anything else.
std::optional<QVSchedule> scheduleFromSpec(const std::string& spec, std::string* error = nullptr);
// The readable form of a schedule ("daily@09:30").
std::string specFromSchedule(const QVSchedule& schedule);

}  // namespace qv
