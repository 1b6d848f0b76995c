// "stellwin-backup daemon" end to end without a desktop: it runs the groups that are due, logs each start
// and outcome, writes the preferences after each outcome, answers SIGUSR1 and SIGTERM, and never writes
// over changes that other commands made while it ran.
#include <gtest/gtest.h>

#include <ctime>
#include <filesystem>
#include <fstream>
#include <nlohmann/json.hpp>
#include <regex>

#include "host/QVProgramRunner.h"
#include "platform/QVValue.h"
#include "support/QVTestSupport.h"

namespace fs = std::filesystem;
using nlohmann::json;
using qvtest::ProgramResult;
using qvtest::RunningProgram;
using qvtest::runProgram;

namespace {

class QVDaemonCommandTest : public ::testing::Test {
 protected:
  qvtest::IsolatedEnvironment m_env;

  std::string makeFile(const std::string& relative, const std::string& text = "data") {
    const std::string path = m_env.home() + "/" + relative;
    qvtest::writeFile(path, text);
    return path;
  }

  // Last attempted long ago: due the moment a daemon starts.
  void makeDue(const std::string& title, const std::string& schedule = "daily@03:00") {
    ASSERT_EQ(runProgram({"group", "set", title, "--schedule", schedule}).status, 0);
    json preferences = json::parse(qvtest::readFile(m_env.preferencesPath()));
    for (auto& group : preferences["QVBackupAgent"]["groups"])
      if (group["title"] == title) group["lastBackupAttemptDate"] = {{"$date", "2020-01-01T00:00:00.000Z"}};
    qvtest::writeFile(m_env.preferencesPath(), preferences.dump(2));
  }

  json storedGroup(const std::string& title) {
    json preferences = json::parse(qvtest::readFile(m_env.preferencesPath()));
    for (const auto& group : preferences["QVBackupAgent"]["groups"])
      if (group["title"] == title) return group;
    return nullptr;
  }

  static auto contains(const RunningProgram& program, const std::string& text) {
    return [&program, text] { return program.err().find(text) != std::string::npos; };
  }
};

TEST_F(QVDaemonCommandTest, RunsDueGroupsAndSavesEachOutcomeAtOnce) {
  ASSERT_EQ(runProgram({"group", "add", "Photos", makeFile("p.jpg")}).status, 0);
  ASSERT_EQ(runProgram({"group", "add", "Manual", makeFile("m.txt")}).status, 0);
  ASSERT_EQ(runProgram({"group", "add", "Weekly", makeFile("w.txt")}).status, 0);
  ASSERT_EQ(runProgram({"group", "set", "Weekly", "--schedule", "weekly"}).status, 0);
  makeDue("Photos");

  RunningProgram daemon({"daemon"});
  ASSERT_TRUE(daemon.waitFor(contains(daemon, "\"Photos\" complete"), std::chrono::seconds(30))) << daemon.err();
  EXPECT_NE(daemon.err().find("started \"Photos\""), std::string::npos) << daemon.err();
  EXPECT_EQ(daemon.err().find("started \"Manual\""), std::string::npos) << "a manual group waits:\n" << daemon.err();

  // On disk while the daemon still runs, with the next run a day ahead.
  json photos = storedGroup("Photos");
  EXPECT_EQ(photos["statusCode"], 0);
  EXPECT_TRUE(photos.contains("lastBackupDate")) << photos.dump();
  EXPECT_EQ(json::parse(runProgram({"versions", "Photos", "--json"}).out).size(), 1u);

  daemon.signal(SIGUSR1);
  // Photos (a day ahead) and Weekly; never the manual group.
  EXPECT_TRUE(daemon.waitFor(contains(daemon, "wake: re-armed 2 timers\n"), std::chrono::seconds(10))) << daemon.err();
  EXPECT_EQ(daemon.err().find("started \"Photos\"", daemon.err().find("started \"Photos\"") + 1), std::string::npos)
      << "backed up today: not due again after a wake";

  daemon.signal(SIGTERM);
  ProgramResult result = daemon.finish(std::chrono::seconds(30));
  EXPECT_EQ(result.status, 0) << result.err;
  EXPECT_NE(result.err.find("stopped"), std::string::npos);
}

TEST_F(QVDaemonCommandTest, RetriesAFailedRunWithinTheHour) {
  ASSERT_EQ(runProgram({"group", "add", "Photos", makeFile("p.jpg")}).status, 0);
  // By its schedule next due half a day on, so only the retry can bring it back within the hour.
  const std::time_t now = std::time(nullptr);
  std::tm local {};
  localtime_r(&now, &local);
  char schedule[16];
  std::snprintf(schedule, sizeof schedule, "daily@%02d:00", (local.tm_hour + 12) % 24);
  makeDue("Photos", schedule);
  fs::remove_all(m_env.home() + "/Documents/Stellwin Backups");

  // The outcome line ends with the exact date of the group's timer.
  const std::regex failed("\"Photos\" failed \\(-120\\).*, ([-0-9T:.Z]+)\\)\n");
  std::smatch match;
  const auto before = std::chrono::system_clock::now();
  RunningProgram daemon({"daemon"});
  ASSERT_TRUE(daemon.waitFor([&] { return std::regex_search(daemon.err(), match, failed); }, std::chrono::seconds(30)))
      << daemon.err();
  const auto after = std::chrono::system_clock::now();
  const std::string when = match[1];  // before the log grows under the match
  const std::optional<QVDate> next = qv::dateFromISO8601(when);
  ASSERT_TRUE(next) << when;
  // An hour after the failure; milliseconds are all the log keeps.
  EXPECT_GE(*next, before + std::chrono::seconds(3599)) << daemon.err();
  EXPECT_LE(*next, after + std::chrono::seconds(3600)) << daemon.err();

  daemon.signal(SIGTERM);
  EXPECT_EQ(daemon.finish(std::chrono::seconds(30)).status, 0);
}

TEST_F(QVDaemonCommandTest, CancelsOnSigtermWithoutLosingChangesMadeMeanwhile) {
  const std::string big = m_env.home() + "/big.bin";
  {
    std::ofstream file(big);
  }
  fs::resize_file(big, 4ull << 30);  // sparse: long to copy, cheap to make
  ASSERT_EQ(runProgram({"group", "add", "Big", big}).status, 0);
  makeDue("Big");

  RunningProgram daemon({"daemon"});
  auto copying = [&] {
    std::error_code ec;
    for (const auto& entry : fs::recursive_directory_iterator(m_env.home() + "/Documents/Stellwin Backups/Big", ec))
      if (entry.path().filename() == "big.bin") return true;
    return false;
  };
  ASSERT_TRUE(daemon.waitFor(copying, std::chrono::seconds(30))) << daemon.err();

  // Another command changes the preferences while the run is under way.
  ASSERT_EQ(runProgram({"group", "add", "Docs", makeFile("d.txt")}).status, 0);
  daemon.signal(SIGTERM);
  ProgramResult result = daemon.finish(std::chrono::seconds(60));
  EXPECT_EQ(result.status, 0) << result.err;
  EXPECT_NE(result.err.find("\"Big\" cancelled"), std::string::npos) << result.err;

  // Both survive: the new group, and the cancelled run's outcome.
  EXPECT_FALSE(storedGroup("Docs").is_null()) << qvtest::readFile(m_env.preferencesPath());
  EXPECT_EQ(storedGroup("Big")["statusCode"], -128);
  EXPECT_NE(storedGroup("Big")["lastBackupAttemptDate"]["$date"], "2020-01-01T00:00:00.000Z");
}

}  // namespace
