// "stellwin-backup backup" end to end: real copies into the default local destination, the outcomes a
// user reads, the exit status, and what the preferences keep afterwards. Each test has its own home.
#include <gtest/gtest.h>

#include <pty.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <nlohmann/json.hpp>
#include <regex>
#include <set>

#include "host/QVProgramRunner.h"
#include "support/QVTestSupport.h"

namespace fs = std::filesystem;
using nlohmann::json;
using qvtest::ProgramResult;
using qvtest::RunningProgram;
using qvtest::runProgram;

namespace {

class QVBackupCommandTest : public ::testing::Test {
 protected:
  qvtest::IsolatedEnvironment m_env;

  std::string backupsFolder() const { return m_env.home() + "/Documents/Stellwin Backups"; }

  std::string makeFile(const std::string& relative, const std::string& text) {
    const std::string path = m_env.home() + "/" + relative;
    qvtest::writeFile(path, text);
    return path;
  }

  void addGroup(const std::string& title, const std::vector<std::string>& paths) {
    std::vector<std::string> arguments = {"group", "add", title};
    arguments.insert(arguments.end(), paths.begin(), paths.end());
    ProgramResult result = runProgram(arguments);
    ASSERT_EQ(result.status, 0) << result.err;
  }

  json show(const std::string& group) { return json::parse(runProgram({"group", "show", group, "--json"}).out); }

