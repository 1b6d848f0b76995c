#include "platform/QVSchedule.h"

#include <gtest/gtest.h>
#include <time.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <vector>

#include "platform/QVConstants.h"

namespace {

using namespace std::chrono_literals;

QVDate at(const std::string& text) {  // "YYYY-MM-DD[ HH:MM]" in UTC
  int y = 0, mo = 0, d = 0, h = 0, mi = 0;
  std::sscanf(text.c_str(), "%d-%d-%d %d:%d", &y, &mo, &d, &h, &mi);
  return QVDate(std::chrono::sys_days(std::chrono::year(y) / mo / d)) + std::chrono::minutes(h * 60 + mi);
}

std::string utcText(const std::optional<QVDate>& date) {
  if (!date) return "none";
  time_t t = std::chrono::system_clock::to_time_t(*date);
  tm parts{};
  char buffer[32];
  strftime(buffer, sizeof buffer, "%Y-%m-%d %H:%M", gmtime_r(&t, &parts));
  return buffer;
}

QVSchedule stored(const char* period, int minute, int hour = 0, std::optional<int> weekday = {}, int day = 1) {
  return {period, minute, hour, weekday, day, {}};
}

// Schedule arithmetic runs in the local zone (TZ); every date in these tests is written in UTC.
void useZone(const char* zone) {
  setenv("TZ", zone, 1);
  tzset();
}

TEST(QVScheduleTest, KeepsWallClockTimesAcrossClockChangesAndMonthEnds) {
  ASSERT_TRUE(std::filesystem::exists("/usr/share/zoneinfo/Europe/Berlin")) << "tzdata is not installed";
  struct Case {
    const char *zone, *form, *last, *expected;
  };
  const char *B = "Europe/Berlin", *U = "UTC";
  const std::vector<Case> cases = {
      // 09:00 CET -> CEST and back; 02:30 is skipped in spring (03:30) and not repeated in the fall.
      {B, "daily@09:00", "2024-03-30 08:00", "2024-03-31 07:00"},
      {B, "daily@09:00", "2024-10-26 07:00", "2024-10-27 08:00"},
      {B, "daily@02:30", "2024-03-30 01:30", "2024-03-31 01:30"},
      {B, "daily@02:30", "2024-03-31 01:30", "2024-04-01 00:30"},
      {B, "daily@02:30", "2024-10-26 00:30", "2024-10-27 00:30"},
      {B, "daily@02:30", "2024-10-27 00:30", "2024-10-28 01:30"},
      {B, "weekly@sun@02:30", "2024-03-24 01:30", "2024-03-31 01:30"},
      {B, "monthly@31@02:30", "2024-02-29 01:30", "2024-03-31 01:30"},
      // Hourly is exactly one hour on, through the skipped hour and into the repeated one.
      {B, "hourly:15", "2024-03-31 00:15", "2024-03-31 01:15"},
      {B, "hourly:15", "2024-10-27 00:15", "2024-10-27 01:15"},
      {U, "monthly@31", "2024-01-31", "2024-02-29 00:00"},
      {U, "monthly@31", "2024-02-29", "2024-03-31 00:00"},
      {U, "monthly@31", "2024-03-31", "2024-04-30 00:00"},
      {U, "monthly@31", "2025-01-31", "2025-02-28 00:00"},
      {U, "monthly@31", "2000-01-31", "2000-02-29 00:00"},
      {U, "monthly@31", "2100-01-31", "2100-02-28 00:00"},
  };
  for (const Case& c : cases) {
    useZone(c.zone);
    auto next = qv::nextFireDateForScheduleLastFireDate(*qv::scheduleFromSpec(c.form), at(c.last), at("2040-01-01"));
    EXPECT_EQ(utcText(next), c.expected) << c.zone << " " << c.form << " after " << c.last;
  }
}

TEST(QVScheduleTest, CountsFromTheLastAttemptElseFromNowAndNeverForManual) {
  useZone("Europe/Berlin");
  auto next = [](const std::optional<QVSchedule>& s, std::optional<QVDate> last, QVDate now) {
    return utcText(qv::nextFireDateForScheduleLastFireDate(s, last, now));
  };
  const QVSchedule nine = *qv::scheduleFromSpec("daily@09:00");  // 07:00 UTC in summer
  EXPECT_EQ(next(nine, std::nullopt, at("2024-06-10 06:59")), "2024-06-10 07:00");
  EXPECT_EQ(next(nine, std::nullopt, at("2024-06-10 07:00")), "2024-06-11 07:00");
  EXPECT_EQ(next(nine, std::nullopt, at("2024-06-10 07:00") + 500ms), "2024-06-11 07:00");
  EXPECT_EQ(next(nine, at("2024-01-01 08:00"), at("2024-06-01 12:00")), "2024-01-02 08:00");  // past: as is
  const QVDate now = at("2024-06-01 12:00");
  for (auto manual : {std::optional<QVSchedule>(), std::optional(QVSchedule{}), std::optional(stored("yearly", 0))})
    EXPECT_EQ(next(manual, now, now), "none");
  // Stored values out of range are clamped.
  useZone("UTC");
  EXPECT_EQ(next(stored("daily", -5, 30), now, now), "2024-06-01 23:00");
  EXPECT_EQ(next(stored("weekly", 0, 0, 0), now, now), "2024-06-03 00:00");
  EXPECT_EQ(next(stored("weekly", 0, 0, 9), now, now), "2024-06-02 00:00");
  EXPECT_EQ(next(stored("monthly", 0, 0, {}, 0), now, now), "2024-07-01 00:00");
  EXPECT_EQ(next(stored("hourly", 99), now, now), "2024-06-01 12:59");
}

TEST(QVScheduleFormsTest, ReadableAndStoredFormsRoundTripAndBadOnesAreRefusedWithAReason) {
  for (auto [text, canonical] : std::vector<std::pair<const char*, const char*>>{
           {"manual", "manual"},
           {"hourly", "hourly:00"},
           {"hourly:05", "hourly:05"},
           {"daily", "daily@00:00"},
           {"DAILY@9:30", "daily@09:30"},
           {"Weekly@Friday", "weekly@fri@00:00"},
           {"weekly@7@8:05", "weekly@sun@08:05"},
           {"weekly@TUE@23:59", "weekly@tue@23:59"},
           {"monthly", "monthly@1@00:00"},
           {"monthly@31", "monthly@31@00:00"},
       }) {
    std::string error;
    auto parsed = qv::scheduleFromSpec(text, &error);
    ASSERT_TRUE(parsed) << text << ": " << error;
    EXPECT_EQ(qv::specFromSchedule(*parsed), canonical);
    EXPECT_EQ(qv::scheduleFromSpec(canonical), parsed) << canonical;
    EXPECT_EQ(QVSchedule::fromDictionary(parsed->dictionary()), *parsed) << text;
  }
  // Stored keys this version does not know, and a period of another type, survive a save.
  QVSchedule odd = QVSchedule::fromDictionary({{kQVSchedulePeriodKey, 7}, {"hour", 9.0}, {"color", "blue"}});
  EXPECT_EQ(odd.period, "manual");
  EXPECT_EQ(odd.dictionary(), (QVDictionary{{kQVSchedulePeriodKey, 7}, {"hour", 9}, {"color", "blue"}}));

  std::string error;
  EXPECT_FALSE(qv::scheduleFromSpec("daily@25:00", &error));
  EXPECT_EQ(error, "invalid schedule \"daily@25:00\": hour must be 0-23");
  for (std::string bad : {"", "yearly", "daily@9", "daily@09:60", "daily@09:5", "daily@09:30x", "daily@09:30@mon",
                          "hourly:60", "hourly:5", "hourly@05", "weekly@xyz", "weekly@0", "weekly@8", "weekly@mon@",
                          "monthly@0", "monthly@32", "manual@09:00", " daily", "daily "}) {
    error.clear();
    EXPECT_FALSE(qv::scheduleFromSpec(bad, &error)) << bad;
    EXPECT_EQ(error.rfind("invalid schedule \"" + bad + "\": ", 0), 0u) << error;
    EXPECT_GT(error.size(), bad.size() + 22) << "no reason given for \"" << bad << "\"";
  }
}

}  // namespace
