// stellwin-backup's group, target and versions commands, run end to end as a new user would, each test
// with its own home, preferences and keychain.
#include <gtest/gtest.h>

#include <filesystem>
#include <nlohmann/json.hpp>

#include "host/QVProgramRunner.h"
#include "support/QVTestSupport.h"

namespace fs = std::filesystem;
using nlohmann::json;
using qvtest::ProgramResult;
using qvtest::runProgram;

namespace {

class QVCommandLineTest : public ::testing::Test {
 protected:
  qvtest::IsolatedEnvironment m_env;

  ProgramResult run(const std::vector<std::string>& arguments, const std::string& input = "",
                    const std::string& workingDirectory = "") {
    return runProgram(arguments, input, workingDirectory);
  }

  // Runs a command that must succeed, and returns its standard output parsed as JSON.
  json runJSON(const std::vector<std::string>& arguments) {
    ProgramResult result = run(arguments);
    EXPECT_EQ(result.status, 0) << result.err;
    json parsed = json::parse(result.out, nullptr, false);
    EXPECT_FALSE(parsed.is_discarded()) << result.out;
    return parsed;
  }

  std::string preferences() const { return qvtest::readFile(m_env.preferencesPath()); }
  std::string keychain() const { return qvtest::readFile(m_env.configDirectory() + "/keychain.json"); }

  // A file under the home folder, with its folders.
  std::string makeFile(const std::string& relative, const std::string& text = "content") {
    const std::string path = m_env.home() + "/" + relative;
    qvtest::writeFile(path, text);
    return path;
  }

