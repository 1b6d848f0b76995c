// "stellwin-backup backup" end to end: real copies into the default local destination, what the user reads,
// the exit status, and what the preferences keep afterwards.
#include <sys/socket.h>

#include <netinet/in.h>

#include <set>

#include "host/QVProgramRunner.h"

using nlohmann::json;
using namespace qvtest;

namespace {

class QVBackupCommandTest : public HostTest {
 protected:
  json show(const std::string& group) { return runJSON({"group", "show", group, "--json"}); }
  std::vector<std::string> versionsIn(const std::string& group) const {
    std::vector<std::string> names;
    std::error_code ec;
    for (const auto& entry : std::filesystem::directory_iterator(backups() + "/" + group, ec))
      names.push_back(entry.path().filename());
    std::sort(names.begin(), names.end());
    return names;
  }
  // A port on 127.0.0.1 where nothing listens.
  static int closedPort() {
    const int fd = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof address;
    bind(fd, reinterpret_cast<sockaddr*>(&address), length);
    getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length);
    close(fd);
    return ntohs(address.sin_port);
  }
};

TEST_F(QVBackupCommandTest, CopiesAGroupIntoANewVersionAtTheDefaultDestination) {
  runJSON({"group", "add", "Photos", makeFile("Bilder/Sommer Ä.jpg", std::string(300000, 'p')), makeFile("leer", "")});
  ProgramResult result = runProgram({"backup", "Photos"});
  ASSERT_EQ(result.status, 0) << result.err;
  EXPECT_EQ(result.out, "Photos: complete\n");

  const json versions = runJSON({"versions", "Photos", "--json"});
  ASSERT_EQ(versions.size(), 1u) << versions;
  EXPECT_EQ(versions[0]["partial"], false);
  const std::string name = versions[0]["name"], version = backups() + "/Photos/" + name;
  EXPECT_TRUE(name.size() == 21 && name.find_first_not_of("0123456789") == 14 && name.ends_with(".backup")) << name;
  EXPECT_EQ(readFile(version + "/Sommer Ä.jpg"), std::string(300000, 'p'));
  EXPECT_TRUE(std::filesystem::exists(version + "/leer"));
  const json group = show("Photos");
  EXPECT_EQ(group["statusCode"], 0);
  EXPECT_TRUE(group["lastBackupDate"].is_string()) << group;
  EXPECT_EQ(group["lastBackupDate"], group["lastBackupAttemptDate"]);

  const json runs = runJSON({"log", "Photos", "--json"});
  ASSERT_EQ(runs.size(), 1u) << runs;
  const json expected = {{"group", group["id"]}, {"title", "Photos"}, {"version", name},    {"outcome", "complete"},
                         {"statusCode", 0},      {"items", 2},        {"files", 2},         {"bytes", 300000},
                         {"leftOutCount", 0}};
  for (const auto& [key, value] : expected.items()) EXPECT_EQ(runs[0][key], value) << key;
  EXPECT_LE(runs[0]["started"], runs[0]["ended"]);
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
  ASSERT_TRUE(outcomes[0].contains("version")) << outcomes;
  EXPECT_EQ(outcomes[0]["version"], versionsIn("Mixed").at(0));
  outcomes[0].erase("version");
  EXPECT_EQ(outcomes, json::parse(R"([
      {"title": "Mixed", "outcome": "complete with missing items", "statusCode": 0, "message": null,
       "files": 1, "bytes": 4, "leftOut": [], "missingItems": [")" + lost + R"("], "versionsUnreadable": false},
      {"title": "Hollow", "outcome": "empty", "statusCode": null,
       "message": "the group is empty; nothing to back up"}])"));
  EXPECT_NE(result.err.find("group \"Hollow\" is empty; nothing to back up"), std::string::npos) << result.err;
  result = runProgram({"backup", "Mixed"});
  EXPECT_EQ(result.out, "Mixed: complete with missing items\n  missing item: " + lost + "\n");

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

  // The version it leaves is known as partial, also once a complete one stands beside it.
  const std::string partial = versionsIn("Big").at(0);
  std::filesystem::resize_file(m_env.home() + "/big.bin", 1000);
  std::this_thread::sleep_for(std::chrono::milliseconds(1100));  // versions are named by the second
  ASSERT_EQ(runProgram({"backup", "Big"}).status, 0);
  const std::string complete = versionsIn("Big").at(1);
  EXPECT_EQ(runJSON({"versions", "Big", "--json"}),
            json::parse(R"([{"name": ")" + partial + R"(", "partial": true},
                            {"name": ")" + complete + R"(", "partial": false}])"));
  EXPECT_EQ(runProgram({"versions", "Big"}).out, partial + "  (partial)\n" + complete + "\n");
  const json runs = runJSON({"log", "Big", "--json"});  // newest first
  ASSERT_EQ(runs.size(), 2u) << runs;
  EXPECT_EQ(std::tuple(runs[0]["outcome"], runs[0]["version"], runs[1]["outcome"], runs[1]["statusCode"], runs[1]["version"]),
            std::tuple(json("complete"), json(complete), json("cancelled"), json(-128), json(partial)));
  const std::string table = runProgram({"log"}).out;
  EXPECT_LT(table.find(complete), table.find(partial)) << table;
  EXPECT_NE(table.find("cancelled"), std::string::npos) << table;
}

