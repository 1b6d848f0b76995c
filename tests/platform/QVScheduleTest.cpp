#include "platform/QVSchedule.h"

#include <gtest/gtest.h>
#include <time.h>

#include <cstdlib>
#include <filesystem>
#include <string>
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

// ---- Daylight-saving changes ------------------------------------------------------------------------

TEST_F(QVScheduleTest, DailyKeepsItsWallClockTimeAcrossBothBerlinChanges) {
  auto nine = schedule("daily", 9, 0);
  EXPECT_EQ(after(nine, utc(2024, 3, 30, 8, 0)), "2024-03-31 07:00:00");   // 09:00 CET -> 09:00 CEST
  EXPECT_EQ(after(nine, utc(2024, 3, 31, 7, 0)), "2024-04-01 07:00:00");
  EXPECT_EQ(after(nine, utc(2024, 10, 26, 7, 0)), "2024-10-27 08:00:00");  // 09:00 CEST -> 09:00 CET
}

TEST_F(QVScheduleTest, AMomentInTheSkippedHourRunsAsLateAsTheHourWasSkipped) {
  auto twoThirty = schedule("daily", 2, 30);
  EXPECT_EQ(after(twoThirty, utc(2024, 3, 30, 1, 30)), "2024-03-31 01:30:00");  // 03:30 CEST
  EXPECT_EQ(after(twoThirty, utc(2024, 3, 31, 1, 30)), "2024-04-01 00:30:00");  // back to 02:30 CEST
  auto two = schedule("daily", 2, 0);
  EXPECT_EQ(after(two, utc(2024, 3, 30, 1, 0)), "2024-03-31 01:00:00");  // 03:00 CEST
}

TEST_F(QVScheduleTest, AMomentInTheRepeatedHourRunsOnceAtItsFirstOccurrence) {
  auto twoThirty = schedule("daily", 2, 30);
  EXPECT_EQ(after(twoThirty, utc(2024, 10, 26, 0, 30)), "2024-10-27 00:30:00");  // 02:30 CEST
  EXPECT_EQ(after(twoThirty, utc(2024, 10, 27, 0, 30)), "2024-10-28 01:30:00");  // not 02:30 CET again
}

TEST_F(QVScheduleTest, WeeklyFallsOnItsWeekdayAndLocalTimeAcrossTheChanges) {
  EXPECT_EQ(after(schedule("weekly", 9, 0, 1), utc(2024, 3, 25, 8, 0)), "2024-04-01 07:00:00");
  EXPECT_EQ(after(schedule("weekly", 2, 30, 7), utc(2024, 3, 24, 1, 30)), "2024-03-31 01:30:00");
  EXPECT_EQ(after(schedule("weekly", 2, 30, 7), utc(2024, 10, 20, 0, 30)), "2024-10-27 00:30:00");
  EXPECT_EQ(after(schedule("weekly", 9, 0, 7), utc(2024, 10, 20, 7, 0)), "2024-10-27 08:00:00");
  // From Monday 3 June 2024 to Wednesday noon the same week.
  EXPECT_EQ(after(schedule("weekly", 12, 0, 3), utc(2024, 6, 3, 8, 0)), "2024-06-05 10:00:00");
}

