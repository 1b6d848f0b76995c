// "stellwin-backup daemon" against the real clock: an hourly group whose minute comes next runs when that
// minute begins, not before. It waits up to a minute and a half, hence "slow".
#include <ctime>
#include <thread>

#include "host/QVProgramRunner.h"

using namespace std::chrono;
using namespace qvtest;

namespace {

using QVDaemonScheduleSlowTest = HostTest;

TEST_F(QVDaemonScheduleSlowTest, RunsANeverAttemptedHourlyGroupWhenItsMinuteComes) {
  runJSON({"group", "add", "Notes", makeFile("n.txt")});
  // The daemon must arm its timer before the minute begins: not in a minute's last seconds. (Local
  // minutes begin with the UTC ones.)
  if (system_clock::now() - floor<minutes>(system_clock::now()) > seconds(50))
    std::this_thread::sleep_until(ceil<minutes>(system_clock::now()) + seconds(1));
  const auto minute = ceil<minutes>(system_clock::now());
  const std::time_t start = system_clock::to_time_t(minute);
  std::tm local{};
  localtime_r(&start, &local);
  const std::string schedule = "hourly:" + std::string(local.tm_min < 10, '0') + std::to_string(local.tm_min);
  runJSON({"group", "set", "Notes", "--schedule", schedule});

  RunningProgram daemon({"daemon"});
  auto started = [&] { return daemon.err.find("started \"Notes\"") != std::string::npos; };
  EXPECT_FALSE(daemon.waitFor(started, duration_cast<milliseconds>(minute - system_clock::now() - seconds(1))))
      << "ran early:\n" << daemon.err;
  ASSERT_TRUE(daemon.waitFor([&] { return daemon.err.find("\"Notes\" complete") != std::string::npos; }, seconds(30)))
      << daemon.err;
  EXPECT_GE(system_clock::now(), minute);
  EXPECT_EQ(runJSON({"versions", "Notes", "--json"}).size(), 1u);
  kill(daemon.pid, SIGTERM);
  EXPECT_EQ(daemon.finish(seconds(30)).status, 0);
}

}  // namespace
