// Backups to real servers of every remote destination kind on 127.0.0.1, checked on the servers' disks:
// WebDAV on Apache httpd (mod_dav, with and without Basic authentication) and nginx (dav-ext), FTP on
// vsftpd (anonymous) and pyftpdlib (a user with a password), and FTPS on vsftpd with implicit TLS. Every
// server answers the same cases, through the agent and through stellwin-backup; what only one protocol
// does has a suite of its own. The FTPS server is in the table only under scripts/with-test-ca.sh, which
// makes the test authority trusted for this process alone (ctest runs "*FTPS*" so); the destination
// sets no TLS option, so what it trusts is exactly the system's store.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <chrono>
#include <filesystem>

#include "host/QVProgramRunner.h"
#include "platform/QVRunLoop.h"
#include "platform/QVURLSession.h"
#include "support/QVAgentTestSupport.h"
#include "support/QVFTPTestServer.h"
#include "support/QVVersionChecks.h"
#include "targets/QVDAVBackupTarget.h"
#include "targets/QVFTPBackupTarget.h"

namespace fs = std::filesystem;
using namespace qvtest;
using namespace std::chrono_literals;
using Lines = std::vector<std::string>;

namespace {

const std::string kUser = "ann@example.org";
const std::string kPassword = "p@ss:w/rd 50% Grüße";  // every character a URL would have to escape
constexpr const char* kEntry = "20240105143007.backup";

// One row of the table of servers: its name in test names, whether it asks for kUser and kPassword, and
// what must be installed for it.
enum class Software { Apache, Nginx, Vsftpd, VsftpdOverTLS, Pyftpdlib };
struct Kind {
  const char* name;
  Software software;
  bool password;
  const char* needs;
  bool ftp() const { return software >= Software::Vsftpd; }
};
const Kind kApache{"Apache", Software::Apache, false, "/usr/sbin/apache2"},
    kApacheAuth{"ApacheWithBasicAuth", Software::Apache, true, "/usr/sbin/apache2"},
    kNginx{"Nginx", Software::Nginx, false, "/usr/sbin/nginx"},
    kVsftpd{"Vsftpd", Software::Vsftpd, false, "/usr/sbin/vsftpd"},
    kFTPS{"FTPSOnVsftpd", Software::VsftpdOverTLS, false, "/usr/sbin/vsftpd"},
    kPyftpdlib{"Pyftpdlib", Software::Pyftpdlib, true, "/usr/lib/python3/dist-packages/pyftpdlib"};
const std::optional<TestCertificates> kCertificates = TestCertificates::fromEnvironment();
// The kinds given, and FTPS where the test authority is trusted.
std::vector<Kind> withFTPS(std::vector<Kind> kinds) {
  if (kCertificates) kinds.push_back(kFTPS);
  return kinds;
}
std::string kindName(const ::testing::TestParamInfo<Kind>& info) { return info.param.name; }
void PrintTo(const Kind& kind, std::ostream* os) { *os << kind.name; }

// A server of the kind, refusing request bodies over maxBody bytes when given (WebDAV only), with the
// folder it serves on disk and the destination that reaches it. Its base folder is "backup".
struct Server {
  explicit Server(const Kind& kind, long maxBody = 0) {
    auto serve = [this](auto server) {
      root = server->root();
      process = std::move(server);
    };
    if (kind.software == Software::Apache)
      serve(std::make_unique<ApacheDAVServer>(kind.password ? std::optional(std::pair(kUser, kPassword)) : std::nullopt,
                                              maxBody));
    else if (kind.software == Software::Nginx)
      serve(std::make_unique<NginxDAVServer>(maxBody));
    else if (kind.software == Software::Vsftpd)
      serve(std::make_unique<VsftpdServer>());
    else if (kind.software == Software::VsftpdOverTLS)
      serve(std::make_unique<VsftpdServer>(std::pair(kCertificates->trustedCertificate, kCertificates->trustedKey)));
    else
      serve(std::make_unique<PyftpdlibServer>(kUser, kPassword));
    // WebDAV makes no collection above the group's; pyftpdlib is reached from its root.
    if (!kind.ftp()) fs::create_directories(root + "/backup");
    destination.type = !kind.ftp() ? "dav" : kind.software == Software::VsftpdOverTLS ? "ftps" : "ftp";
    destination.port = process->port();
    if (kind.software == Software::Pyftpdlib) destination.path = "/backup/";
    if (kind.password) destination.user = kUser, destination.pass = kPassword;
  }
  std::unique_ptr<TestServer> process;
  std::string root;
  RemoteDestination destination;
};

// A text that may hold the password, fit to print in a failure message.
std::string masked(std::string text) {
  for (std::size_t at; (at = text.find(kPassword)) != std::string::npos;)
    text.replace(at, kPassword.size(), "<password>");
  return text;
}

bool contains(const Lines& lines, const std::string& line) {
  return std::find(lines.begin(), lines.end(), line) != lines.end();
}

class QVDestinationIntegrationTest : public RemoteAgentTest, public ::testing::WithParamInterface<Kind> {
 protected:
  void SetUp() override {
    if (!fs::exists(kind().needs)) GTEST_SKIP() << kind().needs << " is not installed (scripts/setup.sh --tests)";
    startServer();
    start();
  }
  void startServer(long maxBody = 0) {
    m_server.reset();
    m_server = std::make_unique<Server>(kind(), maxBody);
  }
  const Kind& kind() const { return GetParam(); }
  std::string sources() const { return env.root() + "/files"; }
  std::string folder(const std::string& name) const { return m_server->root + "/backup/" + name; }
  QVGroupRef makeGroup(const std::string& title, const Lines& items, std::uint64_t versions = 3) {
    return RemoteAgentTest::makeGroup(title, items, m_server->destination, versions);
  }
  Lines versionsOf(const QVGroupRef& group) {
    Lines names = agent->backupsForGroupWithID(group->identifier).value_or(Lines{"(no listing)"});
    std::sort(names.begin(), names.end());
    return names;
  }