// Twelve files nobody may read, one that is read, and a folder of links only: the run completes, and
// says which files are not in the version.
TEST_F(QVBackupCommandTest, NamesTheFilesItCouldNotReadAndLeftOut) {
  std::set<std::string> leftOut;
  for (int i = 0; i < 12; ++i) {
    const std::string path = makeFile("Docs/secret " + std::to_string(i) + ".txt");
    std::filesystem::permissions(path, std::filesystem::perms::none);
    leftOut.insert(path);
  }
  makeFile("Docs/open.txt", "open");
  std::filesystem::create_directories(m_env.home() + "/Links");
  std::filesystem::create_symlink("/etc/hostname", m_env.home() + "/Links/hostname");
  leftOut.insert(m_env.home() + "/Links/hostname");
  runJSON({"group", "add", "Docs", m_env.home() + "/Docs", m_env.home() + "/Links"});

  ProgramResult result = runProgramAsUser({"backup", "Docs"}, m_env.root());
  ASSERT_EQ(result.status, 0) << result.err;
  std::istringstream lines(result.out);
  std::vector<std::string> shown;
  for (std::string line; std::getline(lines, line);) shown.push_back(line);
  ASSERT_EQ(shown.size(), 13u) << result.out;
  EXPECT_EQ(shown[0], "Docs: complete");
  EXPECT_EQ(shown[1], "  13 files could not be read and were left out");
  for (std::size_t i = 2; i < 12; ++i) EXPECT_TRUE(leftOut.count(shown[i].substr(4)) && shown[i].starts_with("    ")) << shown[i];
  EXPECT_EQ(shown[12], "    and 3 more (see --json)");
  const std::string version = backups() + "/Docs/" + versionsIn("Docs").at(0);
  EXPECT_EQ(readFile(version + "/Docs/open.txt"), "open");
  EXPECT_FALSE(std::filesystem::exists(version + "/Docs/secret 0.txt"));

  std::this_thread::sleep_for(std::chrono::milliseconds(1100));
  result = runProgramAsUser({"backup", "Docs", "--json"}, m_env.root());
  const json outcome = json::parse(result.out, nullptr, false).at(0);
  EXPECT_EQ(outcome["leftOut"].get<std::set<std::string>>(), leftOut) << outcome;
  EXPECT_EQ(outcome["outcome"], "complete");
  EXPECT_EQ(runJSON({"log", "Docs", "--json"}).at(0)["leftOutCount"], 13);
}

