// The group, target, versions and menu commands end to end, as a new user would run them.
#include <iterator>
#include <regex>
#include <sstream>
#include <tuple>

#include "host/QVProgramRunner.h"

using nlohmann::json;
using namespace qvtest;
using Arguments = std::vector<std::string>;

namespace {

class QVCommandLineTest : public HostTest {
 protected:
  json byTitle(const std::string& command, const std::string& title) {
    const char* key = command == "group" ? "groupTitle" : "title";
    for (const auto& record : runJSON({command, "list", "--json"}))
      if (record[key] == title) return record;
    return nullptr;
  }
  static Arguments split(const std::string& command) {
    std::istringstream words(command);
    return {std::istream_iterator<std::string>(words), {}};
  }
  static void expectFields(const json& record, const json& fields) {
    for (auto [key, value] : fields.items()) EXPECT_EQ(record.value(key, json()), value) << key << ": " << record;
  }
  std::string keychain() const { return readFile(m_env.configDirectory() + "/keychain.json"); }
};

TEST_F(QVCommandLineTest, KeepsTheFirstDestinationAndMovesTheDefaultMark) {
  ProgramResult summary = runProgram({});
  EXPECT_TRUE(summary.out.find("My Mac") != std::string::npos && summary.err.empty()) << summary.out << summary.err;
  const json mac = byTitle("target", "My Mac");
  EXPECT_EQ(byTitle("target", "My Mac"), mac) << "made once, not on every run";
  expectFields(mac, {{"type", "local"}, {"isDefault", true}, {"path", backups()}});

  runJSON(split("target add --type local --title USB --default --path " + m_env.root()));
  EXPECT_EQ(byTitle("target", "My Mac")["isDefault"], false);
  runJSON({"group", "add", "Docs", makeFile("notes.txt")});
  EXPECT_EQ(byTitle("group", "Docs")["target"], byTitle("target", "USB")["id"]) << "new groups go to the default";
  runJSON({"target", "set", "My Mac", "--default"});
  EXPECT_EQ(byTitle("target", "USB")["isDefault"], false);
  EXPECT_EQ(byTitle("target", "My Mac")["isDefault"], true);
  runJSON({"target", "remove", "My Mac", "--force"});
  EXPECT_EQ(runJSON({"target", "list", "--json"}).size(), 1u);
}

// A destination that groups use goes only with its groups moved, or with --force; a second one at the same
// folder is refused.
TEST_F(QVCommandLineTest, NeverLeavesGroupsWithoutTheirDestinationUnasked) {
  runJSON({"group", "add", "Docs", makeFile("n.txt")});
  const std::string before = readFile(m_env.preferencesPath());
  ProgramResult result = runProgram({"target", "remove", "My Mac"});
  EXPECT_EQ(result.status, 2);
  EXPECT_NE(result.err.find("the group \"Docs\" backs up to \"My Mac\"; move it with --groups-to"), std::string::npos)
      << result.err;
  result = runProgram({"target", "add", "--type", "local", "--title", "Again", "--path", backups() + "/"});
  EXPECT_EQ(result.status, 2);
  EXPECT_NE(result.err.find("\"My Mac\""), std::string::npos) << result.err;
  EXPECT_EQ(readFile(m_env.preferencesPath()), before);

  runJSON(split("target add --type local --title USB --path " + m_env.root()));
  EXPECT_EQ(runProgram({"target", "remove", "My Mac", "--groups-to", "Nope"}).status, 2);
  result = runProgram({"target", "remove", "My Mac", "--groups-to", "USB"});
  EXPECT_EQ(result.status, 0) << result.err;
  EXPECT_EQ(byTitle("group", "Docs")["target"], byTitle("target", "USB")["id"]);
  EXPECT_EQ(runProgram(split("target remove USB")).status, 2);
  EXPECT_EQ(runProgram(split("target remove USB --force")).status, 0);
}

TEST_F(QVCommandLineTest, OffersWhatAOneLetterTypoMeant) {
  runJSON({"group", "add", "Photos", makeFile("p.jpg")});
  for (const auto& [arguments, hint] : std::vector<std::pair<Arguments, std::string>>{
           {{"bakup", "Photos"}, "unknown command \"bakup\" (did you mean \"backup\"?)"},
           {{"group", "shwo", "Photos"}, "(did you mean \"show\"?)"},
           {{"group", "show", "Photo"}, "unknown group \"Photo\" (did you mean \"Photos\"?)"},
           {{"destination", "remove", "My Ma"}, "(did you mean \"My Mac\"?)"},
           {{"menu", "Photos", "Backup Nwo"}, "(did you mean \"Backup Now\"?)"}}) {
    const ProgramResult result = runProgram(arguments);
    EXPECT_EQ(result.status, 2) << hint;
    EXPECT_NE(result.err.find(hint), std::string::npos) << result.err;
  }
  EXPECT_EQ(runJSON({"group", "show", "pHOTOS", "--json"})["groupTitle"], "Photos");
  EXPECT_EQ(runJSON({"destination", "list", "--json"}), runJSON({"target", "list", "--json"}));
}

TEST_F(QVCommandLineTest, AddsShowsChangesAndRemovesGroups) {
  const std::string notes = makeFile("notes.txt"), photos = makeFile("Bilder/Ürlaub 2024/strand.jpg");
  // Stored absolute and normal; a missing item is left out with a warning.
  ProgramResult added =
      runProgram({"group", "add", "Trip", "Bilder/./Ürlaub 2024/", "notes.txt", "gone.txt"}, "", m_env.home());
  ASSERT_EQ(added.status, 0) << added.err;
  EXPECT_EQ(added.err, "stellwin-backup: warning: \"" + m_env.home() + "/gone.txt\" does not exist; not added\n");
  expectFields(runJSON(split("group show Trip --json")), {{"items", {photos.substr(0, photos.rfind('/')), notes}},
                                                          {"versions", 3},
                                                          {"statusCode", 0},
                                                          {"schedule", {{"period", "manual"}}},
                                                          {"lastBackupDate", nullptr},
                                                          {"target", byTitle("target", "My Mac")["id"]}});
  EXPECT_EQ(runProgram({"group", "add", "Ghosts", m_env.home() + "/gone.txt"}).status, 1) << "nothing to add";

  runJSON(split("group set Trip --versions 0 --yes --schedule daily@09:30 --title Memories"));
  const json group = byTitle("group", "Memories");
  expectFields(group, {{"versions", 0}, {"schedule", {{"period", "daily"}, {"hour", 9}, {"minute", 30}}}});
  EXPECT_TRUE(group["nextRun"].is_string()) << group;
  EXPECT_NE(runProgram(split("group list")).out.find("daily@09:30"), std::string::npos);
  EXPECT_NE(runProgram(split("group show Memories")).out.find(notes), std::string::npos);
  EXPECT_EQ(runJSON(split("versions Memories --json")), json::array());
  EXPECT_EQ(runProgram(split("versions Memories")).out, "no versions\n");
  const std::string menu = runProgram({"menu"}).out;  // "Cancel backup" hidden while idle
  EXPECT_TRUE(menu.find("Memories") != std::string::npos && menu.find("Cancel backup") == std::string::npos) << menu;

  runJSON({"group", "remove-items", "Memories", notes});
  EXPECT_EQ(byTitle("group", "Memories")["items"].size(), 1u);
  runJSON(split("group remove Memories"));
  EXPECT_EQ(runJSON(split("group list --json")), json::array());
}

// An entry is chosen by what it does, named in English or in the user's language: "Backup Now" in German
// still waits for a version name of its own, so two clicks within one second make two versions.
TEST_F(QVCommandLineTest, ChoosesMenuEntriesByTheirEnglishOrTranslatedTitle) {
  runJSON({"group", "add", "Notes", makeFile("notes.txt")});
  setenv("LANGUAGE", "de", 1);
  setenv("LC_ALL", "C.UTF-8", 1);
  const ProgramResult german = runProgram({"menu", "Notes", "Jetzt sichern"});
  const ProgramResult english = runProgram({"menu", "Notes", "backup now"});
  unsetenv("LANGUAGE");
  unsetenv("LC_ALL");
  EXPECT_EQ(german.status, 0) << german.err;
  EXPECT_EQ(english.status, 0) << english.err;
  EXPECT_EQ(english.out.substr(0, english.out.find('\n')), "chose \"Jetzt sichern\" for group \"Notes\"");
  EXPECT_EQ(runJSON({"versions", "Notes", "--json"}).size(), 2u);
}

// Each refusal: status 2, one line that says why, no password kept or shown, and the preferences byte for
// byte as they were. Then the edges that pass.
TEST_F(QVCommandLineTest, RefusesBadInputWithOneLineAndAcceptsTheEdges) {
  const std::string file = makeFile("f.txt");
  for (const char* title : {"Photos", "Twin", "Other", "A", "B"}) runJSON({"group", "add", title, file});
  editStoredGroup("Other", [](json& group) { group["title"] = "Twin"; });  // as older versions allowed
  runJSON({"target", "add", "--type", "local", "--title", "USB", "--path", m_env.root()});
  const std::string before = readFile(m_env.preferencesPath());
  const std::string ftp = "target add --type ftp --title X --path /x --server h --user bob --password-stdin --port ";
  std::vector<std::pair<Arguments, std::string>> cases;
  for (const auto& [command, message] : std::vector<std::pair<std::string, std::string>>{
           {"group show Nope", "unknown group \"Nope\""},
           {"backup Photos Nope", "unknown group"},
           {"backup", "GROUP is required"},
           {"group set Photos --target Nope", "unknown destination \"Nope\""},
           {"target add --type smb --title X --path /x --server h", "unknown destination type \"smb\""},
           {"group set Photos --versions -1", "from 1 to 100000"},
           {"group set B --versions 0", "give --yes"},
           {"group set B --versions 3.5", "from 1 to 100000"},
           {"group set B --versions 100001", "from 1 to 100000"},
           {"group set B --versions 18446744073709551616", "from 1 to 100000"},
           {ftp + "0", "from 1 to 65535"},
           {ftp + "70000", "from 1 to 65535"},
           {"target add --title X --path /x", "--type is required"},
           {"target add --type dav --title X --path /x", "--server is required"},
           {"group set Twin --versions 2", "2 groups are titled \"Twin\""},
           {"group set Photos --schedule fortnightly", "invalid schedule"},
           {"group remove-items Photos /not/an/item", "not an item"},
           {"no-such-command", "unknown command"},
           {"group set B --title A", "a group titled \"A\" exists already"},
           {"group set B --title .", "cannot be \".\" or \"..\""},
           {"target add --type local --title USB --path /x", "titled \"USB\" exists already"}})
    cases.emplace_back(split(command), message);
  // Titles that could not name a folder of their own, or no file at all.
  const std::string wide = [] {
    std::string s;
    for (int i = 0; i < 128; ++i) s += "ä";
    return s;
  }();
  for (const auto& [title, message] :
       std::vector<std::pair<std::string, std::string>>{{"", "must not be empty"},
                                                        {"..", "cannot be \".\" or \"..\""},
                                                        {"x/y", "cannot hold \"/\""},
                                                        {"line\nfeed", "control characters"},
                                                        {"c1\xC2\x85", "control characters"},
                                                        {"bad\xFF", "valid UTF-8"},
                                                        {wide, "at most 255 bytes"}})  // 256 bytes, 128 characters
    cases.push_back(
        {title.empty() ? Arguments{"group", "set", "B", "--title", ""} : Arguments{"group", "add", title, file},
         message});
  cases.push_back({{"target", "set", "USB", "--title", "My Mac"}, "titled \"My Mac\" exists already"});
  for (const auto& [arguments, message] : cases) {
    ProgramResult result = runProgram(arguments, "hunter2\n");  // a password none may keep or show
    EXPECT_EQ(result.status, 2) << message;
    EXPECT_TRUE(result.err.starts_with("stellwin-backup: ") && result.err.find('\n') == result.err.size() - 1 &&
                result.err.find(message) != std::string::npos)
        << message << "\n"
        << result.err;
    EXPECT_EQ((result.out + result.err + keychain()).find("hunter2"), std::string::npos);
    EXPECT_EQ(readFile(m_env.preferencesPath()), before) << message;
  }
  // The ambiguous title names the candidates.
  const std::string twin = runProgram({"group", "show", "Twin"}).err;
  for (const auto& group : runJSON({"group", "list", "--json"}))
    EXPECT_EQ(twin.find(group["groupID"].get<std::string>()) != std::string::npos, group["groupTitle"] == "Twin")
        << twin;

  // The edges that pass: 1 and 100000 versions, 0 with --yes and its warning, 255 bytes, a case that
  // differs, dots inside a title, and a title kept as it is.
  const std::string longest = wide.substr(0, 254) + "x";
  for (const auto& [arguments, warning] : std::vector<std::pair<Arguments, std::string>>{
           {{"group", "set", "B", "--versions", "1"}, ""},
           {{"group", "set", "B", "--versions", "100000"}, ""},
           {{"group", "set", "B", "--versions", "0", "--yes"}, "every backup of group \"B\" is removed"},
           {{"group", "set", "B", "--title", longest}, "folder named after the old title"},
           {{"group", "set", longest, "--title", "a"}, "folder named after the old title"},
           {{"group", "set", "a", "--title", "...Ünïcode v1.2"}, "folder named after the old title"},
           {{"group", "set", "A", "--title", "A"}, ""},
           {{"target", "set", "USB", "--title", "usb"}, ""}}) {
    ProgramResult result = runProgram(arguments);
    EXPECT_EQ(result.status, 0) << arguments[3] << " " << arguments[4] << "\n" << result.err;
    if (warning.empty())
      EXPECT_EQ(result.err, "");
    else
      EXPECT_TRUE(result.err.find("warning: ") != std::string::npos && result.err.find(warning) != std::string::npos)
          << result.err;
  }
  EXPECT_EQ(runJSON({"group", "show", "...Ünïcode v1.2", "--json"})["versions"], 0);
}

// With --json a failure is a JSON object on standard output as well; a table shows identifiers only when
// asked, dates that read the same everywhere under the C locale, and the group that ran last first.
TEST_F(QVCommandLineTest, AnswersInJSONWhenItFailsAndKeepsTablesPlain) {
  const char* locale = std::getenv("LC_ALL");
  const std::optional<std::string> saved = locale ? std::optional<std::string>(locale) : std::nullopt;
  setenv("LC_ALL", "C", 1);
  runJSON({"group", "add", "Older", makeFile("o.txt")});
  runJSON({"group", "add", "Newer", makeFile("n.txt")});
  ASSERT_EQ(runProgram({"backup", "Newer"}).status, 0);
  const ProgramResult status = runProgram({"status"}), ids = runProgram({"status", "--ids"});
  EXPECT_LT(status.out.find("Newer"), status.out.find("Older")) << status.out;
  EXPECT_TRUE(std::regex_search(status.out, std::regex("Newer +idle +\\d{4}-\\d\\d-\\d\\d \\d\\d:\\d\\d  ")))
      << status.out;
  const std::string id = byTitle("group", "Newer")["groupID"];
  EXPECT_EQ(std::pair(status.out.find(id), ids.out.find(id) != std::string::npos), std::pair(std::string::npos, true));
  EXPECT_EQ(runProgram({"group", "list"}).out.find(id), std::string::npos);
  EXPECT_NE(runProgram({"group", "list", "--ids"}).out.find(id), std::string::npos);

  runJSON({"target", "remove", "My Mac", "--force"});
  for (const auto& [command, exitStatus, message] : std::vector<std::tuple<std::string, int, std::string>>{
           {"group show Nope --json", 2, "unknown group"},
           {"log --json --bogus", 2, "--bogus"},
           {"versions Newer --json", 1, "has no usable destination"}}) {
    const ProgramResult result = runProgram(split(command));
    const json error = json::parse(result.out, nullptr, false);
    EXPECT_EQ(std::pair(result.status, error.value("exitStatus", 0)), std::pair(exitStatus, exitStatus)) << command;
    EXPECT_NE(error.value("error", std::string()).find(message), std::string::npos) << command << ": " << result.out;
  }
  if (saved)
    setenv("LC_ALL", saved->c_str(), 1);
  else
    unsetenv("LC_ALL");
}

}  // namespace
