// The FTP destination end to end against real servers on 127.0.0.1, checked on the servers' disks:
// vsftpd (anonymous) and pyftpdlib (a user with a password), through the agent and through the program.
#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>

#include "host/QVProgramRunner.h"
#include "support/QVFTPTestServer.h"
#include "support/QVVersionChecks.h"
#include "targets/QVFTPBackupTarget.h"

namespace fs = std::filesystem;
using namespace qvtest;
using Lines = std::vector<std::string>;

namespace {

constexpr const char* kUser = "ann";
constexpr const char* kPassword = "s3cr3t:pass wörd";  // a colon and a space: all of it is the password
constexpr const char* kEntry = "20240105143007.backup";

bool haveServer(bool vsftpd) {
  return vsftpd ? haveProgram("/usr/sbin/vsftpd")
                : haveProgram("/usr/bin/python3") && fs::exists("/usr/lib/python3/dist-packages/pyftpdlib");
}

bool contains(const Lines& lines, const std::string& line) {
  return std::find(lines.begin(), lines.end(), line) != lines.end();
}

// One fixture per server family: vsftpd logs in anonymously below "backup", pyftpdlib as a user below "/backup/".
class QVFTPIntegrationTest : public FTPAgentTest, public ::testing::WithParamInterface<bool> {
 protected:
  void SetUp() override {
    const bool vsftpd = GetParam();
    if (!haveServer(vsftpd)) GTEST_SKIP() << "the FTP servers are not installed (scripts/setup.sh --tests)";
    if (vsftpd) {
      auto server = std::make_unique<VsftpdServer>();
      m_root = server->root();
      m_server = std::move(server);
    } else {
      auto server = std::make_unique<PyftpdlibServer>(kUser, kPassword);
      m_root = server->root();
      m_server = std::move(server);
      m_destination = {"ftp", 0, "/backup/", kUser, kPassword};
    }
    m_destination.port = m_server->port();
    start();
  }
  // The group's folder on the server's disk.
  std::string folder(const std::string& name) const { return m_root + "/backup/" + name; }
  Lines versionsOf(const QVGroupRef& group) {
    Lines names = agent->backupsForGroupWithID(group->identifier).value_or(Lines{"(no listing)"});
    std::sort(names.begin(), names.end());
    return names;
  }
  std::unique_ptr<QVFTPBackupTarget> destinationOf(const QVGroupRef& group) {
    auto made = agent->backupTargetWithIdentifier(*group->target);
    return std::unique_ptr<QVFTPBackupTarget>(dynamic_cast<QVFTPBackupTarget*>(made.release()));
  }

