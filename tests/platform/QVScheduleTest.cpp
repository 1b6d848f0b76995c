#include "platform/QVSchedule.h"

#include <gtest/gtest.h>
#include <time.h>

#include <cstdlib>
#include <filesystem>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include "platform/QVConstants.h"

namespace {

using namespace std::chrono_literals;

QVDate utc(int y, int mo, int d, int h, int mi) {
  auto day = std::chrono::sys_days(std::chrono::year(y) / mo / d);
  return QVDate(day) + std::chrono::hours(h) + std::chrono::minutes(mi);
}

std::string utcText(const std::optional<QVDate>& date) {
  if (!date) return "none";
  time_t t = std::chrono::system_clock::to_time_t(*date);
  tm parts{};
  gmtime_r(&t, &parts);
  char buffer[32];
  strftime(buffer, sizeof buffer, "%Y-%m-%d %H:%M:%S", &parts);
  return buffer;
}

QVSchedule schedule(std::string period, std::optional<int> hour = {}, std::optional<int> minute = {},
                    std::optional<int> weekday = {}, std::optional<int> day = {}) {
  QVSchedule s;
  s.period = std::move(period);
  s.hour = hour;
  s.minute = minute;
  s.weekday = weekday;
  s.day = day;
  return s;
}

// Every date below is written in UTC; the comment gives the wall-clock time of the zone under test.
class QVScheduleTest : public ::testing::Test {
 protected:
  void SetUp() override {
    for (const char* zone : {"Europe/Berlin", "America/New_York", "UTC"})
      ASSERT_TRUE(std::filesystem::exists(std::string("/usr/share/zoneinfo/") + zone))
          << "tzdata is not installed (" << zone << ")";
    if (const char* tz = std::getenv("TZ")) m_savedTZ = tz;
    useZone("Europe/Berlin");
  }
  void TearDown() override {
    if (m_savedTZ)
      setenv("TZ", m_savedTZ->c_str(), 1);
    else
      unsetenv("TZ");
    tzset();
  }
  static void useZone(const char* zone) {
    setenv("TZ", zone, 1);
    tzset();
  }
  // The next date after a last attempt, with "now" far away so that it plays no part.
  static std::string after(const QVSchedule& s, QVDate last) {
    return utcText(qv::nextFireDateForScheduleLastFireDate(s, last, utc(2040, 1, 1, 0, 0)));
  }