TEST_F(QVScheduleTest, DailyKeepsItsWallClockTimeInNewYork) {
  useZone("America/New_York");
  auto nine = schedule("daily", 9, 0);
  EXPECT_EQ(after(nine, utc(2024, 3, 9, 14, 0)), "2024-03-10 13:00:00");  // 09:00 EST -> 09:00 EDT
  EXPECT_EQ(after(nine, utc(2024, 11, 2, 13, 0)), "2024-11-03 14:00:00");
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

// ---- Calendar ---------------------------------------------------------------------------------------

TEST_F(QVScheduleTest, MonthlyOnALateDayClampsToEachMonthsLastDay) {
  useZone("UTC");
  auto last = schedule("monthly", 0, 0, std::nullopt, 31);
  EXPECT_EQ(after(last, utc(2024, 1, 31, 0, 0)), "2024-02-29 00:00:00");
  EXPECT_EQ(after(last, utc(2024, 2, 29, 0, 0)), "2024-03-31 00:00:00");
  EXPECT_EQ(after(last, utc(2024, 3, 31, 0, 0)), "2024-04-30 00:00:00");
  EXPECT_EQ(after(last, utc(2025, 1, 31, 0, 0)), "2025-02-28 00:00:00");
  EXPECT_EQ(after(last, utc(2000, 1, 31, 0, 0)), "2000-02-29 00:00:00");
  EXPECT_EQ(after(last, utc(2100, 1, 31, 0, 0)), "2100-02-28 00:00:00");
  EXPECT_EQ(after(last, utc(2024, 12, 31, 0, 0)), "2025-01-31 00:00:00");
  EXPECT_EQ(after(schedule("monthly", 6, 0, std::nullopt, 15), utc(2024, 5, 15, 5, 0)), "2024-05-15 06:00:00");
}

TEST_F(QVScheduleTest, MonthlyOnTheDayOfTheSpringChangeAlsoSkipsTheMissingHour) {
  EXPECT_EQ(after(schedule("monthly", 2, 30, std::nullopt, 31), utc(2024, 2, 29, 1, 30)),
            "2024-03-31 01:30:00");
}

TEST_F(QVScheduleTest, OutOfRangeValuesAreClamped) {
  useZone("UTC");
  EXPECT_EQ(after(schedule("daily", 30, -5), utc(2024, 6, 3, 0, 0)), "2024-06-03 23:00:00");
  EXPECT_EQ(after(schedule("weekly", 0, 0, 0), utc(2024, 6, 1, 0, 0)), "2024-06-03 00:00:00");  // Monday
  EXPECT_EQ(after(schedule("weekly", 0, 0, 9), utc(2024, 6, 3, 0, 0)), "2024-06-09 00:00:00");  // Sunday
  EXPECT_EQ(after(schedule("monthly", 0, 0, std::nullopt, 0), utc(2024, 6, 3, 0, 0)), "2024-07-01 00:00:00");
  EXPECT_EQ(after(schedule("hourly", std::nullopt, 99), utc(2024, 6, 3, 0, 0)), "2024-06-03 00:59:00");
}

// ---- Last attempt and now ---------------------------------------------------------------------------

TEST_F(QVScheduleTest, AGroupNeverAttemptedIsDueAtTheFirstMomentStrictlyAfterNow) {
  auto nine = schedule("daily", 9, 0);
  auto fromNow = [&](QVDate now) {
    return utcText(qv::nextFireDateForScheduleLastFireDate(nine, std::nullopt, now));
  };
  EXPECT_EQ(fromNow(utc(2024, 6, 10, 6, 59)), "2024-06-10 07:00:00");  // 08:59 CEST
  EXPECT_EQ(fromNow(utc(2024, 6, 10, 7, 0)), "2024-06-11 07:00:00");
  EXPECT_EQ(fromNow(utc(2024, 6, 10, 7, 0) + 500ms), "2024-06-11 07:00:00");
}

TEST_F(QVScheduleTest, ADueMomentThatPassedIsReturnedAsItIs) {
  auto nine = schedule("daily", 9, 0);
  auto next = qv::nextFireDateForScheduleLastFireDate(nine, utc(2024, 1, 1, 8, 0), utc(2024, 6, 1, 12, 0));
  EXPECT_EQ(utcText(next), "2024-01-02 08:00:00");
}

TEST_F(QVScheduleTest, ManualUnknownAndMissingSchedulesAreNeverDue) {
  const QVDate now = utc(2024, 6, 1, 12, 0);
  EXPECT_FALSE(qv::nextFireDateForScheduleLastFireDate(std::nullopt, now, now));
  EXPECT_FALSE(qv::nextFireDateForScheduleLastFireDate(QVSchedule{}, std::nullopt, now));
  EXPECT_FALSE(qv::nextFireDateForScheduleLastFireDate(schedule("yearly", 9, 0), now, now));
  EXPECT_FALSE(qv::nextFireDateForScheduleLastFireDate(schedule("", 9, 0), now, now));
}

// ---- Stored form ------------------------------------------------------------------------------------

TEST(QVScheduleDictionaryTest, ReadsNumbersAndKeepsWhatItCannotReadForTheNextSave) {
  QVDictionary stored{{kQVSchedulePeriodKey, "weekly"}, {"minute", 30},    {"hour", 9.0},
                      {"weekday", "mon"},             {"color", "blue"}, {"future", QVArray{1, 2}}};
  QVSchedule s = QVSchedule::fromDictionary(stored);
  EXPECT_EQ(s.period, "weekly");
  EXPECT_EQ(s.minute, 30);
  EXPECT_EQ(s.hour, 9);
  EXPECT_FALSE(s.weekday);
  EXPECT_FALSE(s.day);

  QVDictionary saved = s.dictionary();
  EXPECT_EQ(saved.at("hour"), QVValue(9));
  EXPECT_EQ(saved.at("weekday"), QVValue("mon"));
  EXPECT_EQ(saved.at("color"), QVValue("blue"));
  EXPECT_EQ(saved.at("future"), QVValue(QVArray{1, 2}));
  EXPECT_EQ(saved.count("day"), 0u);
  EXPECT_EQ(QVSchedule::fromDictionary(saved), s);
}

TEST(QVScheduleDictionaryTest, AMissingOrUnreadablePeriodReadsAsManual) {
  EXPECT_EQ(QVSchedule::fromDictionary({}).period, "manual");
  EXPECT_EQ(QVSchedule::fromDictionary({}).dictionary(), (QVDictionary{{kQVSchedulePeriodKey, "manual"}}));

  QVSchedule odd = QVSchedule::fromDictionary({{kQVSchedulePeriodKey, 7}});
  EXPECT_EQ(odd.period, "manual");
  EXPECT_EQ(odd.dictionary().at(kQVSchedulePeriodKey), QVValue(7));
  odd.period = "daily";
  EXPECT_EQ(odd.dictionary().at(kQVSchedulePeriodKey), QVValue("daily"));
}

// ---- Readable form ----------------------------------------------------------------------------------

TEST(QVScheduleSpecTest, CanonicalFormsRoundTrip) {
  for (const char* spec : {"manual", "hourly:00", "hourly:05", "daily@00:00", "daily@09:30", "weekly@mon@09:30",
                           "weekly@sun@23:59", "monthly@1@00:00", "monthly@31@00:00"}) {
    std::string error;
    auto parsed = qv::scheduleFromSpec(spec, &error);
    ASSERT_TRUE(parsed) << spec << ": " << error;
    EXPECT_EQ(qv::specFromSchedule(*parsed), spec);
    EXPECT_EQ(QVSchedule::fromDictionary(parsed->dictionary()), *parsed) << spec;
  }
}

TEST(QVScheduleSpecTest, ShortFormsAndDayNamesReadAsTheirCanonicalForm) {
  const std::vector<std::pair<std::string, std::string>> cases = {
      {"hourly", "hourly:00"},          {"daily", "daily@00:00"},         {"DAILY@9:30", "daily@09:30"},
      {"weekly", "weekly@mon@00:00"},   {"Weekly@Friday", "weekly@fri@00:00"},
      {"weekly@7@8:05", "weekly@sun@08:05"}, {"weekly@TUE@07:45", "weekly@tue@07:45"},
      {"monthly", "monthly@1@00:00"},   {"monthly@15", "monthly@15@00:00"}};
  for (const auto& [spec, canonical] : cases) {
    auto parsed = qv::scheduleFromSpec(spec);
    ASSERT_TRUE(parsed) << spec;
    EXPECT_EQ(qv::specFromSchedule(*parsed), canonical);
  }
  auto tuesday = qv::scheduleFromSpec("weekly@tue@07:45");
  EXPECT_EQ(tuesday->weekday, 2);
  EXPECT_EQ(tuesday->hour, 7);
  EXPECT_EQ(tuesday->minute, 45);
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