  std::unique_ptr<TestServer> m_server;
  std::string m_root;
  Destination m_destination;
};

TEST_P(QVFTPIntegrationTest, CopiesATreeByteForByteAndPrunesOldVersionsCompletely) {
  const std::string tree = makeTree(env.root() + "/sources/Tree");
  const std::string note = makeFile("Notiz für später.txt");
  // A title that is not ASCII: the group's folder is named after its identifier.
  QVGroupRef group = makeGroup("Fotos für Oma", {tree, note}, m_destination, 2);
  const std::string groupFolder = folder(group->identifier);
  for (const char* old : {"20200101000000.backup", "20210101000000.backup"}) {
    writeFile(groupFolder + "/" + old + "/Tree/deep er/x.txt", "old");
    fs::create_directories(groupFolder + "/" + old + "/empty folder");
  }
  writeFile(groupFolder + "/notes.backup/keep.txt", "not a version");

  ASSERT_TRUE(runToEnd(group));
  ASSERT_EQ(group->statusCode, 0) << shownFailure(group) << m_server->logTail();
  Lines listed = versionsOf(group);
  ASSERT_EQ(listed.size(), 3u);
  const std::string first = listed[1];
  EXPECT_EQ(listed, (Lines{"20210101000000.backup", first, "notes.backup"})) << "the oldest version went";
  EXPECT_FALSE(fs::exists(groupFolder + "/20200101000000.backup"));
  EXPECT_EQ(treeListing(groupFolder + "/" + first + "/Tree"), treeListing(tree));
  EXPECT_EQ(readFile(groupFolder + "/" + first + "/Notiz für später.txt"), "data");
  EXPECT_FALSE(host.linesStartingWith("delegate.backupProgress:").empty());

  // A second run a second later: its own version, and the next oldest goes with everything in it.
  std::this_thread::sleep_for(std::chrono::milliseconds(1100));
  ASSERT_TRUE(runToEnd(group));
  ASSERT_EQ(group->statusCode, 0) << shownFailure(group);
  listed = versionsOf(group);
  ASSERT_EQ(listed.size(), 3u);
  EXPECT_EQ(listed.front(), first);
  EXPECT_EQ(treeListing(groupFolder + "/" + listed[1] + "/Tree"), treeListing(tree));
  EXPECT_EQ(readFile(groupFolder + "/notes.backup/keep.txt"), "not a version");
}

TEST_P(QVFTPIntegrationTest, AStoppedServerFailsTheRunWithLibcurlsCodeAndKeepsEarlierVersions) {
  const std::string file = makeFile("a.txt");
  QVGroupRef group = makeGroup("Docs", {file}, m_destination);
  ASSERT_TRUE(runToEnd(group));
  ASSERT_EQ(group->statusCode, 0) << shownFailure(group);
  const std::string before = treeListing(m_root);

  m_server->stop();
  ASSERT_TRUE(runToEnd(group));
  EXPECT_EQ(group->statusCode, 7);
  EXPECT_EQ(shownFailure(group), "Docs - Couldn't connect to server");
  auto destination = destinationOf(group);
  // With the destination lost the group's folder is only tried, never emptied.
  EXPECT_TRUE(contains(logged.lines(), "QVFTPBackupTarget warning: Could not remove directory -" +
                                           destination->path() + "Docs/"));
  destination->backupWillStart();
  QVError error;
  EXPECT_FALSE(destination->backupItem(file, *group, "a.txt", kEntry, &error));
  EXPECT_TRUE(error.code == 7 && error.filePath == file && !destination->isAvailable());
  m_server->restart();
  EXPECT_EQ(treeListing(m_root), before);
  EXPECT_TRUE(destination->backupItem(file, *group, "a.txt", kEntry, &error)) << "reachable again";
  EXPECT_FALSE(destination->isAvailable()) << "but unavailable for good";
}

TEST_P(QVFTPIntegrationTest, KeepsWhatArrivedListsAndRemovesAsTheServerAllows) {
  writeFile(env.root() + "/Mixed/a.txt", "a");
  writeFile(env.root() + "/Mixed/b.txt", "b");
  QVGroupRef group = makeGroup("Edge", {env.root() + "/Mixed"}, m_destination);
  auto destination = destinationOf(group);
  const std::string entry = folder("Edge/") + kEntry;
  // A folder on the server where b.txt belongs: that upload fails, a.txt arrives, and the item counts.
  fs::create_directories(entry + "/Mixed/b.txt");
  destination->backupWillStart();
  QVError error;
  EXPECT_TRUE(destination->backupItem(env.root() + "/Mixed", *group, "Mixed", kEntry, &error));
  EXPECT_EQ(readFile(entry + "/Mixed/a.txt"), "a");
  // A single file that fails: status 0, since the server answered, with libcurl's text and no path.
  fs::create_directories(entry + "/b.txt");
  EXPECT_FALSE(destination->backupItem(env.root() + "/Mixed/b.txt", *group, "b.txt", kEntry, &error));
  EXPECT_EQ(error.recoverySuggestion, "Upload failed (at start/before it took off)");
  EXPECT_TRUE(error.code == 0 && !error.filePath && destination->isAvailable());
  destination->backupDidEnd();

  fs::create_directories(folder("Edge/empty"));
  EXPECT_TRUE(destination->removeItemWithPath(destination->path() + "Edge/empty/"));
  EXPECT_TRUE(fs::exists(folder("Edge/empty"))) << "the folder itself stays";
  destination->removeRootEntryForGroup(*group);
  EXPECT_TRUE(fs::exists(entry)) << "never emptied first";
  EXPECT_TRUE(contains(logged.lines(), "QVFTPBackupTarget warning: Could not remove directory -" +
                                           destination->path() + "Edge/"));
  EXPECT_TRUE(destination->removeEntry(kEntry, *group));
  EXPECT_FALSE(fs::exists(entry));

  QVGroup never = *group;
  never.title = "Never";
  EXPECT_EQ(destination->entriesInDirectoryForItem(never), std::nullopt);
  EXPECT_TRUE(contains(logged.lines(), "Curl failed with error: 9"));
  EXPECT_EQ(destination->entriesInDirectoryForItem(*group), Lines{"empty"});
  if (GetParam()) {  // vsftpd sends names as they are on disk; pyftpdlib makes them UTF-8
    writeFile(folder("Edge/\xff.backup"), "");
    EXPECT_EQ(destination->entriesInDirectoryForItem(*group), Lines{}) << "not UTF-8: an empty listing";
  }
}

INSTANTIATE_TEST_SUITE_P(Servers, QVFTPIntegrationTest, ::testing::Values(true, false),
                         [](const auto& info) { return info.param ? "vsftpd" : "pyftpdlib"; });

// A server that accepts and never answers: the connection check gives up after its 20 seconds. (A whole
// run takes three times as long: the group's folder is still tried, with two more requests.)
TEST(QVFTPTimeoutTest, AServerThatNeverAnswersFailsTheItemAfterTwentySeconds) {
  IsolatedEnvironment env;
  SilentServer server;
  QVTarget options = targetRecord("5B1D0C7E-0000-4000-8000-000000000004", "Silent", "ftp", "backup");
  options.server = "127.0.0.1";
  options.port = server.port();
  QVFTPBackupTarget destination(options);
  writeFile(env.root() + "/a.txt", "a");
  destination.backupWillStart();
  QVError error;
  const auto started = std::chrono::steady_clock::now();
  EXPECT_FALSE(destination.backupItem(env.root() + "/a.txt", QVGroup::fromDictionary({{"title", "G"}}), "a.txt",
                                      kEntry, &error));
  const auto took = std::chrono::steady_clock::now() - started;
  EXPECT_TRUE(took > std::chrono::seconds(19) && took < std::chrono::seconds(30));
  EXPECT_EQ(error.code, 28);
  EXPECT_EQ(error.recoverySuggestion, "Could not connect to server ftp://127.0.0.1/");
  EXPECT_FALSE(destination.isAvailable());
}

// stellwin-backup against pyftpdlib, with a password given on standard input and reading slowly enough
// to interrupt an upload, and against vsftpd, anonymously.
class QVFTPProgramTest : public HostTest {};

TEST_F(QVFTPProgramTest, BacksUpListsAndCancelsWithThePasswordOnlyOnStandardInput) {
  if (!haveServer(false) || !haveServer(true)) GTEST_SKIP() << "the FTP servers are not installed (scripts/setup.sh --tests)";
  PyftpdlibServer server(kUser, kPassword, 10 * 1000 * 1000);
  VsftpdServer anonymous;
  std::string shown;  // everything the program wrote
  auto run = [&](const std::vector<std::string>& arguments, const std::string& input = "") {
    ProgramResult result = runProgram(arguments, input);
    shown += result.out + result.err;
    return result;
  };
  auto add = [&](const std::string& title, int port, const std::vector<std::string>& user) {
    std::vector<std::string> arguments = {"target", "add", "--type", "ftp", "--title", title, "--server", "127.0.0.1",
                                          "--port", std::to_string(port), "--path", "backup"};
    arguments.insert(arguments.end(), user.begin(), user.end());
    ASSERT_EQ(run(arguments, std::string(kPassword) + "\n").status, 0) << shown;
  };
  add("NAS", server.port(), {"--user", kUser, "--password-stdin"});
  add("Anon", anonymous.port(), {});
  const std::string tree = makeTree(m_env.home() + "/Tree");
  const std::uint64_t size = 300ull << 20;
  for (const auto& [group, item, target] : {std::tuple("Docs", tree, "NAS"), std::tuple("Open", tree, "Anon"),
                                            std::tuple("Big", makeFile("big.bin", "", size), "NAS")})
    run({"group", "add", group, item}), run({"group", "set", group, "--target", target});
  for (const auto& [group, root] : {std::pair("Docs", server.root()), std::pair("Open", anonymous.root())}) {
    ProgramResult result = run({"backup", group});
    ASSERT_EQ(result.status, 0) << result.err;
    EXPECT_EQ(result.out, std::string(group) + ": complete\n");
    const nlohmann::json versions = runJSON({"versions", group, "--json"});
    ASSERT_EQ(versions.size(), 1u) << versions;
    EXPECT_EQ(treeListing(root + "/backup/" + group + "/" + versions[0]["name"].get<std::string>() + "/Tree"), treeListing(tree));
  }

  // Interrupted mid-upload: over within a moment, recorded as cancelled; what was sent stays.
  RunningProgram program({"backup", "Big", "--json"});
  auto sent = [&] {
    std::error_code ec;
    for (fs::recursive_directory_iterator it(server.root() + "/backup/Big", ec), end; !ec && it != end; it.increment(ec))
      if (it->path().filename() == "big.bin") return fs::file_size(it->path(), ec);
    return std::uintmax_t{0};
  };
  ASSERT_TRUE(program.waitFor([&] { return sent() > 0; }, std::chrono::seconds(20))) << program.err;
  kill(program.pid, SIGINT);
  const auto interrupted = std::chrono::steady_clock::now();
  ProgramResult cancelled = program.finish(std::chrono::seconds(30));
  shown += cancelled.out + cancelled.err;
  EXPECT_LT(std::chrono::steady_clock::now() - interrupted, std::chrono::seconds(5));
  EXPECT_EQ(cancelled.status, 130) << cancelled.err;
  EXPECT_EQ(nlohmann::json::parse(cancelled.out, nullptr, false)[0]["statusCode"], -128) << cancelled.out;
  EXPECT_EQ(runJSON({"group", "show", "Big", "--json"})["statusCode"], -128);
  EXPECT_GT(sent(), 0u);
  EXPECT_LT(sent(), size / 2) << "the upload stopped early";

  EXPECT_EQ(shown.find(kPassword), std::string::npos) << "the password was shown";
  EXPECT_EQ(readFile(m_env.preferencesPath()).find(kPassword), std::string::npos);
}

// Restore and verify from both servers, one with a password and one anonymous.
TEST_F(QVFTPProgramTest, RestoresAndVerifiesVersionsFromBothServers) {
  if (!haveServer(false) || !haveServer(true)) GTEST_SKIP() << "the FTP servers are not installed (scripts/setup.sh --tests)";
  PyftpdlibServer server(kUser, kPassword);
  VsftpdServer anonymous;
  for (const auto& [group, port, root, user] :
       {std::tuple("Docs", server.port(), server.root(), std::vector<std::string>{"--user", kUser, "--password-stdin"}),
        std::tuple("Open", anonymous.port(), anonymous.root(), std::vector<std::string>{})}) {
    std::vector<std::string> add = {"target", "add", "--type", "ftp", "--title", group, "--server", "127.0.0.1",
                                    "--port", std::to_string(port), "--path", "backup"};
    add.insert(add.end(), user.begin(), user.end());
    ASSERT_EQ(runProgram(add, std::string(kPassword) + "\n").status, 0);
    const std::string tree = m_env.home() + "/" + group + "/Tree";
    makeTree(tree);
    runJSON({"group", "add", group, tree}), runJSON({"group", "set", group, "--target", group});
    ASSERT_EQ(runProgram({"backup", group}).status, 0);
    const nlohmann::json versions = runJSON({"versions", group, "--json"});
    ASSERT_EQ(versions.size(), 1u) << versions;
    expectRestoreAndVerify(tree, root + "/backup/" + group + "/" + versions[0]["name"].get<std::string>(),
                           m_env.root() + "/scratch-" + group, group);
  }
}

}  // namespace