  std::unique_ptr<Server> m_server;
};

TEST_P(QVDestinationIntegrationTest, CopiesATreePrunesOldVersionsAndChangesNothingOnceTheServerStops) {
  const std::string tree = makeTree(sources() + "/Tree"), note = makeFile("Notiz für später.txt");
  makeFile("Pipes/p.txt");
  ASSERT_EQ(::mkfifo((sources() + "/Pipes/pipe").c_str(), 0600), 0);
  // A title that is not ASCII: an FTP group's folder is named after its identifier.
  QVGroupRef group = makeGroup("Fotos für Oma", {tree, note, sources() + "/Pipes"}, 2);
  const std::string groupFolder = folder(kind().ftp() ? group->identifier : group->title);
  for (const char* old : {"20200101000000.backup", "20210101000000.backup"}) {
    makeTree(groupFolder + "/" + old + "/Tree");
    fs::create_directories(groupFolder + "/" + old + "/empty folder");
  }
  writeFile(groupFolder + "/notes.backup/keep.txt", "not a version");
  EXPECT_EQ(versionsOf(group), (Lines{"20200101000000.backup", "20210101000000.backup", "notes.backup"}));

  ASSERT_TRUE(runToEnd(group));
  ASSERT_EQ(group->statusCode, 0) << masked(shownFailure(group) + m_server->process->logTail());
  const Lines listed = versionsOf(group);
  ASSERT_EQ(listed.size(), 3u) << ::testing::PrintToString(listed);
  const std::string version = groupFolder + "/" + listed[1];
  EXPECT_EQ(listed, (Lines{"20210101000000.backup", listed[1], "notes.backup"})) << "the oldest version went";
  EXPECT_FALSE(fs::exists(groupFolder + "/20200101000000.backup"));
  EXPECT_EQ(treeListing(version + "/Tree"), treeListing(tree));
  EXPECT_EQ(readFile(version + "/Notiz für später.txt"), "data");
  EXPECT_EQ(namesIn(version + "/Pipes"), Lines{"p.txt"}) << "a pipe is left out, never waited on";
  EXPECT_EQ(readFile(groupFolder + "/notes.backup/keep.txt"), "not a version");
  EXPECT_FALSE(host.linesStartingWith("delegate.backupProgress:").empty());
  // A version renamed beside a run's operations (as the program marks a partial one), never over another.
  auto renaming = agent->backupTargetWithIdentifier(*group->target);
  EXPECT_FALSE(renaming->renameEntry(listed[1], "20210101000000.backup", *group));
  EXPECT_TRUE(renaming->renameEntry(listed[1], "29991231000000.partial", *group));
  EXPECT_EQ(readFile(groupFolder + "/29991231000000.partial/Notiz für später.txt"), "data");

  // With the server gone, the first item fails the run, the next is never started, and nothing changes.
  const std::string before = treeListing(m_server->root);
  m_server->process->stop();
  host.journal->clear();
  ASSERT_TRUE(runToEnd(group));
  // WebDAV names the URL with the credentials as they were given; FTP gives libcurl's text.
  const std::string url = "http://" + (kind().password ? kUser + ":" + kPassword + "@" : "") +
                          "127.0.0.1:" + std::to_string(m_server->process->port()) + "/backup";
  EXPECT_EQ(group->statusCode, kind().ftp() ? 7 : -27);
  EXPECT_EQ(masked(shownFailure(group)),
            masked("Fotos für Oma - " +
                   (kind().ftp() ? "Couldn't connect to server" : "Could not connect to server " + url)));
  EXPECT_FALSE(contains(host.linesStartingWith("delegate.backupProgress"),
                        "delegate.backupProgress:0.00|" + group->identifier + "|1"));
  // An FTP destination whose connection check failed stays unavailable for good, even once the server is back.
  auto made = agent->backupTargetWithIdentifier(*group->target);
  auto* ftp = dynamic_cast<QVFTPBackupTarget*>(made.get());
  QVError error;
  if (ftp) {
    ftp->backupWillStart();
    EXPECT_FALSE(ftp->backupItem(note, *group, "n.txt", kEntry, &error));
    EXPECT_TRUE(error.code == 7 && error.filePath == note && !ftp->isAvailable());
  }
  m_server->process->restart();
  EXPECT_EQ(treeListing(m_server->root), before);
  if (ftp) {
    EXPECT_TRUE(ftp->backupItem(note, *group, "n.txt", kEntry, &error)) << "reachable again";
    EXPECT_FALSE(ftp->isAvailable()) << "but unavailable for good";
  }
}

using QVWebDAVDestinationTest = QVDestinationIntegrationTest;
TEST_P(QVWebDAVDestinationTest, ARefusedRunRemovesItsVersionAndTheEmptiedGroupFolder) {
  // The collections are made, then every file is refused as too large.
  startServer(4);
  writeFile(sources() + "/a.txt", "more than four bytes");
  writeFile(sources() + "/Tree/sub/b.txt", "more than four bytes");
  QVGroupRef group = makeGroup("Photos", {sources() + "/a.txt", sources() + "/Tree/sub/b.txt"});
  ASSERT_TRUE(runToEnd(group));
  EXPECT_EQ(group->statusCode, -27);
  EXPECT_EQ(shownFailure(group), "Photos - The remote server returned an error - (413) Content Too Large");
  EXPECT_FALSE(fs::exists(folder("Photos"))) << ::testing::PrintToString(namesIn(folder("Photos")));
}

using QVFTPDestinationTest = QVDestinationIntegrationTest;
TEST_P(QVFTPDestinationTest, KeepsWhatArrivedListsAndRemovesAsTheServerAllows) {
  writeFile(env.root() + "/Mixed/a.txt", "a");
  writeFile(env.root() + "/Mixed/b.txt", "b");
  QVGroupRef group = makeGroup("Edge", {env.root() + "/Mixed"});
  auto made = agent->backupTargetWithIdentifier(*group->target);
  auto& destination = dynamic_cast<QVFTPBackupTarget&>(*made);
  const std::string entry = folder("Edge/") + kEntry;
  // A folder on the server where b.txt belongs: that upload fails, a.txt arrives, and the item counts.
  fs::create_directories(entry + "/Mixed/b.txt");
  destination.backupWillStart();
  QVError error;
  EXPECT_TRUE(destination.backupItem(env.root() + "/Mixed", *group, "Mixed", kEntry, &error));
  EXPECT_EQ(readFile(entry + "/Mixed/a.txt"), "a");
  // A single file that fails: status 0, since the server answered, with libcurl's text and no path.
  fs::create_directories(entry + "/b.txt");
  EXPECT_FALSE(destination.backupItem(env.root() + "/Mixed/b.txt", *group, "b.txt", kEntry, &error));
  EXPECT_EQ(error.recoverySuggestion, "Upload failed (at start/before it took off)");
  EXPECT_TRUE(error.code == 0 && !error.filePath && destination.isAvailable());
  destination.backupDidEnd();

  fs::create_directories(folder("Edge/empty"));
  EXPECT_TRUE(destination.removeItemWithPath(destination.path() + "Edge/empty/"));
  EXPECT_TRUE(fs::exists(folder("Edge/empty"))) << "the folder itself stays";
  destination.removeRootEntryForGroup(*group);
  EXPECT_TRUE(fs::exists(entry)) << "never emptied first";
  EXPECT_TRUE(contains(logged.lines(),
                       "QVFTPBackupTarget warning: Could not remove directory -" + destination.path() + "Edge/"));
  EXPECT_TRUE(destination.removeEntry(kEntry, *group));
  EXPECT_FALSE(fs::exists(entry));

  QVGroup never = *group;
  never.title = "Never";
  EXPECT_EQ(destination.entriesInDirectoryForItem(never), std::nullopt);
  EXPECT_TRUE(contains(logged.lines(), "Curl failed with error: 9"));
  EXPECT_EQ(destination.entriesInDirectoryForItem(*group), Lines{"empty"});
  if (kind().software == Software::Vsftpd) {  // vsftpd sends names as they are on disk; pyftpdlib makes them UTF-8
    writeFile(folder("Edge/\xff.backup"), "");
    EXPECT_EQ(destination.entriesInDirectoryForItem(*group), Lines{}) << "not UTF-8: an empty listing";
  }
}

INSTANTIATE_TEST_SUITE_P(Servers, QVDestinationIntegrationTest,
                         ::testing::ValuesIn(withFTPS({kApache, kApacheAuth, kNginx, kVsftpd, kPyftpdlib})), kindName);
INSTANTIATE_TEST_SUITE_P(Servers, QVWebDAVDestinationTest, ::testing::Values(kApache, kApacheAuth, kNginx), kindName);
INSTANTIATE_TEST_SUITE_P(Servers, QVFTPDestinationTest, ::testing::Values(kVsftpd, kPyftpdlib), kindName);

TEST(QVFTPSTrustTest, RefusesAServerTheSystemDoesNotTrust) {
  if (!kCertificates) GTEST_SKIP() << "needs the test CA: run through scripts/with-test-ca.sh as root (ctest does)";
  IsolatedEnvironment env;
  VsftpdServer server(std::pair(kCertificates->untrustedCertificate, kCertificates->untrustedKey));
  writeFile(env.root() + "/secret.txt", "secret");
  QVTarget options = targetRecord("5B1D0C7E-0000-4000-8000-000000000005", "Untrusted", "ftps", "backup");
  options.server = "127.0.0.1";
  options.port = server.port();
  auto destination = QVBackupTarget::targetWithOptions(options);
  destination->backupWillStart();
  QVError error;
  EXPECT_FALSE(destination->backupItem(env.root() + "/secret.txt", QVGroup::fromDictionary({{"title", "G"}}),
                                       "secret.txt", kEntry, &error));
  EXPECT_EQ(error.code, 60);
  EXPECT_EQ(error.recoverySuggestion, "SSL peer certificate or SSH remote key was not OK");
  EXPECT_TRUE(fs::is_empty(server.root())) << "nothing was sent, in the clear or otherwise";
}

// A server that accepts the connection and then says nothing: WebDAV gives up after its idle timeout (two
// seconds here), FTP's connection check after its 20 seconds.
TEST(QVDestinationTimeoutTest, AServerThatNeverAnswersFailsTheItemWithinItsTimeout) {
  IsolatedEnvironment env;
  SilentServer server;
  writeFile(env.root() + "/a.txt", "a");
  const std::string ftpText = "Could not connect to server ftp://127.0.0.1/";
  const std::string davText =
      "Could not connect to server http://127.0.0.1:" + std::to_string(server.port()) + "/backup";
  for (const auto& [type, code, text, least, most] :
       {std::tuple("dav", -27, davText, 1s, 20s), std::tuple("ftp", 28, ftpText, 19s, 30s)}) {
    QVURLSession::setIdleTimeoutForTesting(2);
    QVTarget options = targetRecord("5B1D0C7E-0000-4000-8000-000000000004", "Silent", type, "backup");
    options.server = "127.0.0.1";
    options.port = server.port();
    std::unique_ptr<QVBackupTarget> destination = QVBackupTarget::targetWithOptions(options);
    QVURLSession::setIdleTimeoutForTesting(0);
    destination->backupWillStart();
    QVError error;
    const auto started = std::chrono::steady_clock::now();
    EXPECT_FALSE(destination->backupItem(env.root() + "/a.txt", QVGroup::fromDictionary({{"title", "G"}}), "a.txt",
                                         kEntry, &error));
    const auto took = std::chrono::steady_clock::now() - started;
    EXPECT_TRUE(took > least && took < most) << type << ": " << std::chrono::duration<double>(took).count() << " s";
    EXPECT_EQ(error.code, code);
    EXPECT_EQ(error.recoverySuggestion, text);
    EXPECT_FALSE(destination->isAvailable());
  }
}

// The same servers through stellwin-backup, as a user runs it, with the password given on standard input.
class QVDestinationProgramTest : public HostTest, public ::testing::WithParamInterface<Kind> {
 protected:
  void SetUp() override {
    if (!fs::exists(GetParam().needs))
      GTEST_SKIP() << GetParam().needs << " is not installed (scripts/setup.sh --tests)";
    m_server = std::make_unique<Server>(GetParam());
  }
  std::string groupFolder() const { return m_server->root + "/backup/Photos"; }
  // Runs the program, keeping all it writes.
  ProgramResult run(const Lines& arguments, const std::string& input = "") {
    ProgramResult result = runProgram(arguments, input);
    m_shown += result.out + result.err;
    return result;
  }
  // The group "Photos" of the items on a destination "NAS" of this server, keeping two versions.
  void addGroup(const Lines& items) {
    const RemoteDestination& to = m_server->destination;
    Lines add = {"target", "add",      "--type",    to.type,  "--title",
                 "NAS",    "--server", "127.0.0.1", "--port", std::to_string(to.port),
                 "--path", to.path};
    if (to.user) add.insert(add.end(), {"--user", *to.user, "--password-stdin"});
    ProgramResult result = run(add, kPassword + "\n");
    ASSERT_EQ(result.status, 0) << result.err;
    Lines group = {"group", "add", "Photos"};
    group.insert(group.end(), items.begin(), items.end());
    ASSERT_EQ(run(group).status, 0);
    ASSERT_EQ(run({"group", "set", "Photos", "--target", "NAS", "--versions", "2"}).status, 0);
  }

