// Backups to real WebDAV servers (Apache httpd with mod_dav, nginx with dav-ext) on 127.0.0.1, through the
// agent and through stellwin-backup, checked on the servers' disks.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <chrono>
#include <csignal>
#include <filesystem>
#include <fstream>

#include "host/QVProgramRunner.h"
#include "platform/QVFoundation.h"
#include "platform/QVRunLoop.h"
#include "platform/QVURLSession.h"
#include "support/QVAgentTestSupport.h"
#include "support/QVTestServer.h"
#include "support/QVVersionChecks.h"

namespace fs = std::filesystem;
using Lines = std::vector<std::string>;

namespace {

const std::string kUser = "ann@example.org";
const std::string kPassword = "p@ss:w/rd 50% Grüße";  // every character a URL would have to escape

Lines namesIn(const std::string& folder) {
  Lines names;
  std::error_code ec;
  for (const auto& entry : fs::directory_iterator(folder, ec)) names.push_back(entry.path().filename().string());
  std::sort(names.begin(), names.end());
  return names;
}

// Whether any process's command line holds text.
bool anyCommandLineHolds(const std::string& text) {
  for (const auto& process : fs::directory_iterator("/proc")) {
    std::ifstream in(process.path() / "cmdline", std::ios::binary);
    std::string line((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    if (line.find(text) != std::string::npos) return true;
  }
  return false;
}

// Whether a server's folder holds a file of more than 64 MiB: an upload is under way.
bool uploading(const qvtest::TestServer& server) {
  std::error_code ec;
  for (const auto& entry : fs::recursive_directory_iterator(server.directory(), ec))
    if (entry.is_regular_file(ec) && entry.file_size(ec) > (64u << 20)) return true;
  return false;
}

// A server of the kind named ("apache", "apache-auth" or "nginx") with its served folder in *root.
std::unique_ptr<qvtest::TestServer> startServer(const std::string& kind, std::string* root, long maxBody = 0) {
  if (kind == "nginx") {
    auto nginx = std::make_unique<qvtest::NginxDAVServer>(maxBody);
    *root = nginx->root();
    fs::create_directories(*root + "/backups");
    return nginx;
  }
  auto apache = std::make_unique<qvtest::ApacheDAVServer>(
      kind == "apache-auth" ? std::optional(std::pair(kUser, kPassword)) : std::nullopt, maxBody);
  *root = apache->root();
  fs::create_directories(*root + "/backups");
  return apache;
}

bool haveServers() { return qvtest::haveProgram("/usr/sbin/apache2") && qvtest::haveProgram("/usr/sbin/nginx"); }

}  // namespace

// One fixture per server kind: Apache with and without Basic authentication, and nginx.
class QVDAVIntegrationTest : public qvtest::AgentTest, public ::testing::WithParamInterface<std::string> {
 protected:
  void SetUp() override {
    if (!haveServers()) GTEST_SKIP() << "Apache or nginx is not installed (scripts/setup.sh --tests)";
    startServer();
    start();
  }
  void TearDown() override { QVURLSession::setIdleTimeoutForTesting(0); }

  // This fixture's kind of server, refusing bodies over maxBody bytes when given.
  void startServer(long maxBody = 0) {
    m_server.reset();
    m_server = ::startServer(GetParam(), &m_root, maxBody);
  }

  bool authenticated() const { return GetParam() == "apache-auth"; }
  std::string sources() const { return env.root() + "/sources"; }
  std::string groupFolder(const std::string& title = "Photos") const { return m_root + "/backups/" + title; }

  // A group of the given items on a WebDAV destination of this server, with password when authenticated.
  QVGroupRef makeGroup(const Lines& items, std::uint64_t versions = 3, const std::string& password = kPassword) {
    agent->addItemsAtPaths(items, "Photos");
    QVTarget target = qvtest::targetRecord(qv::stringWithUUID(), "NAS", "dav", "backups");
    target.server = "127.0.0.1";
    target.port = m_server->port();
    if (authenticated()) target.user = kUser, target.pass = password;
    agent->createTargetWithDictionary(target);
    auto group = std::make_shared<QVGroup>(*agent->groups().back());
    group->target = target.identifier;
    group->versions = versions;
    agent->updateGroup(group);
    return agent->groups().back();
  }
  bool runToEnd(const QVGroupRef& group, std::chrono::seconds timeout = std::chrono::seconds(120)) {
    agent->backupGroupWithID(group->identifier, true);
    return qv::runMainLoopUntil([&] { return !agent->isBackingUpGroupWithID(group->identifier); }, timeout);
  }
  std::string onlyVersion() const {
    Lines versions = namesIn(groupFolder());
    return versions.size() == 1 ? groupFolder() + "/" + versions.front() : "";
  }

  std::unique_ptr<qvtest::TestServer> m_server;
  std::string m_root;
};

TEST_P(QVDAVIntegrationTest, ATreeAndALargeFileArriveByteForByte) {
  qvtest::makeTree(sources() + "/Tree");
  const std::string large = sources() + "/large.bin";
  qvtest::writeFile(large, "start");
  fs::resize_file(large, 1ull << 30);  // sparse: quick to make, a full gigabyte to send
  { std::fstream(large, std::ios::in | std::ios::out | std::ios::binary).seekp((1ull << 30) - 3).write("end", 3); }
  qvtest::writeFile(sources() + "/single file.txt", "just one");
  QVGroupRef group = makeGroup({sources() + "/Tree", large, sources() + "/single file.txt"});
  ASSERT_TRUE(runToEnd(group, std::chrono::seconds(300)));
  EXPECT_EQ(group->statusCode, 0) << logged.lines().size();
  const std::string version = onlyVersion();
  ASSERT_FALSE(version.empty()) << ::testing::PrintToString(namesIn(groupFolder()));
  EXPECT_EQ(qvtest::treeListing(version + "/Tree"), qvtest::treeListing(sources() + "/Tree"));
  EXPECT_EQ(qvtest::readFile(version + "/single file.txt"), "just one");
  EXPECT_EQ(fs::file_size(version + "/large.bin"), 1ull << 30);
  // Compared in pieces: a gigabyte is not held in memory twice.
  std::ifstream sent(large, std::ios::binary), arrived(version + "/large.bin", std::ios::binary);
  std::string chunkA(1 << 20, '\0'), chunkB(1 << 20, '\0');
  bool equal = true;
  while (equal && sent.read(chunkA.data(), chunkA.size()) && arrived.read(chunkB.data(), chunkB.size()))
    equal = chunkA == chunkB;
  EXPECT_TRUE(equal);
  EXPECT_EQ(agent->backupsForGroupWithID(group->identifier), Lines{fs::path(version).filename().string()});
}

TEST_P(QVDAVIntegrationTest, KeepsTheNewestVersionsAndRemovesTheRestCompletely) {
  qvtest::writeFile(sources() + "/a.txt", "a");
  for (const char* old : {"20200101000001.backup", "20200101000002.backup", "20200101000003.backup"})
    qvtest::writeFile(groupFolder() + "/" + old + "/sub/a.txt", "old");
  fs::create_directories(groupFolder() + "/notes");  // not a version: never pruned
  // A pipe among the files is left out, never waited on.
  qvtest::writeFile(sources() + "/Pipes/p.txt", "p");
  ASSERT_EQ(::mkfifo((sources() + "/Pipes/pipe").c_str(), 0600), 0);
  QVGroupRef group = makeGroup({sources() + "/a.txt", sources() + "/Pipes"}, 2);
  Lines listed = agent->backupsForGroupWithID(group->identifier).value_or(Lines{});
  std::sort(listed.begin(), listed.end());
  EXPECT_EQ(listed, (Lines{"20200101000001.backup", "20200101000002.backup", "20200101000003.backup", "notes"}));
  ASSERT_TRUE(runToEnd(group));
  EXPECT_EQ(group->statusCode, 0);
  const Lines left = namesIn(groupFolder());
  ASSERT_EQ(left.size(), 3u) << ::testing::PrintToString(left);
  EXPECT_EQ(left[0], "20200101000003.backup");
  EXPECT_EQ(left[2], "notes");
  EXPECT_EQ(qvtest::readFile(groupFolder() + "/" + left[1] + "/a.txt"), "a");
  EXPECT_EQ(qvtest::readFile(groupFolder() + "/" + left[1] + "/Pipes/p.txt"), "p");
}

TEST_P(QVDAVIntegrationTest, AServerThatStopsOrNeverAnswersFailsTheRunBeforeItsNextItem) {
  qvtest::writeFile(sources() + "/a.txt", "a");
  qvtest::writeFile(sources() + "/b.txt", "b");
  QVGroupRef group = makeGroup({sources() + "/a.txt", sources() + "/b.txt"});
  m_server->stop();
  ASSERT_TRUE(runToEnd(group));
  EXPECT_EQ(group->statusCode, -27);
  const std::string url = "http://" + std::string(authenticated() ? kUser + ":" + kPassword + "@" : "") +
                          "127.0.0.1:" + std::to_string(m_server->port()) + "/backups";
  EXPECT_EQ(host.linesStartingWith("template"),
            Lines{"template0.push:Photos - Could not connect to server " + url + "|" + group->identifier});
  const Lines progress = host.linesStartingWith("delegate.backupProgress");
  EXPECT_EQ(std::count(progress.begin(), progress.end(), "delegate.backupProgress:0.00|" + group->identifier + "|1"), 0)
      << "the second item is never started: " << ::testing::PrintToString(progress);
  for (const auto& line : logged.lines()) EXPECT_EQ(line.find(kPassword), std::string::npos) << line;

  // A server that accepts the connection and then says nothing fails within the idle timeout.
  qvtest::SilentServer silent;
  QVTarget target = *agent->targetWithIdentifier(*group->target);
  target.port = silent.port();
  agent->updateTarget(target);
  QVURLSession::setIdleTimeoutForTesting(2);
  const auto began = std::chrono::steady_clock::now();
  ASSERT_TRUE(runToEnd(group, std::chrono::seconds(60)));
  EXPECT_EQ(group->statusCode, -27);
  EXPECT_LT(std::chrono::steady_clock::now() - began, std::chrono::seconds(20));
}

TEST_P(QVDAVIntegrationTest, AServerStoppedDuringAnUploadFailsTheRun) {
  const std::string large = sources() + "/large.bin";
  qvtest::writeFile(large, "large");
  fs::resize_file(large, 4ull << 30);
  qvtest::writeFile(sources() + "/b.txt", "b");
  QVGroupRef group = makeGroup({large, sources() + "/b.txt"});
  agent->backupGroupWithID(group->identifier, true);
  ASSERT_TRUE(qv::runMainLoopUntil([&] { return uploading(*m_server); }, std::chrono::seconds(60)));
  m_server->stop();
  ASSERT_TRUE(qv::runMainLoopUntil([&] { return !agent->isBackingUpGroupWithID(group->identifier); }));
  EXPECT_EQ(group->statusCode, -27);
  const Lines shown = host.linesStartingWith("template");
  ASSERT_EQ(shown.size(), 1u);
  EXPECT_NE(shown[0].find("Photos - Could not connect to server http://"), std::string::npos) << shown[0];
}

TEST_P(QVDAVIntegrationTest, ARefusedRunRemovesItsVersionAndTheEmptiedGroupFolder) {
  // The collections are made, then every file is refused as too large.
  startServer(4);
  qvtest::writeFile(sources() + "/a.txt", "more than four bytes");
  fs::create_directories(sources() + "/Tree/sub");
  qvtest::writeFile(sources() + "/Tree/sub/b.txt", "more than four bytes");
  QVGroupRef group = makeGroup({sources() + "/a.txt", sources() + "/Tree/sub/b.txt"});
  ASSERT_TRUE(runToEnd(group));
  EXPECT_EQ(group->statusCode, -27);
  EXPECT_EQ(host.linesStartingWith("template"),
            Lines{"template0.push:Photos - The remote server returned an error - (413) Content Too Large|" +
                  group->identifier});
  EXPECT_FALSE(fs::exists(groupFolder())) << ::testing::PrintToString(namesIn(groupFolder()));

  if (!authenticated()) return;
  // A wrong password is refused at the first request.
  startServer();
  QVGroupRef wrong = makeGroup({sources() + "/a.txt"}, 3, "not the password");
  ASSERT_TRUE(runToEnd(wrong));
  EXPECT_EQ(wrong->statusCode, -27);
  EXPECT_EQ(host.linesStartingWith("template").back(),
            "template0.push:Photos - The remote server returned an error - (401) Unauthorized|" + wrong->identifier);
  EXPECT_FALSE(fs::exists(groupFolder()));
}

// The same servers through stellwin-backup, as a user runs it.
class QVDAVProgramTest : public qvtest::HostTest, public ::testing::WithParamInterface<std::string> {
 protected:
  void SetUp() override {
    if (!haveServers()) GTEST_SKIP() << "Apache or nginx is not installed (scripts/setup.sh --tests)";
    m_server = startServer(GetParam(), &m_root);
  }
  bool authenticated() const { return GetParam() != "nginx"; }
  std::string groupFolder() const { return m_root + "/backups/Photos"; }

  void addGroup(const Lines& items) {
    Lines add = {"target", "add", "--type", "dav", "--title", "NAS", "--server", "127.0.0.1", "--port",
                 std::to_string(m_server->port()), "--path", "backups"};
    if (authenticated()) add.insert(add.end(), {"--user", kUser, "--password-stdin"});
    qvtest::ProgramResult result = qvtest::runProgram(add, kPassword + "\n");
    ASSERT_EQ(result.status, 0) << result.err;
    Lines group = {"group", "add", "Photos"};
    group.insert(group.end(), items.begin(), items.end());
    ASSERT_EQ(qvtest::runProgram(group).status, 0);
    ASSERT_EQ(qvtest::runProgram({"group", "set", "Photos", "--target", "NAS", "--versions", "2"}).status, 0);
  }
  void expectNoPassword(const qvtest::ProgramResult& result) {
    EXPECT_EQ(result.out.find(kPassword), std::string::npos) << result.out;
    EXPECT_EQ(result.err.find(kPassword), std::string::npos) << result.err;
    EXPECT_EQ(qvtest::readFile(m_env.preferencesPath()).find(kPassword), std::string::npos);
  }

  std::unique_ptr<qvtest::TestServer> m_server;
  std::string m_root;
};

TEST_P(QVDAVProgramTest, BacksUpListsRestoresVerifiesAndFailsWithoutEverShowingThePassword) {
  qvtest::makeTree(m_env.home() + "/Tree");
  addGroup({m_env.home() + "/Tree"});
  qvtest::ProgramResult result = qvtest::runProgram({"backup", "Photos"});
  EXPECT_EQ(result.status, 0) << result.err;
  expectNoPassword(result);
  const Lines versions = namesIn(groupFolder());
  ASSERT_EQ(versions.size(), 1u);
  EXPECT_EQ(qvtest::treeListing(groupFolder() + "/" + versions.front() + "/Tree"), qvtest::treeListing(m_env.home() + "/Tree"));
  result = qvtest::runProgram({"versions", "Photos", "--json"});
  EXPECT_EQ(result.status, 0);
  EXPECT_NE(result.out.find(versions.front()), std::string::npos) << result.out;
  const nlohmann::json runs = runJSON({"log", "Photos", "--json"});
  ASSERT_EQ(runs.size(), 1u) << runs;
  EXPECT_EQ(runs[0]["files"], 5) << "the journal counts what reached the server";
  qvtest::TemporaryDirectory scratch;
  qvtest::expectRestoreAndVerify(m_env.home() + "/Tree", groupFolder() + "/" + versions.front(), scratch.path());

  m_server->stop();
  result = qvtest::runProgram({"backup", "Photos"});
  EXPECT_EQ(result.status, 1);
  const std::string shown = authenticated() ? kUser + ":***@" : "";
  EXPECT_NE(result.err.find("Could not connect to server http://" + shown + "127.0.0.1:" +
                            std::to_string(m_server->port()) + "/backups"),
            std::string::npos)
      << result.err;
  expectNoPassword(result);
  EXPECT_EQ(namesIn(groupFolder()), versions) << "the earlier version stays";
}

TEST_P(QVDAVProgramTest, SIGINTDuringALargeUploadEndsTheRunAtOnce) {
  const std::string large = m_env.home() + "/large.bin";
  qvtest::writeFile(large, "start");
  fs::resize_file(large, 4ull << 30);
  addGroup({large});
  qvtest::RunningProgram backup({"backup", "Photos"});
  ASSERT_TRUE(backup.waitFor([&] { return uploading(*m_server); }, std::chrono::seconds(60))) << backup.err;
  EXPECT_FALSE(anyCommandLineHolds(kPassword)) << "no process has the password on its command line";
  ::kill(backup.pid, SIGINT);
  const auto sent = std::chrono::steady_clock::now();
  qvtest::ProgramResult result = backup.finish();
  EXPECT_LT(std::chrono::steady_clock::now() - sent, std::chrono::seconds(1));
  EXPECT_EQ(result.status, 130) << result.err;
  nlohmann::json group = nlohmann::json::parse(qvtest::readFile(m_env.preferencesPath()))["QVBackupAgent"]["groups"][0];
  EXPECT_EQ(group["statusCode"], -128);
}

INSTANTIATE_TEST_SUITE_P(Servers, QVDAVProgramTest, ::testing::Values("apache-auth", "nginx"),
                         [](const auto& info) { return info.param == "nginx" ? "Nginx" : "ApacheWithBasicAuth"; });

INSTANTIATE_TEST_SUITE_P(Servers, QVDAVIntegrationTest, ::testing::Values("apache", "apache-auth", "nginx"),
                         [](const auto& info) { return info.param == "apache-auth" ? "ApacheWithBasicAuth"
                                                       : info.param == "apache"    ? "Apache"
                                                                                   : "Nginx"; });