// Three older versions stand at the destination; what a run keeps depends on the stored "versions".
TEST_F(QVBackupCommandTest, KeepsEveryVersionWhenTheStoredCountCannotBeRead) {
  const std::vector<std::pair<json, std::size_t>> cases = {
      {"five", 4}, {-1, 4}, {json(18446744073709551615ull), 4}, {json::object(), 4},
      {2, 2}, {2.9, 2},  // a fraction reads as its whole part
      {nullptr, 0}};     // null: no "versions" at all, which removes every version, the new one too
  std::vector<std::string> titles;
  for (std::size_t i = 0; i < cases.size(); ++i) {
    titles.push_back("G" + std::to_string(i));
    runJSON({"group", "add", titles.back(), makeFile("file" + std::to_string(i))});
    for (const char* old : {"20200101000001.backup", "20200101000002.backup", "20200101000003.backup"})
      std::filesystem::create_directories(backups() + "/" + titles.back() + "/" + old);
    editStoredGroup(titles.back(), [&](json& group) {
      if (cases[i].first.is_null()) group.erase("versions");
      else group["versions"] = cases[i].first;
    });
  }
  std::vector<std::string> arguments = {"backup", "--json"};
  arguments.insert(arguments.end(), titles.begin(), titles.end());
  ProgramResult result = runProgram(arguments);
  ASSERT_EQ(result.status, 0) << result.err;
  const json outcomes = json::parse(result.out, nullptr, false);
  for (std::size_t i = 0; i < cases.size(); ++i) {
    const bool unreadable = cases[i].second == 4;
    EXPECT_EQ(versionsIn(titles[i]).size(), cases[i].second) << cases[i].first;
    EXPECT_EQ(outcomes[i]["versionsUnreadable"], unreadable) << cases[i].first;
    const std::string logged = "\"versions\" of group \"" + titles[i] + "\" cannot be read";
    const std::size_t first = result.err.find(logged);
    EXPECT_EQ(first != std::string::npos && first == result.err.rfind(logged), unreadable) << result.err;
  }
  EXPECT_NE(result.err.find("warning: group \"G6\" has no stored \"versions\""), std::string::npos) << result.err;
  EXPECT_EQ(result.err.find("warning: group \"G5\""), std::string::npos) << result.err;

  // The text output says it under the outcome; setting a count repairs the group.
  result = runProgram({"backup", "G0"});
  EXPECT_NE(result.out.find("G0: complete\n  the group's stored \"versions\" cannot be read"), std::string::npos)
      << result.out;
  runJSON({"group", "set", "G0", "--versions", "1"});
  std::this_thread::sleep_for(std::chrono::milliseconds(1100));
  ASSERT_EQ(runProgram({"backup", "G0"}).status, 0);
  EXPECT_EQ(versionsIn("G0").size(), 1u);
}

// Groups whose stored titles would write outside their own folder are not run; nothing is written.
TEST_F(QVBackupCommandTest, RefusesToRunAGroupWhoseTitleIsNotAFolderOfItsOwn) {
  runJSON({"group", "add", "Up", makeFile("a.txt")});
  runJSON({"group", "add", "Twin", makeFile("b.txt")});
  runJSON({"group", "add", "Other", makeFile("c.txt")});
  editStoredGroup("Up", [](json& group) { group["title"] = ".."; });
  editStoredGroup("Other", [](json& group) { group["title"] = "Twin"; });
  const std::string before = readFile(m_env.preferencesPath());
  for (const auto& group : runJSON({"group", "list", "--json"})) {
    ProgramResult result = runProgram({"backup", group["id"]});
    EXPECT_EQ(result.status, 2) << group;
    EXPECT_NE(result.err.find(group["title"] == ".." ? "cannot be \".\" or \"..\"" : "has the same title"), std::string::npos)
        << result.err;
    EXPECT_EQ(readFile(m_env.preferencesPath()), before);
  }
  std::vector<std::string> written;
  for (const auto& entry : std::filesystem::recursive_directory_iterator(m_env.home() + "/Documents"))
    written.push_back(entry.path());
  EXPECT_TRUE(written.empty() || written == std::vector<std::string>{backups()}) << written.size();
}

