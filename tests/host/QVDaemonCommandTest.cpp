// "stellwin-backup daemon" end to end without a desktop: it runs the due groups, logs each start and outcome,
// saves each outcome at once, re-arms on SIGUSR1, and on SIGTERM cancels the run under way and saves it.
#include <ctime>

#include "host/QVProgramRunner.h"
#include "platform/QVValue.h"

using nlohmann::json;
using namespace qvtest;
using std::chrono::seconds;

namespace {

class QVDaemonCommandTest : public HostTest {
 protected:
  json stored(const std::string& title) {
    const json preferences = json::parse(readFile(m_env.preferencesPath()));
    for (const auto& group : preferences["QVBackupAgent"]["groups"])
      if (group["title"] == title) return group;
    return nullptr;
  }
  static std::function<bool()> logged(const RunningProgram& daemon, const std::string& text) {
    return [&daemon, text] { return daemon.err.find(text) != std::string::npos; };
  }
};

// Photos is due and completes; Lost is due and fails, and comes back within the hour although its
// schedule is next due half a day on.
TEST_F(QVDaemonCommandTest, RunsDueGroupsRetriesFailuresReArmsOnWakeAndCancelsOnSigterm) {
  runJSON({"group", "add", "Photos", makeFile("p.jpg")});
  runJSON({"group", "add", "Manual", makeFile("m.txt")});
  runJSON({"group", "add", "Big", makeFile("big.bin", "", 4ull << 30)});  // manual too, run by hand
  runJSON({"group", "add", "Weekly", makeFile("w.txt")});
  runJSON({"group", "set", "Weekly", "--schedule", "weekly"});
  runJSON({"target", "add", "--type", "local", "--title", "Gone", "--path", m_env.root() + "/gone"});
  runJSON({"group", "add", "Lost", makeFile("l.txt")});
  runJSON({"group", "set", "Lost", "--target", "Gone"});
  makeDue("Photos");
  const std::time_t now = std::time(nullptr);
  std::tm local{};
  localtime_r(&now, &local);
  makeDue("Lost", "daily@" + std::to_string((local.tm_hour + 12) % 24) + ":00");

  const auto before = std::chrono::system_clock::now();
  RunningProgram daemon({"daemon"});
  ASSERT_TRUE(daemon.waitFor(logged(daemon, "\"Photos\" complete"), seconds(30))) << daemon.err;
  // The outcome line ends with the date of the group's timer, which the log gives to the millisecond.
  std::size_t line = std::string::npos;
  auto failed = [&] { return (line = daemon.err.find("\"Lost\" failed (-120)")) < daemon.err.rfind('\n'); };
  ASSERT_TRUE(daemon.waitFor(failed, seconds(30))) << daemon.err;
  const auto after = std::chrono::system_clock::now();
  const std::size_t end = daemon.err.find(")\n", line), start = daemon.err.rfind(", ", end) + 2;
  const std::optional<QVDate> next = qv::dateFromISO8601(daemon.err.substr(start, end - start));
  ASSERT_TRUE(next) << daemon.err;
  EXPECT_TRUE(*next >= before + seconds(3599) && *next <= after + seconds(3600)) << daemon.err;
  EXPECT_NE(daemon.err.find("started \"Photos\""), std::string::npos) << daemon.err;
  EXPECT_EQ(daemon.err.find("started \"Manual\""), std::string::npos) << "a manual group waits:\n" << daemon.err;
  // On disk while the daemon still runs.
  EXPECT_EQ(stored("Photos")["statusCode"], 0);
  EXPECT_TRUE(stored("Photos").contains("lastBackupDate")) << stored("Photos");
  EXPECT_EQ(runJSON({"versions", "Photos", "--json"}).size(), 1u);

  // Photos (now a day ahead), Lost and Weekly, never the manual group; Photos is not due again.
  kill(daemon.pid, SIGUSR1);
  EXPECT_TRUE(daemon.waitFor(logged(daemon, "wake: re-armed 3 timers\n"), seconds(10))) << daemon.err;
  EXPECT_EQ(daemon.err.find("started \"Photos\""), daemon.err.rfind("started \"Photos\"")) << daemon.err;

  // SIGTERM cancels a run under way and saves its outcome before the daemon stops.
  RunningProgram backup({"backup", "Big"});
  ASSERT_TRUE(backup.waitFor([&] { return copying("Big", "big.bin"); }, seconds(30))) << backup.err;
  kill(daemon.pid, SIGTERM);
  ProgramResult result = daemon.finish(seconds(60));
  EXPECT_EQ(result.status, 0) << result.err;
  EXPECT_NE(result.err.find("\"Big\" cancelled"), std::string::npos) << result.err;
  EXPECT_TRUE(result.err.ends_with("stopped\n")) << result.err;
  EXPECT_EQ(stored("Big")["statusCode"], -128);
  backup.finish();
}

}  // namespace
