// "stellwin-backup backup" end to end: real copies into the default local destination, what the user reads,
// the exit status, and what the preferences keep afterwards.
#include <set>

#include "host/QVProgramRunner.h"

using nlohmann::json;
using namespace qvtest;

namespace {

class QVBackupCommandTest : public HostTest {
 protected:
  json show(const std::string& group) { return runJSON({"group", "show", group, "--json"}); }
};

TEST_F(QVBackupCommandTest, CopiesAGroupIntoANewVersionAtTheDefaultDestination) {
  runJSON({"group", "add", "Photos", makeFile("Bilder/Sommer Ä.jpg", std::string(300000, 'p')), makeFile("leer", "")});
  ProgramResult result = runProgram({"backup", "Photos"});
  ASSERT_EQ(result.status, 0) << result.err;
  EXPECT_EQ(result.out, "Photos: complete\n");

  const json versions = runJSON({"versions", "Photos", "--json"});
  ASSERT_EQ(versions.size(), 1u) << versions;
  const std::string name = versions[0], version = backups() + "/Photos/" + name;
  EXPECT_TRUE(name.size() == 21 && name.find_first_not_of("0123456789") == 14 && name.ends_with(".backup")) << name;
  EXPECT_EQ(readFile(version + "/Sommer Ä.jpg"), std::string(300000, 'p'));
  EXPECT_TRUE(std::filesystem::exists(version + "/leer"));
  const json group = show("Photos");
  EXPECT_EQ(group["statusCode"], 0);
  EXPECT_TRUE(group["lastBackupDate"].is_string()) << group;
  EXPECT_EQ(group["lastBackupDate"], group["lastBackupAttemptDate"]);
}

TEST_F(QVBackupCommandTest, ReportsMissingItemsEmptyGroupsAndDestinationsThatAreGone) {
  const std::string lost = makeFile("lost.txt");
  runJSON({"group", "add", "Mixed", makeFile("kept.txt"), lost});
  std::filesystem::remove(lost);
  runJSON({"group", "add", "Hollow", makeFile("h.txt")});
  runJSON({"group", "remove-items", "Hollow", m_env.home() + "/h.txt"});
  ProgramResult result = runProgram({"backup", "Mixed", "Hollow", "--json"});
  EXPECT_EQ(result.status, 1) << "an empty group is not a completed one";
  json outcomes = json::parse(result.out, nullptr, false);
  for (auto& outcome : outcomes) {
    EXPECT_EQ(outcome["id"], show(outcome["title"])["id"]);
    outcome.erase("id");
  }
  EXPECT_EQ(outcomes, json::parse(R"([
      {"title": "Mixed", "outcome": "complete with missing items", "statusCode": 0, "message": null},
      {"title": "Hollow", "outcome": "empty", "statusCode": null,
       "message": "the group is empty; nothing to back up"}])"));
  EXPECT_NE(result.err.find("group \"Hollow\" is empty; nothing to back up"), std::string::npos) << result.err;

  // The destination's folder deleted: its message, once on each stream.
  runJSON({"group", "remove-items", "Mixed", lost});
  std::filesystem::remove_all(backups());
  const std::string message = "Backup destination directory not found. Check your Backup Preferences.";
  result = runProgram({"backup", "Mixed"});
  EXPECT_EQ(result.status, 1);
  EXPECT_EQ(result.out, "Mixed: failed (-120): " + message + "\n");
  EXPECT_EQ(result.err.find("Mixed - " + message), result.err.rfind("Mixed - " + message)) << result.err;
  EXPECT_NE(result.err.find("Mixed - " + message), std::string::npos) << result.err;
  EXPECT_EQ(show("Mixed")["statusCode"], -120);

  // The destination removed.
  runJSON({"target", "remove", "My Mac"});
  result = runProgram({"backup", "Mixed"});
  EXPECT_EQ(result.status, 1);
  EXPECT_EQ(result.out, "Mixed: failed: no usable destination\n");
  EXPECT_NE(result.err.find("group \"Mixed\" has no usable destination"), std::string::npos) << result.err;
}

TEST_F(QVBackupCommandTest, DrawsARisingProgressBarOnATerminal) {
  runJSON({"group", "add", "Big", makeFile("big.bin", "", 1ull << 30)});  // half a second or more to copy
  ProgramResult screen = RunningProgram({"backup", "Big"}, "", "", /*terminal=*/true).finish();
  EXPECT_EQ(screen.status, 0) << screen.out;
  std::vector<int> percents;
  for (std::size_t at = screen.out.find('%'); at != std::string::npos; at = screen.out.find('%', at + 1))
    if (const std::size_t digits = screen.out.find_last_not_of("0123456789", at - 1) + 1; digits < at)
      percents.push_back(std::stoi(screen.out.substr(digits, at - digits)));
  EXPECT_TRUE(std::is_sorted(percents.begin(), percents.end())) << screen.out;
  // At least 0% and one later value: progress arrives every 200 ms, so a fast disk shows few.
  EXPECT_GE(std::set<int>(percents.begin(), percents.end()).size(), 2u) << screen.out;
  EXPECT_TRUE(screen.out.ends_with("\033[JBig: complete\r\n")) << "the bar erased for the outcome:\n" << screen.out;
}

TEST_F(QVBackupCommandTest, CancelsOnInterruptAndExitsWith130) {
  runJSON({"group", "add", "Big", makeFile("big.bin", "", 4ull << 30)});
  RunningProgram program({"backup", "Big"});
  ASSERT_TRUE(program.waitFor([&] { return copying("Big", "big.bin"); }, std::chrono::seconds(60))) << program.err;
  kill(program.pid, SIGINT);
  ProgramResult result = program.finish(std::chrono::seconds(60));
  EXPECT_EQ(result.status, 130) << result.err;
  EXPECT_EQ(result.out, "Big: cancelled\n");
  EXPECT_EQ(show("Big")["statusCode"], -128);
}

}  // namespace