TEST_F(QVBackupCommandTest, TellsAFailedListingFromAnEmptyOne) {
  runJSON({"group", "add", "Notes", makeFile("n.txt")});
  const std::vector<std::tuple<std::string, std::function<void()>, int, std::string>> cases = {
      {"never backed up", [] {}, 0, "no versions\n"},
      {"folder gone", [&] { std::filesystem::remove_all(backups()); }, 1, "does not exist"},
      {"server closed", [&] {
         runJSON({"target", "add", "--type", "dav", "--title", "NAS", "--server", "127.0.0.1", "--port",
                  std::to_string(closedPort()), "--path", "/dav"});
         runJSON({"group", "set", "Notes", "--target", "NAS"});
       }, 1, "could not be listed"},
  };
  for (const auto& [name, setUp, status, text] : cases) {
    setUp();
    ProgramResult result = runProgram({"versions", "Notes"});
    EXPECT_EQ(result.status, status) << name << "\n" << result.err;
    EXPECT_NE((status ? result.err : result.out).find(text), std::string::npos) << name << "\n" << result.out << result.err;
    if (status) {
      EXPECT_EQ(result.out, "") << name;
    }
  }
  // A group folder that cannot be read.
  runJSON({"group", "set", "Notes", "--target", "My Mac"});
  std::filesystem::create_directories(backups() + "/Notes/20200101000001.backup");
  std::filesystem::permissions(backups() + "/Notes", std::filesystem::perms::none);
  ProgramResult result = runProgramAsUser({"versions", "Notes"}, m_env.root());
  std::filesystem::permissions(backups() + "/Notes", std::filesystem::perms::owner_all);
  EXPECT_EQ(result.status, 1);
  EXPECT_NE(result.err.find("could not be read"), std::string::npos) << result.err;
}

// A damaged journal costs its damaged lines; a full one rotates; one that cannot be written costs a
// warning. None of them stops a backup.
TEST_F(QVBackupCommandTest, KeepsBackingUpWhateverBecomesOfTheJournal) {
  runJSON({"group", "add", "Notes", makeFile("n.txt")});
  const std::string id = show("Notes")["id"];
  const std::string old = R"({"group": ")" + id + R"(", "title": "Notes", "outcome": "failed", "statusCode": -36,
      "ended": "2020-01-01T00:00:00.000Z", "version": "20200101000000.backup"})";
  std::string oneLine = old;
  std::replace(oneLine.begin(), oneLine.end(), '\n', ' ');
  const std::string full = oneLine + "\n" + std::string(1u << 20, 'x') + "\n";
  const std::string journal = m_env.journalPath();
  const std::vector<std::tuple<std::string, std::string, std::size_t, bool>> cases = {
      // name, journal's text before the run, entries after it, rotated
      {"damaged", "not json\n{\"group\": 3}\n" + oneLine + "\n\x01\x02\n{\"truncated\": ", 2, false},
      {"full", full, 2, true},
  };
  for (const auto& [name, text, count, rotated] : cases) {
    std::filesystem::remove_all(m_env.root() + "/state");
    writeFile(journal, text);
    std::this_thread::sleep_for(std::chrono::milliseconds(1100));
    ProgramResult result = runProgram({"backup", "Notes"});
    EXPECT_EQ(result.status, 0) << name << "\n" << result.err;
    const json runs = runJSON({"log", "Notes", "--json"});
    ASSERT_EQ(runs.size(), count) << name << "\n" << runs;
    EXPECT_EQ(std::pair(runs[0]["outcome"], runs[1]["statusCode"]), std::pair(json("complete"), json(-36))) << name;
    EXPECT_EQ(std::filesystem::exists(journal + ".1"), rotated) << name;
    EXPECT_LT(std::filesystem::file_size(journal), 4096u) << name;
    EXPECT_EQ(std::filesystem::status(journal).permissions(),
              std::filesystem::perms::owner_read | std::filesystem::perms::owner_write) << name;
  }
  EXPECT_EQ(std::filesystem::status(m_env.root() + "/state/stellwin").permissions(), std::filesystem::perms::owner_all);

  // A journal that cannot be written: a file where its folder should be.
  std::filesystem::remove_all(m_env.root() + "/state");
  writeFile(m_env.root() + "/state/stellwin", "in the way");
  ProgramResult result = runProgram({"backup", "Notes"});
  EXPECT_EQ(result.status, 0) << result.err;
  EXPECT_EQ(result.out, "Notes: complete\n");
  EXPECT_NE(result.err.find("warning: the run was not recorded in the journal"), std::string::npos) << result.err;
  EXPECT_EQ(runProgram({"log"}).out, "no runs recorded\n");
}

}  // namespace
