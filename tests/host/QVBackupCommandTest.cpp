// "stellwin-backup backup" end to end: real copies into the default local destination, what the user reads,
// the exit status, and what the preferences keep afterwards.
#include <sys/stat.h>

#include <iterator>
#include <set>
#include <sstream>

#include "host/QVProgramRunner.h"

using nlohmann::json;
using namespace qvtest;

namespace {

class QVBackupCommandTest : public HostTest {
 protected:
  json show(const std::string& group) { return runJSON({"group", "show", group, "--json"}); }
  std::vector<std::string> versionsIn(const std::string& group) const { return namesIn(backups() + "/" + group); }
  static std::vector<std::string> split(const std::string& command) {
    std::istringstream words(command);
    return {std::istream_iterator<std::string>(words), {}};
  }
};

TEST_F(QVBackupCommandTest, CopiesAGroupIntoANewVersionAtTheDefaultDestination) {
  runJSON({"group", "add", "Photos", makeFile("Bilder/Sommer Ä.jpg", std::string(300000, 'p')), makeFile("leer", "")});
  ProgramResult result = runProgram({"backup", "Photos"});
  ASSERT_EQ(result.status, 0) << result.err;

  const json versions = runJSON({"versions", "Photos", "--json"});
  ASSERT_EQ(versions.size(), 1u) << versions;
  EXPECT_EQ(versions[0]["partial"], false);
  const std::string name = versions[0]["name"], version = backups() + "/Photos/" + name;
  EXPECT_TRUE(result.out.starts_with("Photos: complete, 2 files, 293 KiB in ") &&
              result.out.ends_with(" s, version " + name + "\n"))
      << result.out;
  EXPECT_EQ(readFile(version + "/Sommer Ä.jpg"), std::string(300000, 'p'));
  EXPECT_TRUE(std::filesystem::exists(version + "/leer"));
  const json group = show("Photos");
  EXPECT_EQ(group["statusCode"], 0);
  EXPECT_TRUE(group["lastBackupDate"].is_string()) << group;
  EXPECT_EQ(group["lastBackupDate"], group["lastBackupAttemptDate"]);

  const json runs = runJSON({"log", "Photos", "--json"});
  ASSERT_EQ(runs.size(), 1u) << runs;
  EXPECT_EQ(versions[0]["groupID"], group["groupID"]);
  const json expected = {{"groupID", group["groupID"]},
                         {"groupTitle", "Photos"},
                         {"version", name},
                         {"outcome", "complete"},
                         {"statusCode", 0},
                         {"items", 2},
                         {"files", 2},
                         {"bytes", 300000},
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
    EXPECT_EQ(outcome["groupID"], show(outcome["groupTitle"])["groupID"]);
    EXPECT_LE(outcome["started"], outcome["ended"]);
    for (const char* key : {"groupID", "started", "ended"}) outcome.erase(key);
  }
  ASSERT_TRUE(outcomes[0].contains("version")) << outcomes;
  EXPECT_EQ(outcomes[0]["version"], versionsIn("Mixed").at(0));
  outcomes[0].erase("version");
  EXPECT_EQ(outcomes, json::parse(R"([
      {"groupTitle": "Mixed", "outcome": "complete with missing items", "statusCode": 0, "message": null, "items": 2,
       "files": 1, "bytes": 4, "leftOutCount": 0, "leftOut": [], "missingItems": [")" +
                                  lost + R"("], "failedItems": [],
       "versionsUnreadable": false, "passedOver": [], "notes": []},
      {"groupTitle": "Hollow", "outcome": "empty", "statusCode": null, "message": "the group is empty; nothing to back up",
       "version": null, "items": 0, "files": 0, "bytes": 0, "leftOutCount": 0, "leftOut": [], "missingItems": [],
       "failedItems": [], "versionsUnreadable": false, "passedOver": [], "notes": []}])"));
  EXPECT_NE(result.err.find("group \"Hollow\" is empty; nothing to back up"), std::string::npos) << result.err;
  result = runProgram({"backup", "Mixed"});
  EXPECT_TRUE(result.out.starts_with("Mixed: complete with missing items, 1 file, 4 bytes in ") &&
              result.out.ends_with(".backup\n  missing item: " + lost + "\n"))
      << result.out;

  // The destination's folder deleted: its message, once on each stream.
  runJSON({"group", "remove-items", "Mixed", lost});
  std::filesystem::remove_all(backups());
  const std::string message = "Backup destination directory not found. Check your Backup Preferences.";
  result = runProgram({"backup", "Mixed"});
  EXPECT_EQ(result.status, 1);
  EXPECT_EQ(result.out, "Mixed: failed (-120): " + message + " The destination folder \"" + backups() +
                            "\" does not exist (is its volume mounted?)\n");
  EXPECT_EQ(result.err, "") << "the outcome once, and no diagnostics";
  EXPECT_EQ(show("Mixed")["statusCode"], -120);

  // The destination removed.
  runJSON({"target", "remove", "My Mac", "--force"});
  result = runProgram({"backup", "Mixed"});
  EXPECT_EQ(result.status, 1);
  EXPECT_EQ(result.out, "Mixed: failed: no usable destination\n");
  EXPECT_NE(result.err.find("group \"Mixed\" has no usable destination"), std::string::npos) << result.err;
}

// The default destination lies inside the home folder: each version holds the home, never the versions before.
TEST_F(QVBackupCommandTest, NeverCopiesADestinationIntoItsOwnVersions) {
  makeFile("notes.txt", std::string(5000, 'n'));
  const ProgramResult added = runProgram({"group", "add", "Home", m_env.home()});
  EXPECT_NE(added.out.find("will be passed over (a backup destination or this program's own folder): " + backups()),
            std::string::npos)
      << added.out;
  const std::string passed = "  passed over (a backup destination or this program's own folder): " + backups() + "\n";
  for (int run = 0; run < 4; ++run) {
    const std::string out = runProgram({"backup", "Home"}).out;
    EXPECT_TRUE(out.starts_with("Home: complete, 1 file, 4.9 KiB in ") && out.ends_with(".backup\n" + passed)) << out;
  }
  const auto versions = versionsIn("Home");
  ASSERT_EQ(versions.size(), 3u);
  for (const auto& version : versions) {
    std::uintmax_t bytes = 0;
    for (const auto& entry : std::filesystem::recursive_directory_iterator(backups() + "/Home/" + version))
      bytes += entry.is_regular_file() ? entry.file_size() : 0;
    EXPECT_EQ(bytes, 5000u) << version;
  }
}

// On a terminal a bar rises until Ctrl-C, which cancels the run and exits with 130.
TEST_F(QVBackupCommandTest, DrawsARisingProgressBarUntilAnInterruptCancelsTheRun) {
  runJSON({"group", "add", "Big", makeFile("big.bin", "", 4ull << 30)});
  RunningProgram program({"backup", "Big"}, "", "", /*terminal=*/true);
  std::vector<int> percents;
  const auto readPercents = [&] {
    percents.clear();
    for (std::size_t at = program.out.find('%'); at != std::string::npos; at = program.out.find('%', at + 1))
      if (const std::size_t digits = program.out.find_last_not_of("0123456789", at - 1) + 1; digits < at)
        percents.push_back(std::stoi(program.out.substr(digits, at - digits)));
    return std::set<int>(percents.begin(), percents.end()).size() >= 2 &&  // progress arrives every 200 ms
           program.out.find(" left, " + m_env.home().substr(0, 10)) != std::string::npos;  // the item, cut to fit
  };
  ASSERT_TRUE(program.waitFor(readPercents, std::chrono::seconds(60))) << program.out;
  kill(program.pid, SIGINT);
  ProgramResult result = program.finish(std::chrono::seconds(60));
  EXPECT_EQ(result.status, 130) << result.out;
  readPercents();
  EXPECT_TRUE(std::is_sorted(percents.begin(), percents.end())) << result.out;
  EXPECT_TRUE(result.out.ends_with("\033[J\033[33mBig: cancelled\033[0m\r\n")) << "the bar erased for the outcome:\n"
                                                                               << result.out;

  // The version it leaves is partial, until a complete one stands.
  const std::string partial = versionsIn("Big").at(0);
  EXPECT_TRUE(partial.ends_with(".partial")) << partial;
  EXPECT_EQ(runProgram({"versions", "Big"}).out, partial + "  (partial)\n");
  EXPECT_EQ(
      json({runJSON({"versions", "Big", "--json"})[0]["name"], runJSON({"versions", "Big", "--json"})[0]["partial"]}),
      json({partial, true}));
  std::filesystem::resize_file(m_env.home() + "/big.bin", 1000);
  std::this_thread::sleep_for(std::chrono::milliseconds(1100));  // versions are named by the second
  ASSERT_EQ(runProgram({"backup", "Big"}).status, 0);
  ASSERT_EQ(versionsIn("Big").size(), 1u);
  const std::string complete = versionsIn("Big").at(0);
  const json runs = runJSON({"log", "Big", "--json"});
  EXPECT_EQ(json({runs[0]["version"], runs[1]["outcome"], runs[1]["statusCode"], runs[1]["version"]}),
            json({complete, "cancelled", -128, partial}))
      << runs;
}

// Three runs cancelled after the last complete one: restore and verify pass them over, and the next complete run
// keeps the three newest complete versions and no partial one.
TEST_F(QVBackupCommandTest, KeepsCompleteVersionsWhateverRunsAreCancelled) {
  runJSON({"group", "add", "Big", makeFile("a.txt"), makeFile("big.bin")});
  std::vector<std::string> complete;
  const auto completeRun = [&](const std::string& text) {
    makeFile("a.txt", text);
    std::filesystem::resize_file(m_env.home() + "/big.bin", 10);
    ASSERT_EQ(runProgram({"backup", "Big"}).status, 0);
    complete.push_back(runJSON({"log", "Big", "--json"})[0]["version"]);
  };
  for (const char* text : {"one", "two", "three"}) completeRun(text);
  std::filesystem::resize_file(m_env.home() + "/big.bin", 4ull << 30);
  for (int run = 0; run < 3; ++run) {
    const std::size_t before = versionsIn("Big").size();
    RunningProgram program({"backup", "Big"});
    ASSERT_TRUE(program.waitFor(
        [&] {
          const auto names = versionsIn("Big");
          return names.size() > before && std::filesystem::exists(backups() + "/Big/" + names.back() + "/big.bin");
        },
        std::chrono::seconds(60)));
    kill(program.pid, SIGINT);
    ASSERT_EQ(program.finish().status, 130) << program.out;
  }
  const auto names = versionsIn("Big");
  ASSERT_EQ(names.size(), 6u);
  for (std::size_t i = 3; i < 6; ++i) EXPECT_TRUE(names[i].ends_with(".partial")) << names[i];
  EXPECT_NE(runProgram({"versions", "Big"}).out.find(names[5] + "  (partial)\n"), std::string::npos);

  TemporaryDirectory scratch;
  ProgramResult result = runProgram({"restore", "Big", "--to", scratch / "newest"});
  EXPECT_EQ(result.status, 0) << result.err;
  EXPECT_EQ(readFile(scratch / "newest/a.txt"), "three");
  EXPECT_NE(runProgram({"verify", "Big"}).out.find("of version " + complete[2]), std::string::npos);
  result = runProgram({"restore", "Big", "--version", names[5].substr(0, 14), "--to", scratch / "partial", "a.txt"});
  EXPECT_EQ(result.status, 0) << result.err;
  EXPECT_NE(result.err.find("warning: version " + names[5] + " is partial"), std::string::npos) << result.err;
  result = runProgram({"restore", "Big", "--version", complete[0].substr(0, 8), "--to", scratch / "x"});
  EXPECT_EQ(result.status, 2) << "a beginning that more than one version has";
  EXPECT_FALSE(std::filesystem::exists(scratch / "x"));
  result = runProgram({"restore", "Big", "--version", "latest", "--to", scratch / "latest"});
  EXPECT_EQ(readFile(scratch / "latest/a.txt"), "three") << result.err;

  completeRun("four");
  EXPECT_EQ(versionsIn("Big"), std::vector<std::string>(complete.begin() + 1, complete.end()));
}

// Without a daemon no schedule starts, and says so; a backup in another process keeps no reader waiting.
TEST_F(QVBackupCommandTest, SaysWhenNoDaemonRunsAndAnswersWhileAnotherProcessBacksUp) {
  runJSON({"group", "add", "Big", makeFile("big.bin", "", 4ull << 30)});
  runJSON({"group", "set", "Big", "--schedule", "daily@03:00"});
  for (const char* command : {"status", "group list", "group show Big"})
    EXPECT_NE(runProgram(split(command)).out.find("No daemon is running, so scheduled backups will not start"),
              std::string::npos)
        << command;
  RunningProgram backup({"backup", "Big"});
  ASSERT_TRUE(backup.waitFor([&] { return copying("Big", "big.bin"); }, std::chrono::seconds(60)));
  const auto asked = std::chrono::steady_clock::now();
  const ProgramResult status = runProgram({"status"});
  EXPECT_LT(std::chrono::steady_clock::now() - asked, std::chrono::seconds(1));
  EXPECT_EQ(status.status, 0) << status.err;
  EXPECT_NE(status.err.find("(stellwin-backup backup Big) is at work"), std::string::npos) << status.err;
  EXPECT_NE(status.out.find("No daemon is running"), std::string::npos) << status.out;
  kill(backup.pid, SIGINT);
  EXPECT_EQ(backup.finish().status, 130);
}

// Twelve files nobody may read, a pipe, one file that is read, and a folder of links only: the run completes, and
// says which files are not in the version.
TEST_F(QVBackupCommandTest, NamesTheFilesItCouldNotReadAndLeftOut) {
  std::set<std::string> leftOut = {m_env.home() + "/Links/hostname"};
  std::filesystem::create_directories(m_env.home() + "/Links");
  std::filesystem::create_symlink("/etc/hostname", *leftOut.begin());
  for (int i = 0; i < 12; ++i) {
    const std::string secret = *leftOut.insert(makeFile("Docs/secret " + std::to_string(i) + ".txt")).first;
    std::filesystem::permissions(secret, std::filesystem::perms::none);
  }
  makeFile("Docs/open.txt", "open");
  ASSERT_EQ(mkfifo(leftOut.insert(m_env.home() + "/Docs/pipe").first->c_str(), 0666), 0);  // a special file
  // An item that fails on its own is named too: the run completes without it.
  const std::string alone = makeFile("Alone.txt");
  std::filesystem::permissions(alone, std::filesystem::perms::none);
  runJSON({"group", "add", "Docs", m_env.home() + "/Docs", m_env.home() + "/Links", alone});

  ProgramResult result = runProgramAsUser({"backup", "Docs"}, m_env.root());
  std::vector<std::string> shown;
  for (std::istringstream lines(result.out); std::getline(lines, shown.emplace_back());) continue;
  ASSERT_EQ(shown.size(), 15u) << result.out << result.err;  // the last one empty
  EXPECT_EQ(std::vector(shown.begin(), shown.begin() + 3),
            (std::vector<std::string>{
                "Docs: complete, 1 file, 4 bytes in " + shown[0].substr(shown[0].find(" in ") + 4),
                "  not backed up: " + alone + " (You don't have enough permissions to access file Alone.txt)",
                "  14 files could not be read and were left out"}));
  for (std::size_t i = 3; i < 13; ++i)
    EXPECT_TRUE(leftOut.count(shown[i].substr(4)) && shown[i].starts_with("    ")) << shown[i];
  EXPECT_EQ(shown[13], "    and 4 more (see --json)");
  EXPECT_EQ(readFile(backups() + "/Docs/" + versionsIn("Docs").at(0) + "/Docs/open.txt"), "open");

  std::this_thread::sleep_for(std::chrono::milliseconds(1100));
  const json outcome = json::parse(runProgramAsUser({"backup", "Docs", "--json"}, m_env.root()).out, nullptr, false)[0];
  EXPECT_EQ(std::pair(outcome["outcome"], outcome["leftOut"].get<std::set<std::string>>()),
            std::pair(json("complete"), leftOut));
  EXPECT_EQ(outcome["failedItems"].size(), 1u) << outcome;
  EXPECT_EQ(runJSON({"log", "Docs", "--json"})[0]["leftOutCount"], 14);
}

// Three older versions stand at the destination; what a run keeps depends on the stored "versions".
TEST_F(QVBackupCommandTest, KeepsEveryVersionWhenTheStoredCountCannotBeRead) {
  const std::vector<std::pair<json, std::size_t>> cases = {
      {"five", 4},         {-1, 4}, {json(18446744073709551615ull), 4},
      {json::object(), 4}, {2, 2},  {2.9, 2},  // a fraction reads as its whole part
      {nullptr, 0}};  // null: no "versions" at all, which removes every version, the new one too
  std::vector<std::string> titles;
  for (std::size_t i = 0; i < cases.size(); ++i) {
    titles.push_back("G" + std::to_string(i));
    runJSON({"group", "add", titles.back(), makeFile("file" + std::to_string(i))});
    for (const char* old : {"20200101000001.backup", "20200101000002.backup", "20200101000003.backup"})
      std::filesystem::create_directories(backups() + "/" + titles.back() + "/" + old);
    editStoredGroup(titles.back(), [&](json& group) {
      if (cases[i].first.is_null())
        group.erase("versions");
      else
        group["versions"] = cases[i].first;
    });
  }
  std::vector<std::string> arguments = {"backup", "--json", "--verbose"};  // the agent's log line too
  arguments.insert(arguments.end(), titles.begin(), titles.end());
  arguments.push_back("--verbose");  // the agent's log lines too
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

  EXPECT_NE(runProgram({"backup", "G0"}).out.find(".backup\n  the group's stored \"versions\" cannot be read"),
            std::string::npos);
  EXPECT_NE(runProgram({"group", "show", "G0"}).out.find("Versions kept:  cannot be read"), std::string::npos);
}

// Groups whose stored titles would write outside their own folder are not run; nothing is written.
TEST_F(QVBackupCommandTest, RefusesToRunAGroupWhoseTitleIsNotAFolderOfItsOwn) {
  for (const char* title : {"Up", "Twin", "Other"}) runJSON({"group", "add", title, makeFile(title)});
  editStoredGroup("Up", [](json& group) { group["title"] = ".."; });
  editStoredGroup("Other", [](json& group) { group["title"] = "Twin"; });
  const std::string before = readFile(m_env.preferencesPath());
  for (const auto& group : runJSON({"group", "list", "--json"})) {
    ProgramResult result = runProgram({"backup", group["groupID"]});
    EXPECT_EQ(result.status, 2) << group;
    EXPECT_NE(result.err.find(group["groupTitle"] == ".." ? "cannot be \".\" or \"..\"" : "has the same title"),
              std::string::npos);
    EXPECT_EQ(readFile(m_env.preferencesPath()), before);
  }
  EXPECT_EQ(std::distance(std::filesystem::recursive_directory_iterator(m_env.home() + "/Documents"), {}), 1);
}

// Told apart from a group never backed up ("no versions", status 0).
TEST_F(QVBackupCommandTest, TellsWhyTheVersionsCouldNotBeListed) {
  runJSON({"group", "add", "Notes", makeFile("n.txt")});
  const auto expectFailedListing = [&](const std::string& text) {
    ProgramResult result = runProgramAsUser({"versions", "Notes"}, m_env.root());
    EXPECT_EQ(result.status, 1) << text;
    EXPECT_NE(result.err.find(text), std::string::npos) << result.err;
  };
  std::filesystem::create_directories(backups() + "/Notes");
  std::filesystem::permissions(backups() + "/Notes", std::filesystem::perms::none);
  expectFailedListing("the folder \"" + backups() + "/Notes\" could not be read");
  std::filesystem::permissions(backups() + "/Notes", std::filesystem::perms::owner_all);
  std::filesystem::remove_all(backups());
  expectFailedListing("does not exist");
  // A server that is closed: nothing listens on port 1.
  runJSON({"target", "add", "--type", "dav", "--title", "NAS", "--server", "127.0.0.1", "--port", "1", "--path", "/"});
  runJSON({"group", "set", "Notes", "--target", "NAS"});
  expectFailedListing("could not be listed");
}

// A damaged journal costs its damaged lines; a full one rotates; one that cannot be written costs a
// warning. None of them stops a backup.
TEST_F(QVBackupCommandTest, KeepsBackingUpWhateverBecomesOfTheJournal) {
  runJSON({"group", "add", "Notes", makeFile("n.txt")});
  const std::string old = R"({"group": ")" + show("Notes")["groupID"].get<std::string>() +
                          R"(", "outcome": "failed", "statusCode": -36, "ended": "2020-01-01T00:00:00.000Z"})";
  const std::string journal = m_env.journalPath();
  for (const auto& [text, rotated] : {std::pair("not json\n{\"group\": 3}\n" + old + "\n\x01\n{\"truncated\": ", false),
                                      std::pair(old + "\n" + std::string(1u << 20, 'x') + "\n", true)}) {
    std::filesystem::remove_all(m_env.root() + "/state");
    writeFile(journal, text);
    std::this_thread::sleep_for(std::chrono::milliseconds(1100));
    EXPECT_EQ(runProgram({"backup", "Notes"}).status, 0);
    const json runs = runJSON({"log", "Notes", "--json"});  // newest first
    ASSERT_EQ(runs.size(), 2u) << runs;
    EXPECT_EQ(json({runs[0]["outcome"], runs[1]["statusCode"]}), json({"complete", -36}));
    EXPECT_EQ(std::pair(std::filesystem::exists(journal + ".1"), std::filesystem::file_size(journal) < 4096),
              std::pair(rotated, true));
    EXPECT_EQ(std::filesystem::status(journal).permissions(), std::filesystem::perms(0600));
    EXPECT_EQ(std::filesystem::status(m_env.root() + "/state/stellwin").permissions(), std::filesystem::perms(0700));
  }
  std::filesystem::remove_all(m_env.root() + "/state");
  writeFile(m_env.root() + "/state/stellwin", "a file where the journal's folder belongs");
  ProgramResult result = runProgram({"backup", "Notes"});
  EXPECT_EQ(result.status, 0);
  EXPECT_TRUE(result.out.starts_with("Notes: complete, 1 file, ")) << result.out;
  EXPECT_NE(result.err.find("warning: the run was not recorded in the journal"), std::string::npos) << result.err;
}

}  // namespace