  std::optional<std::string> m_savedTZ;
};

// ---- Daylight-saving changes and the calendar ---------------------------------------------------------

struct Case {
  const char* zone;
  QVSchedule schedule;
  QVDate last;
  const char* expected;  // UTC
  const char* why;
};

TEST_F(QVScheduleTest, KeepsWallClockTimesAcrossClockChangesAndMonthEnds) {
  const QVSchedule nine = schedule("daily", 9, 0), twoThirty = schedule("daily", 2, 30);
  const QVSchedule lastDay = schedule("monthly", 0, 0, std::nullopt, 31);
  const std::vector<Case> cases = {
      {"Europe/Berlin", nine, utc(2024, 3, 30, 8, 0), "2024-03-31 07:00:00", "09:00 CET -> 09:00 CEST"},
      {"Europe/Berlin", nine, utc(2024, 3, 31, 7, 0), "2024-04-01 07:00:00", "09:00 CEST"},
      {"Europe/Berlin", nine, utc(2024, 10, 26, 7, 0), "2024-10-27 08:00:00", "09:00 CEST -> 09:00 CET"},
      {"Europe/Berlin", twoThirty, utc(2024, 3, 30, 1, 30), "2024-03-31 01:30:00", "skipped 02:30 -> 03:30"},
      {"Europe/Berlin", twoThirty, utc(2024, 3, 31, 1, 30), "2024-04-01 00:30:00", "back to 02:30 CEST"},
      {"Europe/Berlin", schedule("daily", 2, 0), utc(2024, 3, 30, 1, 0), "2024-03-31 01:00:00", "02:00 -> 03:00"},
      {"Europe/Berlin", twoThirty, utc(2024, 10, 26, 0, 30), "2024-10-27 00:30:00", "first 02:30 (CEST)"},
      {"Europe/Berlin", twoThirty, utc(2024, 10, 27, 0, 30), "2024-10-28 01:30:00", "not 02:30 CET again"},
      {"Europe/Berlin", schedule("weekly", 9, 0, 1), utc(2024, 3, 25, 8, 0), "2024-04-01 07:00:00", "Mon"},
      {"Europe/Berlin", schedule("weekly", 2, 30, 7), utc(2024, 3, 24, 1, 30), "2024-03-31 01:30:00", "Sun"},
      {"Europe/Berlin", schedule("weekly", 2, 30, 7), utc(2024, 10, 20, 0, 30), "2024-10-27 00:30:00", "Sun"},
      {"Europe/Berlin", schedule("weekly", 9, 0, 7), utc(2024, 10, 20, 7, 0), "2024-10-27 08:00:00", "Sun"},
      {"Europe/Berlin", schedule("weekly", 12, 0, 3), utc(2024, 6, 3, 8, 0), "2024-06-05 10:00:00", "Mon->Wed"},
      {"Europe/Berlin", schedule("monthly", 2, 30, std::nullopt, 31), utc(2024, 2, 29, 1, 30),
       "2024-03-31 01:30:00", "monthly in the skipped hour"},
      {"America/New_York", nine, utc(2024, 3, 9, 14, 0), "2024-03-10 13:00:00", "09:00 EST -> 09:00 EDT"},
      {"America/New_York", nine, utc(2024, 11, 2, 13, 0), "2024-11-03 14:00:00", "09:00 EDT -> 09:00 EST"},
      {"UTC", lastDay, utc(2024, 1, 31, 0, 0), "2024-02-29 00:00:00", "leap year"},
      {"UTC", lastDay, utc(2024, 2, 29, 0, 0), "2024-03-31 00:00:00", "back to the 31st"},
      {"UTC", lastDay, utc(2024, 3, 31, 0, 0), "2024-04-30 00:00:00", "30-day month"},
      {"UTC", lastDay, utc(2025, 1, 31, 0, 0), "2025-02-28 00:00:00", "common year"},
      {"UTC", lastDay, utc(2000, 1, 31, 0, 0), "2000-02-29 00:00:00", "400-year leap"},
      {"UTC", lastDay, utc(2100, 1, 31, 0, 0), "2100-02-28 00:00:00", "100-year non-leap"},
      {"UTC", lastDay, utc(2024, 12, 31, 0, 0), "2025-01-31 00:00:00", "year end"},
      {"UTC", schedule("daily", 30, -5), utc(2024, 6, 3, 0, 0), "2024-06-03 23:00:00", "clamped to 23:00"},
      {"UTC", schedule("weekly", 0, 0, 0), utc(2024, 6, 1, 0, 0), "2024-06-03 00:00:00", "0 -> Monday"},
      {"UTC", schedule("weekly", 0, 0, 9), utc(2024, 6, 3, 0, 0), "2024-06-09 00:00:00", "9 -> Sunday"},
      {"UTC", schedule("monthly", 0, 0, std::nullopt, 0), utc(2024, 6, 3, 0, 0), "2024-07-01 00:00:00", "day 1"},
      {"UTC", schedule("hourly", std::nullopt, 99), utc(2024, 6, 3, 0, 0), "2024-06-03 00:59:00", "minute 59"},
  };
  for (const Case& c : cases) {
    useZone(c.zone);
    EXPECT_EQ(after(c.schedule, c.last), c.expected) << c.zone << ", " << c.why;
  }
}

TEST_F(QVScheduleTest, HourlyStepsAreExactlyOneHourThroughBothChanges) {
  auto quarterPast = schedule("hourly", std::nullopt, 15);
  for (QVDate start : {utc(2024, 3, 30, 22, 15), utc(2024, 10, 26, 22, 15)}) {
    QVDate previous = start;
    for (int i = 0; i < 8; ++i) {
      auto next = qv::nextFireDateForScheduleLastFireDate(quarterPast, previous, start);
      ASSERT_TRUE(next);
      EXPECT_EQ(*next - previous, 1h) << utcText(previous);
      time_t t = std::chrono::system_clock::to_time_t(*next);
      tm local{};
      localtime_r(&t, &local);
      EXPECT_EQ(local.tm_min, 15);
      previous = *next;
    }
  }
  EXPECT_EQ(after(quarterPast, utc(2024, 6, 3, 8, 20)), "2024-06-03 09:15:00");
}

// ---- Last attempt and now ---------------------------------------------------------------------------

TEST_F(QVScheduleTest, CountsFromTheLastAttemptElseFromNowAndNeverForManual) {
  const auto nine = schedule("daily", 9, 0);
  auto next = [&](const std::optional<QVSchedule>& s, std::optional<QVDate> last, QVDate now) {
    return utcText(qv::nextFireDateForScheduleLastFireDate(s, last, now));
  };
  // Never attempted: the first moment strictly after now (09:00 CEST is 07:00 UTC).
  EXPECT_EQ(next(nine, std::nullopt, utc(2024, 6, 10, 6, 59)), "2024-06-10 07:00:00");
  EXPECT_EQ(next(nine, std::nullopt, utc(2024, 6, 10, 7, 0)), "2024-06-11 07:00:00");
  EXPECT_EQ(next(nine, std::nullopt, utc(2024, 6, 10, 7, 0) + 500ms), "2024-06-11 07:00:00");
  // A due moment that passed long ago comes back as it is, so that the group runs at once.
  EXPECT_EQ(next(nine, utc(2024, 1, 1, 8, 0), utc(2024, 6, 1, 12, 0)), "2024-01-02 08:00:00");

  const QVDate now = utc(2024, 6, 1, 12, 0);
  EXPECT_EQ(next(std::nullopt, now, now), "none");
  EXPECT_EQ(next(QVSchedule{}, std::nullopt, now), "none");
  EXPECT_EQ(next(schedule("yearly", 9, 0), now, now), "none");
}

// ---- Stored form ------------------------------------------------------------------------------------

TEST(QVScheduleDictionaryTest, ReadsNumbersAndKeepsWhatItCannotReadForTheNextSave) {
  QVDictionary stored{{kQVSchedulePeriodKey, "weekly"}, {"minute", 30},    {"hour", 9.0},
                      {"weekday", "mon"},             {"color", "blue"}, {"future", QVArray{1, 2}}};
  QVSchedule s = QVSchedule::fromDictionary(stored);
  EXPECT_EQ(s.period, "weekly");
  EXPECT_EQ(std::tie(s.minute, s.hour), std::make_tuple(30, 9));
  EXPECT_FALSE(s.weekday || s.day);

  QVDictionary saved = s.dictionary();
  EXPECT_EQ(saved, (QVDictionary{{kQVSchedulePeriodKey, "weekly"}, {"minute", 30},    {"hour", 9},
                                 {"weekday", "mon"},             {"color", "blue"}, {"future", QVArray{1, 2}}}));
  EXPECT_EQ(QVSchedule::fromDictionary(saved), s);

  // A missing period, or one of another type, reads as manual; the odd value survives until changed.
  EXPECT_EQ(QVSchedule::fromDictionary({}).dictionary(), (QVDictionary{{kQVSchedulePeriodKey, "manual"}}));
  QVSchedule odd = QVSchedule::fromDictionary({{kQVSchedulePeriodKey, 7}});
  EXPECT_EQ(odd.period, "manual");
  EXPECT_EQ(odd.dictionary().at(kQVSchedulePeriodKey), QVValue(7));
  odd.period = "daily";
  EXPECT_EQ(odd.dictionary().at(kQVSchedulePeriodKey), QVValue("daily"));
}

// ---- Readable form ----------------------------------------------------------------------------------

TEST(QVScheduleSpecTest, ReadsEveryFormAndWritesItsCanonicalForm) {
  const std::vector<std::pair<std::string, std::string>> cases = {
      {"manual", "manual"},           {"hourly", "hourly:00"},         {"hourly:05", "hourly:05"},
      {"daily", "daily@00:00"},       {"DAILY@9:30", "daily@09:30"},    {"weekly", "weekly@mon@00:00"},
      {"Weekly@Friday", "weekly@fri@00:00"}, {"weekly@7@8:05", "weekly@sun@08:05"},
      {"weekly@TUE@23:59", "weekly@tue@23:59"}, {"monthly", "monthly@1@00:00"}, {"monthly@31", "monthly@31@00:00"}};
  for (const auto& [spec, canonical] : cases) {
    std::string error;
    auto parsed = qv::scheduleFromSpec(spec, &error);
    ASSERT_TRUE(parsed) << spec << ": " << error;
    EXPECT_EQ(qv::specFromSchedule(*parsed), canonical);
    EXPECT_EQ(qv::scheduleFromSpec(canonical), parsed) << canonical;
    EXPECT_EQ(QVSchedule::fromDictionary(parsed->dictionary()), *parsed) << spec;
  }
  auto tuesday = qv::scheduleFromSpec("weekly@tue@07:45");
  EXPECT_EQ(std::tie(tuesday->weekday, tuesday->hour, tuesday->minute), std::make_tuple(2, 7, 45));
}

TEST(QVScheduleSpecTest, RejectsMalformedFormsWithAReason) {
  std::string error;
  EXPECT_FALSE(qv::scheduleFromSpec("daily@25:00", &error));
  EXPECT_EQ(error, "invalid schedule \"daily@25:00\": hour must be 0-23");

  for (const char* spec :
       {"", "yearly", "daily@9", "daily@09:60", "daily@09:5", "daily@09:30x", "daily@09:30@mon", "daily@",
        "hourly:60", "hourly:5", "hourly@05", "hourly:", "hourly:05:00", "weekly@xyz", "weekly@0", "weekly@8",
        "weekly@mo", "weekly@mon@", "monthly@0", "monthly@32", "monthly@1@", "manual@09:00", " daily",
        "daily "}) {
    error.clear();
    EXPECT_FALSE(qv::scheduleFromSpec(spec, &error)) << spec;
    EXPECT_EQ(error.rfind("invalid schedule \"" + std::string(spec) + "\": ", 0), 0u) << error;
    EXPECT_GT(error.size(), std::string(spec).size() + 22) << "no reason given for \"" << spec << "\"";
  }
  EXPECT_FALSE(qv::scheduleFromSpec("monthly@40"));  // no error out-parameter
}

}  // namespace