  std::unique_ptr<Server> m_server;
  std::string m_shown;
};

TEST_P(QVDestinationProgramTest, BacksUpListsRestoresVerifiesAndFailsWithoutEverShowingThePassword) {
  const std::string tree = makeTree(m_env.home() + "/Tree");
  addGroup({tree});
  ProgramResult result = run({"backup", "Photos"});
  ASSERT_EQ(result.status, 0) << masked(result.err);
  const nlohmann::json versions = runJSON({"versions", "Photos", "--json"});
  ASSERT_EQ(versions.size(), 1u) << versions;
  EXPECT_TRUE(result.out.starts_with("Photos: complete, ") &&
              result.out.ends_with(", version " + versions[0]["name"].get<std::string>() + "\n"))
      << result.out;
  const std::string version = groupFolder() + "/" + versions[0]["name"].get<std::string>();
  EXPECT_EQ(treeListing(version + "/Tree"), treeListing(tree));
  const nlohmann::json runs = runJSON({"log", "Photos", "--json"});
  ASSERT_EQ(runs.size(), 1u) << runs;
  EXPECT_EQ(runs[0]["files"], 5) << "the journal counts what reached the server";
  expectRestoreAndVerify(tree, version, m_env.root() + "/scratch");

  if (GetParam().password) {  // a wrong one is refused at the first request
    ASSERT_EQ(run({"target", "set", "NAS", "--password-stdin"}, "not the password\n").status, 0);
    result = run({"backup", "Photos"});
    EXPECT_EQ(result.status, 1);
    EXPECT_EQ(result.out, GetParam().ftp()
                              ? "Photos: failed (67): Login denied\n"
                              : "Photos: failed (-27): The remote server returned an error - (401) Unauthorized\n");
    EXPECT_EQ(namesIn(groupFolder()), Lines{fs::path(version).filename().string()}) << "nothing was made";
    ASSERT_EQ(run({"target", "set", "NAS", "--password-stdin"}, kPassword + "\n").status, 0);
  }
  m_server->process->stop();
  result = run({"backup", "Photos"});
  EXPECT_EQ(result.status, 1);
  const std::string failure = GetParam().ftp()
                                  ? "Couldn't connect to server"
                                  : "Could not connect to server http://" +
                                        std::string(GetParam().password ? kUser + ":***@" : "") +
                                        "127.0.0.1:" + std::to_string(m_server->destination.port) + "/backup";
  EXPECT_NE(result.out.find(failure), std::string::npos) << masked(result.out);
  if (GetParam().ftp()) {  // libcurl's code, in libcurl's words
    EXPECT_NE(run({"status"}).out.find("failed (7): Couldn't connect to server"), std::string::npos);
  }
  EXPECT_EQ(namesIn(groupFolder()), Lines{fs::path(version).filename().string()}) << "the earlier version stays";
  EXPECT_EQ(m_shown.find(kPassword), std::string::npos) << "the password was shown:\n" << masked(m_shown);
  EXPECT_EQ(readFile(m_env.preferencesPath()).find(kPassword), std::string::npos);
}

INSTANTIATE_TEST_SUITE_P(Servers, QVDestinationProgramTest,
                         ::testing::ValuesIn(withFTPS({kApacheAuth, kNginx, kVsftpd, kPyftpdlib})), kindName);

}  // namespace