  static const json* findByTitle(const json& records, const std::string& title) {
    for (const auto& record : records)
      if (record.value("title", "") == title) return &record;
    return nullptr;
  }
};

TEST_F(QVCommandLineTest, FirstRunShowsAndKeepsTheDefaultDestination) {
  ProgramResult summary = run({});
  ASSERT_EQ(summary.status, 0) << summary.err;
  EXPECT_NE(summary.out.find("My Mac"), std::string::npos) << summary.out;
  EXPECT_TRUE(summary.err.empty()) << summary.err;

  // Later runs must find the very same destination, not make a new one each time.
  json first = runJSON({"target", "list", "--json"});
  json second = runJSON({"target", "list", "--json"});
  ASSERT_EQ(first.size(), 1u);
  ASSERT_EQ(second.size(), 1u);
  EXPECT_EQ(first[0]["id"], second[0]["id"]);
  EXPECT_EQ(first[0]["type"], "local");
  EXPECT_EQ(first[0]["isDefault"], true);
  EXPECT_EQ(first[0]["path"], m_env.home() + "/Documents/Stellwin Backups");
  EXPECT_NE(preferences().find(first[0]["id"].get<std::string>()), std::string::npos);
}

TEST_F(QVCommandLineTest, KeepsThePasswordOutOfThePreferencesAndEveryOutput) {
  const std::string password = "s3cret Pässwörd;\"'";
  std::vector<ProgramResult> results;
  results.push_back(run({"target", "add", "--type", "dav", "--title", "Home NAS", "--path", "/backups", "--server",
                         "nas.example.org", "--port", "8443", "--user", "alice", "--password-stdin"},
                        password + "\n"));
  ASSERT_EQ(results.back().status, 0) << results.back().err;
  results.push_back(run({"target", "list"}));
  results.push_back(run({"target", "list", "--json"}));
  results.push_back(run({}));

  json targets = json::parse(results[2].out);
  const json* nas = findByTitle(targets, "Home NAS");
  ASSERT_NE(nas, nullptr) << results[2].out;
  EXPECT_EQ((*nas)["user"], "alice");
  EXPECT_EQ((*nas)["server"], "nas.example.org");
  EXPECT_EQ((*nas)["port"], 8443);
  EXPECT_EQ((*nas)["type"], "dav");
  EXPECT_FALSE(nas->contains("pass"));
  EXPECT_FALSE(nas->contains("password"));

  // The keychain holds it; nothing else does.
  EXPECT_NE(keychain().find("s3cret"), std::string::npos);
  EXPECT_EQ(preferences().find("s3cret"), std::string::npos);
  for (const auto& result : results) {
    EXPECT_EQ(result.out.find("s3cret"), std::string::npos) << result.out;
    EXPECT_EQ(result.err.find("s3cret"), std::string::npos) << result.err;
  }

  // Changing other fields keeps the stored password; a new one from stdin replaces it.
  ASSERT_EQ(run({"target", "set", "Home NAS", "--type", "ftp", "--port", "2121"}).status, 0);
  EXPECT_NE(keychain().find("s3cret"), std::string::npos);
  ProgramResult renewed = run({"target", "set", "Home NAS", "--password-stdin"}, "other-secret\r\n");
  ASSERT_EQ(renewed.status, 0) << renewed.err;
  EXPECT_EQ(keychain().find("s3cret"), std::string::npos);
  EXPECT_NE(keychain().find("\"other-secret\""), std::string::npos) << "the line ending is not part of it";
  json changed = *findByTitle(runJSON({"target", "list", "--json"}), "Home NAS");
  EXPECT_EQ(changed["type"], "ftp");
  EXPECT_EQ(changed["port"], 2121);
  EXPECT_EQ(changed["user"], "alice");
}

TEST_F(QVCommandLineTest, MovesTheDefaultMarkToTheChosenDestination) {
  ASSERT_EQ(run({"target", "add", "--type", "local", "--title", "USB disk", "--path", m_env.root(), "--default"}).status, 0);
  json targets = runJSON({"target", "list", "--json"});
  ASSERT_EQ(targets.size(), 2u);
  EXPECT_EQ((*findByTitle(targets, "USB disk"))["isDefault"], true);
  EXPECT_EQ((*findByTitle(targets, "My Mac"))["isDefault"], false);

  // A new group goes to the new default.
  ASSERT_EQ(run({"group", "add", "Docs", makeFile("notes.txt")}).status, 0);
  json groups = runJSON({"group", "list", "--json"});
  EXPECT_EQ(groups[0]["target"], (*findByTitle(targets, "USB disk"))["id"]);

  ASSERT_EQ(run({"target", "set", "My Mac", "--default"}).status, 0);
  targets = runJSON({"target", "list", "--json"});
  EXPECT_EQ((*findByTitle(targets, "USB disk"))["isDefault"], false);
  EXPECT_EQ((*findByTitle(targets, "My Mac"))["isDefault"], true);

  ProgramResult removed = run({"target", "remove", "My Mac"});
  ASSERT_EQ(removed.status, 0) << removed.err;
  EXPECT_EQ(runJSON({"target", "list", "--json"}).size(), 1u);
}

TEST_F(QVCommandLineTest, AddsChangesAndRemovesGroupsAndTheirItems) {
  const std::string photo = makeFile("Bilder/Ürlaub 2024/strand.jpg");
  const std::string notes = makeFile("notes.txt");
  const std::string missing = m_env.home() + "/gone.txt";

  // Paths relative to the working folder are stored absolute and normal, without a trailing slash.
  ProgramResult added = run({"group", "add", "Fotos & Notes", "Bilder/./Ürlaub 2024/", "notes.txt", "gone.txt"}, "",
                            m_env.home());
  ASSERT_EQ(added.status, 0) << added.err;
  ASSERT_EQ(added.errLines().size(), 1u) << added.err;
  EXPECT_NE(added.err.find("\"" + missing + "\" does not exist; not added"), std::string::npos) << added.err;

  json group = runJSON({"group", "show", "Fotos & Notes", "--json"});
  EXPECT_EQ(group["items"], json({m_env.home() + "/Bilder/Ürlaub 2024", notes}));
  EXPECT_EQ(group["versions"], 3);
  EXPECT_EQ(group["statusCode"], 0);
  EXPECT_EQ(group["schedule"]["period"], "manual");
  EXPECT_TRUE(group["lastBackupDate"].is_null());
  EXPECT_EQ(group["target"], runJSON({"target", "list", "--json"})[0]["id"]);

  ProgramResult set = run({"group", "set", "Fotos & Notes", "--versions", "0", "--schedule", "daily@09:30", "--title", "Memories"});
  ASSERT_EQ(set.status, 0) << set.err;
  json list = runJSON({"group", "list", "--json"});
  ASSERT_EQ(list.size(), 1u);
  EXPECT_EQ(list[0]["title"], "Memories");
  EXPECT_EQ(list[0]["versions"], 0);
  EXPECT_EQ(list[0]["schedule"]["period"], "daily");
  EXPECT_EQ(list[0]["schedule"]["hour"], 9);
  EXPECT_EQ(list[0]["schedule"]["minute"], 30);
  EXPECT_TRUE(list[0]["nextRun"].is_string()) << list[0].dump();

  ProgramResult table = run({"group", "list"});
  ASSERT_EQ(table.status, 0);
  EXPECT_NE(table.out.find("daily@09:30"), std::string::npos) << table.out;
  EXPECT_EQ(table.out.find("manual"), std::string::npos) << table.out;
  ProgramResult details = run({"group", "show", "Memories"});
  EXPECT_NE(details.out.find(photo.substr(0, photo.rfind('/'))), std::string::npos) << details.out;

  // Nothing that exists: nothing is made.
  ProgramResult none = run({"group", "add", "Ghosts", missing});
  EXPECT_EQ(none.status, 1);
  EXPECT_EQ(runJSON({"group", "list", "--json"}).size(), 1u);

  ASSERT_EQ(run({"group", "remove-items", "Memories", notes}).status, 0);
  EXPECT_EQ(runJSON({"group", "show", "Memories", "--json"})["items"].size(), 1u);
  ASSERT_EQ(run({"group", "remove", "Memories"}).status, 0);
  EXPECT_TRUE(runJSON({"group", "list", "--json"}).empty());
}

TEST_F(QVCommandLineTest, ListsNoVersionsForAGroupNeverBackedUp) {
  ASSERT_EQ(run({"group", "add", "Docs", makeFile("a.txt")}).status, 0);
  EXPECT_EQ(runJSON({"versions", "Docs", "--json"}), json::array());
  ProgramResult text = run({"versions", "Docs"});
  EXPECT_EQ(text.status, 0);
  EXPECT_EQ(text.out, "no versions\n");
}

TEST_F(QVCommandLineTest, RefusesBadInputWithOneLineAndLeavesThePreferencesAsTheyWere) {
  ASSERT_EQ(run({"group", "add", "Photos", makeFile("p.jpg")}).status, 0);
  ASSERT_EQ(run({"group", "add", "Twin", makeFile("t1.txt")}).status, 0);
  ASSERT_EQ(run({"group", "add", "Other", makeFile("t2.txt")}).status, 0);
  ASSERT_EQ(run({"group", "set", "Other", "--title", "Twin"}).status, 0);
  const std::string before = preferences();
  ASSERT_FALSE(before.empty());

  const std::vector<std::vector<std::string>> refused = {
      {"group", "show", "Nope"},
      {"group", "set", "Nope", "--versions", "2"},
      {"group", "set", "Photos", "--versions", "-1"},
      {"group", "set", "Photos", "--versions", "3.5"},
      {"group", "set", "Photos", "--versions", "x"},
      {"group", "set", "Photos", "--schedule", "fortnightly"},
      {"group", "set", "Photos", "--title", "New", "--target", "Nope"},
      {"group", "set", "Photos"},
      {"group", "set", "Twin", "--versions", "2"},
      {"group", "remove", "Nope"},
      {"group", "remove-items", "Photos", "/not/an/item"},
      {"group", "frobnicate"},
      {"group"},
      {"target", "add", "--type", "smb", "--title", "X", "--path", "/x", "--server", "h"},
      {"target", "add", "--type", "ftp", "--title", "X", "--path", "/x", "--server", "h", "--port", "0"},
      {"target", "add", "--type", "ftp", "--title", "X", "--path", "/x", "--server", "h", "--port", "70000"},
      {"target", "add", "--type", "dav", "--title", "X", "--path", "/x"},
      {"target", "add", "--title", "X", "--path", "/x"},
      {"target", "add", "--type", "local", "--title", "X", "--path", "/x", "--server", "h"},
      {"target", "set", "Nope", "--title", "Y"},
      {"target", "remove", "Nope"},
      {"versions", "Nope"},
      {"backup", "Photos", "Nope"},
      {"backup"},
      {"no-such-command"},
  };
  for (const auto& arguments : refused) {
    std::string shown;
    for (const auto& argument : arguments) shown += argument + " ";
    ProgramResult result = run(arguments);
    EXPECT_EQ(result.status, 2) << shown;
    EXPECT_EQ(result.errLines().size(), 1u) << shown << "\n" << result.err;
    EXPECT_EQ(result.err.rfind("stellwin-backup: ", 0), 0u) << shown << "\n" << result.err;
    EXPECT_EQ(preferences(), before) << shown;
  }

  // The ambiguous title names the candidates.
  ProgramResult twin = run({"group", "show", "Twin"});
  json groups = runJSON({"group", "list", "--json"});
  for (const auto& group : groups) {
    if (group["title"] == "Twin") {
      EXPECT_NE(twin.err.find(group["id"].get<std::string>()), std::string::npos) << twin.err;
    }
  }

  // A refused destination does not keep the password it read either.
  ProgramResult port = run({"target", "add", "--type", "ftp", "--title", "X", "--path", "/x", "--server", "h",
                            "--port", "99999", "--user", "bob", "--password-stdin"},
                           "hunter2\n");
  EXPECT_EQ(port.status, 2);
  EXPECT_EQ(port.err.find("hunter2"), std::string::npos);
  EXPECT_EQ(keychain().find("hunter2"), std::string::npos);
  EXPECT_EQ(preferences(), before);
}

TEST_F(QVCommandLineTest, AnswersHelpOnEveryCommand) {
  const std::vector<std::vector<std::string>> commands = {
      {},          {"group"},          {"group", "add"},    {"group", "list"},   {"group", "show"},
      {"group", "set"}, {"group", "remove"}, {"group", "remove-items"}, {"target"}, {"target", "add"},
      {"target", "list"}, {"target", "set"}, {"target", "remove"}, {"versions"}, {"backup"},
      {"daemon"},  {"menu"},
  };
  for (auto arguments : commands) {
    arguments.push_back("--help");
    ProgramResult result = run(arguments);
    EXPECT_EQ(result.status, 0) << arguments.front();
    EXPECT_NE(result.out.find("Usage"), std::string::npos) << result.out;
    EXPECT_TRUE(result.err.empty()) << result.err;
  }
  EXPECT_NE(run({"daemon", "--help"}).out.find("SIGUSR1"), std::string::npos);
  EXPECT_FALSE(fs::exists(m_env.preferencesPath())) << "help writes nothing";
}

TEST_F(QVCommandLineTest, PrintsTheStatusMenuOfTheGroups) {
  ASSERT_EQ(run({"group", "add", "Photos", makeFile("p.jpg")}).status, 0);
  ProgramResult text = run({"menu"});
  ASSERT_EQ(text.status, 0) << text.err;
  EXPECT_NE(text.out.find("Photos"), std::string::npos) << text.out;
  EXPECT_NE(text.out.find("Backup Now"), std::string::npos) << text.out;
  EXPECT_EQ(text.out.find("Cancel backup"), std::string::npos) << "hidden while idle:\n" << text.out;
  json items = runJSON({"menu", "--json"});
  ASSERT_GE(items.size(), 3u);
  EXPECT_EQ(items[2]["title"], "Photos");
}

}  // namespace
