// "stellwin-backup daemon" against the real clock: a group scheduled for the coming minute runs when that
// minute begins, and not before. It waits for up to a minute and a half, hence "slow".
#include <gtest/gtest.h>

#include <chrono>
#include <cstdio>
#include <ctime>
#include <nlohmann/json.hpp>
#include <thread>

#include "host/QVProgramRunner.h"
#include "support/QVTestSupport.h"

using namespace std::chrono;
using qvtest::RunningProgram;
using qvtest::runProgram;

namespace {

TEST(QVDaemonScheduleSlowTest, RunsANeverAttemptedHourlyGroupWhenItsMinuteComes) {
  qvtest::IsolatedEnvironment env;
  const std::string file = env.home() + "/n.txt";
  qvtest::writeFile(file, "n");
  ASSERT_EQ(runProgram({"group", "add", "Notes", file}).status, 0);

  // The daemon must have armed the timer before the minute begins: not in a minute's last seconds.
  // (Local minutes begin with the UTC ones.)
  if (system_clock::now() - floor<minutes>(system_clock::now()) > seconds(50))
    std::this_thread::sleep_until(ceil<minutes>(system_clock::now()) + seconds(1));
  const auto minute = ceil<minutes>(system_clock::now());
  const std::time_t start = system_clock::to_time_t(minute);
  std::tm local {};
  localtime_r(&start, &local);
  char schedule[16];
  std::snprintf(schedule, sizeof schedule, "hourly:%02d", local.tm_min);
  ASSERT_EQ(runProgram({"group", "set", "Notes", "--schedule", schedule}).status, 0);

  RunningProgram daemon({"daemon"});
  auto logged = [&daemon](const std::string& text) {
    return [&daemon, text] { return daemon.err().find(text) != std::string::npos; };
  };
  EXPECT_FALSE(daemon.waitFor(logged("started \"Notes\""), duration_cast<milliseconds>(minute - system_clock::now()) -
                                                               seconds(1)))
      << "ran early:\n" << daemon.err();
  ASSERT_TRUE(daemon.waitFor(logged("\"Notes\" complete"), seconds(30))) << daemon.err();
  EXPECT_GE(system_clock::now(), minute);
  EXPECT_EQ(nlohmann::json::parse(runProgram({"versions", "Notes", "--json"}).out).size(), 1u);

  daemon.signal(SIGTERM);
  EXPECT_EQ(daemon.finish(seconds(30)).status, 0);
}

}  // namespace