  static std::size_t occurrences(const std::string& text, const std::string& part) {
    std::size_t count = 0;
    for (std::size_t at = text.find(part); at != std::string::npos; at = text.find(part, at + part.size())) ++count;
    return count;
  }
};

TEST_F(QVBackupCommandTest, CopiesAGroupIntoANewVersionAtTheDefaultDestination) {
  const std::string photo = makeFile("Bilder/Sommer Ä.jpg", std::string(300000, 'p'));
  const std::string empty = makeFile("leer.txt", "");
  addGroup("Photos", {photo, empty});

  ProgramResult result = runProgram({"backup", "Photos"});
  ASSERT_EQ(result.status, 0) << result.err;
  EXPECT_EQ(result.out, "Photos: complete\n");

  json versions = json::parse(runProgram({"versions", "Photos", "--json"}).out);
  ASSERT_EQ(versions.size(), 1u) << versions.dump();
  const std::string version = versions[0];
  EXPECT_TRUE(std::regex_match(version, std::regex("[0-9]{14}\\.backup"))) << version;
  const std::string entry = backupsFolder() + "/Photos/" + version;
  EXPECT_EQ(qvtest::readFile(entry + "/Sommer Ä.jpg"), std::string(300000, 'p'));
  EXPECT_TRUE(fs::exists(entry + "/leer.txt"));

  json group = show("Photos");
  EXPECT_EQ(group["statusCode"], 0);
  EXPECT_TRUE(group["lastBackupDate"].is_string());
  EXPECT_EQ(group["lastBackupDate"], group["lastBackupAttemptDate"]);
}

TEST_F(QVBackupCommandTest, KeepsOnlyAsManyVersionsAsTheGroupAsksFor) {
  addGroup("Notes", {makeFile("n.txt", "n")});
  ASSERT_EQ(runProgram({"group", "set", "Notes", "--versions", "1"}).status, 0);
  ASSERT_EQ(runProgram({"backup", "Notes"}).status, 0);
  // Version names have a resolution of one second.
  std::this_thread::sleep_for(std::chrono::milliseconds(1100));
  ASSERT_EQ(runProgram({"backup", "Notes", "--json"}).status, 0);
  EXPECT_EQ(json::parse(runProgram({"versions", "Notes", "--json"}).out).size(), 1u);
}

TEST_F(QVBackupCommandTest, ReportsMissingItemsAndEmptyGroupsAndDestinationsThatAreGone) {
  const std::string kept = makeFile("kept.txt", "k");
  const std::string lost = makeFile("lost.txt", "l");
  addGroup("Mixed", {kept, lost});
  fs::remove(lost);
  addGroup("Hollow", {makeFile("h.txt", "h")});
  ASSERT_EQ(runProgram({"group", "remove-items", "Hollow", m_env.home() + "/h.txt"}).status, 0);

  ProgramResult result = runProgram({"backup", "Mixed", "Hollow", "--json"});
  EXPECT_EQ(result.status, 1) << "an empty group is not a completed one";
  json outcomes = json::parse(result.out);
  ASSERT_EQ(outcomes.size(), 2u) << result.out;
  EXPECT_EQ(outcomes[0]["title"], "Mixed");
  EXPECT_EQ(outcomes[0]["outcome"], "complete with missing items");
  EXPECT_EQ(outcomes[0]["statusCode"], 0);
  EXPECT_EQ(outcomes[1]["title"], "Hollow");
  EXPECT_EQ(outcomes[1]["outcome"], "empty");
  EXPECT_NE(result.err.find("group \"Hollow\" is empty; nothing to back up"), std::string::npos) << result.err;

  // The destination folder deleted: the destination's own message, once on each stream. (The outcome
  // carries the last item's error, so the missing item goes first.)
  ASSERT_EQ(runProgram({"group", "remove-items", "Mixed", lost}).status, 0);
  fs::remove_all(backupsFolder());
  const std::string message = "Backup destination directory not found. Check your Backup Preferences.";
  ProgramResult gone = runProgram({"backup", "Mixed"});
  EXPECT_EQ(gone.status, 1);
  EXPECT_EQ(gone.out, "Mixed: failed (-120): " + message + "\n");
  EXPECT_EQ(occurrences(gone.err, "Mixed - " + message), 1u) << gone.err;
  EXPECT_EQ(show("Mixed")["statusCode"], -120);
}

TEST_F(QVBackupCommandTest, FailsAGroupWhoseDestinationWasRemoved) {
  addGroup("Orphan", {makeFile("o.txt", "o")});
  ASSERT_EQ(runProgram({"target", "remove", "My Mac"}).status, 0);
  ProgramResult result = runProgram({"backup", "Orphan"});
  EXPECT_EQ(result.status, 1);
  EXPECT_EQ(result.out, "Orphan: failed: no usable destination\n");
  EXPECT_NE(result.err.find("group \"Orphan\" has no usable destination"), std::string::npos) << result.err;
}

TEST_F(QVBackupCommandTest, DrawsARisingProgressBarOnATerminal) {
  const std::string big = m_env.home() + "/big.bin";
  {
    std::ofstream file(big);
  }
  fs::resize_file(big, 1ull << 30);  // sparse; half a second or more to write, so the bar is redrawn
  addGroup("Big", {big});

  // Run on a pseudo-terminal as a user would; its master side reads both streams, in order.
  std::string program = QV_TEST_PROGRAM, command = "backup", group = "Big";
  char* argv[] = {program.data(), command.data(), group.data(), nullptr};
  int master = -1;
  const pid_t pid = forkpty(&master, nullptr, nullptr, nullptr);
  ASSERT_GE(pid, 0);
  if (pid == 0) {
    execv(argv[0], argv);
    _exit(127);
  }
  std::string screen;
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(120);
  while (std::chrono::steady_clock::now() < deadline) {
    pollfd fd = {master, POLLIN, 0};
    if (poll(&fd, 1, 100) <= 0) continue;
    char buffer[4096];
    const ssize_t n = read(master, buffer, sizeof buffer);
    if (n <= 0) break;  // EIO once the program has closed the terminal
    screen.append(buffer, static_cast<std::size_t>(n));
  }
  kill(pid, SIGKILL);  // in case the deadline passed
  int raw = 0;
  waitpid(pid, &raw, 0);
  close(master);
  EXPECT_TRUE(WIFEXITED(raw) && WEXITSTATUS(raw) == 0) << screen;

  std::vector<int> percents;
  const std::regex percent("([0-9]+)%");
  for (auto it = std::sregex_iterator(screen.begin(), screen.end(), percent); it != std::sregex_iterator(); ++it)
    percents.push_back(std::stoi((*it)[1]));
  EXPECT_TRUE(std::is_sorted(percents.begin(), percents.end())) << screen;
  // At least 0% and one later value: progress arrives every 200 ms, so a fast disk shows few.
  EXPECT_GE(std::set<int>(percents.begin(), percents.end()).size(), 2u) << screen;
  // The bar erased, and the outcome in its place.
  EXPECT_TRUE(screen.ends_with("\033[JBig: complete\r\n")) << screen;
}

TEST_F(QVBackupCommandTest, CancelsOnInterruptAndExitsWith130) {
  const std::string big = m_env.home() + "/big.bin";
  {
    std::ofstream file(big);
  }
  fs::resize_file(big, 4ull << 30);  // sparse: nothing to read, much to write
  addGroup("Big", {big});

  RunningProgram program({"backup", "Big"});
  // The copy has begun once its file is there.
  auto copying = [&] {
    std::error_code ec;
    for (const auto& entry : fs::recursive_directory_iterator(backupsFolder() + "/Big", ec))
      if (entry.path().filename() == "big.bin") return true;
    return false;
  };
  ASSERT_TRUE(program.waitFor(copying, std::chrono::seconds(60))) << program.err();
  program.signal(SIGINT);
  ProgramResult result = program.finish(std::chrono::seconds(60));
  EXPECT_EQ(result.status, 130) << result.err;
  EXPECT_EQ(result.out, "Big: cancelled\n");
  EXPECT_EQ(show("Big")["statusCode"], -128);
}

}  // namespace
