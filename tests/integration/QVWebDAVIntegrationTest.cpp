// The webdav kind against the servers people run, each started by the test on 127.0.0.1: SabreDAV (the
// engine of Nextcloud) at a deep base path with Basic authentication, Apache httpd over HTTPS with a test
// certificate authority, nginx over plain HTTP. Everything goes through stellwin-backup as a user runs it.
#include <gtest/gtest.h>

#include <filesystem>
#include <map>
#include <memory>
#include <thread>

#include "host/QVProgramRunner.h"
#include "support/QVTestServer.h"

namespace fs = std::filesystem;
using qvtest::ProgramResult;
using qvtest::runProgram;

namespace {

enum class Server { sabre, apacheHTTPS, nginx };
void PrintTo(Server server, std::ostream* out) {
  *out << (server == Server::sabre ? "SabreDAV" : server == Server::apacheHTTPS ? "Apache over HTTPS" : "nginx");
}
const std::string kPassword = "p:@/% w";  // every character that breaks a password written into a URL

// Every file below folder, by its path relative to it, with its bytes.
std::map<std::string, std::string> treeOf(const std::string& folder) {
  std::map<std::string, std::string> files;
  for (const auto& entry : fs::recursive_directory_iterator(folder))
    files[fs::relative(entry.path(), folder).string() + (entry.is_directory() ? "/" : "")] =
        entry.is_directory() ? "" : qvtest::readFile(entry.path().string());
  return files;
}

// Whether text holds part; the text is shown when it does not.
::testing::AssertionResult holds(const std::string& text, const std::string& part) {
  if (text.find(part) != std::string::npos) return ::testing::AssertionSuccess();
  return ::testing::AssertionFailure() << "\"" << part << "\" is not in:\n" << text;
}

std::vector<std::string> versionsIn(const std::string& folder) {
  std::vector<std::string> names;
  if (fs::exists(folder))
    for (const auto& entry : fs::directory_iterator(folder)) names.push_back(entry.path().filename().string());
  std::sort(names.begin(), names.end());
  return names;
}

}  // namespace

class QVWebDAVIntegrationTest : public qvtest::HostTest, public ::testing::WithParamInterface<Server> {
 protected:
  void SetUp() override {
    for (const char* program : {"/usr/sbin/apache2", "/usr/sbin/nginx", "/usr/bin/php", "/usr/bin/openssl"})
      if (!qvtest::haveProgram(program)) GTEST_SKIP() << program << " is not installed (scripts/setup.sh --tests)";
    switch (GetParam()) {
      case Server::sabre:
        m_server = std::make_unique<qvtest::SabreDAVServer>("/remote.php/dav/files/ann/", "ann", kPassword);
        m_root = static_cast<qvtest::SabreDAVServer&>(*m_server).root();
        m_url = "http://127.0.0.1:" + std::to_string(m_server->port()) + "/remote.php/dav/files/ann";
        break;
      case Server::apacheHTTPS:
        m_certificates = std::make_unique<qvtest::TestCertificateAuthority>();
        m_server = std::make_unique<qvtest::ApacheDAVServer>(std::make_pair("ann", kPassword), 0, m_certificates.get());
        m_root = static_cast<qvtest::ApacheDAVServer&>(*m_server).root();
        m_url = "https://127.0.0.1:" + std::to_string(m_server->port());
        break;
      case Server::nginx:
        m_server = std::make_unique<qvtest::NginxDAVServer>();
        m_root = static_cast<qvtest::NginxDAVServer&>(*m_server).root();
        m_url = "http://127.0.0.1:" + std::to_string(m_server->port()) + "/";
        break;
    }
    m_source = m_env.home() + "/Projects";
    for (const auto& [path, text] :
         std::vector<std::pair<std::string, std::string>>{{"a/b/c/deep.txt", "deep"},
                                                          {"with space/Grüße, Ünïcødé.txt", "non-ASCII"},
                                                          {"empty", ""},
                                                          {"top.txt", "1"}})
      qvtest::writeFile(m_source + "/" + path, text);
    std::string large(6 << 20, '\0');
    for (std::size_t i = 0; i < large.size(); ++i) large[i] = static_cast<char>((i * 2654435761u) >> 13);
    qvtest::writeFile(m_source + "/large.bin", large);
  }

  bool hasPassword() const { return GetParam() != Server::nginx; }
  // target add with the server's own options; extra ones appended.
  ProgramResult addTarget(const std::string& password, std::vector<std::string> extra = {}) {
    std::vector<std::string> arguments = {"target", "add", "--type", "webdav", "--title", "Cloud", "--url", m_url};
    if (hasPassword()) arguments.insert(arguments.end(), {"--user", "ann", "--password-stdin"});
    if (GetParam() == Server::sabre) arguments.push_back("--allow-plain-http");
    if (m_certificates) arguments.insert(arguments.end(), {"--ca-file", m_certificates->caFile()});
    arguments.insert(arguments.end(), extra.begin(), extra.end());
    return runProgram(arguments, password + "\n");
  }
  void addGroup(const std::string& target = "Cloud") {
    runJSON({"group", "add", "Work", m_source});
    runJSON({"group", "set", "Work", "--target", target, "--versions", "2"});
  }
  ProgramResult backup() {
    std::this_thread::sleep_for(std::chrono::milliseconds(1100));  // versions are named by the second
    return runProgram({"backup", "Work"});
  }
  std::string groupFolder() const { return m_root + "/Work"; }

  std::unique_ptr<qvtest::TestCertificateAuthority> m_certificates;
  std::unique_ptr<qvtest::TestServer> m_server;
  std::string m_root, m_url, m_source;
};

TEST_P(QVWebDAVIntegrationTest, KeepsTheTreeByteForBytePrunesAndGivesBackAnOlderVersion) {
  ASSERT_EQ(addTarget(kPassword).status, 0);
  addGroup();
  const auto first = treeOf(m_source);
  for (int run = 1; run <= 3; ++run) {
    if (run > 1) qvtest::writeFile(m_source + "/top.txt", std::to_string(run));
    ProgramResult result = backup();
    ASSERT_EQ(result.status, 0) << result.out << result.err << m_server->logTail();
  }
  const auto versions = versionsIn(groupFolder());
  ASSERT_EQ(versions.size(), 2u) << "pruned to \"versions\"";
  EXPECT_EQ(treeOf(groupFolder() + "/" + versions[1] + "/Projects"), treeOf(m_source));

  const std::string restored = m_env.root() + "/restored";
  ProgramResult restore = runProgram({"restore", "Work", "--version", versions[0], "--to", restored});
  ASSERT_EQ(restore.status, 0) << restore.err;
  auto expected = first;
  expected["top.txt"] = "2";
  EXPECT_EQ(treeOf(restored + "/Projects"), expected);
  EXPECT_EQ(runProgram({"verify", "Work", "--version", versions[1]}).status, 0);
  EXPECT_EQ(runProgram({"versions", "Work"}).out, versions[1] + "\n" + versions[0] + "\n");  // newest first

  // A run that fails (its only item missing) leaves every older version.
  fs::rename(m_source, m_source + ".away");
  EXPECT_EQ(backup().status, 1);
  EXPECT_EQ(versionsIn(groupFolder()), versions);
}

TEST_P(QVWebDAVIntegrationTest, NamesTheServerThatRefusedThePassword) {
  if (!hasPassword()) GTEST_SKIP() << "served without a password";
  ASSERT_EQ(addTarget("wrong").status, 0);
  addGroup();
  ProgramResult result = backup();
  EXPECT_EQ(result.status, 1);
  EXPECT_TRUE(holds(result.out, "the server 127.0.0.1:" + std::to_string(m_server->port()) +
                                    " refused the password of user \"ann\""));
  EXPECT_FALSE(holds(result.out + result.err, kPassword));
  EXPECT_FALSE(holds(result.out + result.err, "wrong"));
}

INSTANTIATE_TEST_SUITE_P(Servers, QVWebDAVIntegrationTest,
                         ::testing::Values(Server::sabre, Server::apacheHTTPS, Server::nginx), [](const auto& info) {
                           return std::string(info.param == Server::sabre         ? "SabreDAV"
                                              : info.param == Server::apacheHTTPS ? "ApacheHTTPS"
                                                                                  : "Nginx");
                         });

class QVWebDAVServerTest : public qvtest::HostTest {
 protected:
  void SetUp() override {
    for (const char* program : {"/usr/sbin/apache2", "/usr/bin/php", "/usr/bin/openssl"})
      if (!qvtest::haveProgram(program)) GTEST_SKIP() << program << " is not installed (scripts/setup.sh --tests)";
    qvtest::writeFile(m_env.home() + "/Projects/a.txt", "a");
    runJSON({"group", "add", "Work", m_env.home() + "/Projects"});
  }
  ProgramResult add(std::vector<std::string> arguments, const std::string& password = kPassword) {
    arguments.insert(arguments.begin(), {"target", "add", "--title", "Cloud", "--user", "ann", "--password-stdin"});
    return runProgram(arguments, password + "\n");
  }
  ProgramResult backup() {
    std::this_thread::sleep_for(std::chrono::milliseconds(1100));
    return runProgram({"backup", "Work"});
  }
};

// HTTPS trusts the system's store and the destination's own --ca-file, nothing else; the URL never holds
// credentials, and a password goes over plain http only when the user said so.
TEST_F(QVWebDAVServerTest, RefusesWhatWouldExposeThePassword) {
  const std::vector<std::pair<std::vector<std::string>, std::string>> refusals = {
      {{"--type", "webdav", "--url", "https://ann:pw@127.0.0.1/dav"}, "must not hold a user name or password"},
      {{"--type", "webdav", "--url", "http://127.0.0.1/dav"}, "--allow-plain-http"},
      {{"--type", "webdav", "--url", "ftp://127.0.0.1/dav"}, "https:// or http://"},
      {{"--type", "dav", "--url", "http://127.0.0.1/dav", "--path", "x", "--server", "h"}, "webdav destination only"},
  };
  for (const auto& [arguments, text] : refusals) {
    ProgramResult result = add(arguments);
    EXPECT_EQ(result.status, 2) << text;
    EXPECT_TRUE(holds(result.err, text));
  }

  qvtest::TestCertificateAuthority good, otherHost("backup.example.org");
  qvtest::ApacheDAVServer server(std::make_pair("ann", kPassword), 0, &good);
  qvtest::ApacheDAVServer misnamed(std::make_pair("ann", kPassword), 0, &otherHost);
  const std::vector<std::tuple<const qvtest::ApacheDAVServer*, std::string, std::string>> cases = {
      {&server, "", "is not trusted"},
      {&misnamed, otherHost.caFile(), "is made out for another host name"},
  };
  for (const auto& [apache, caFile, text] : cases) {
    std::vector<std::string> arguments = {"--type", "webdav", "--url",
                                          "https://127.0.0.1:" + std::to_string(apache->port())};
    if (!caFile.empty()) arguments.insert(arguments.end(), {"--ca-file", caFile});
    ASSERT_EQ(add(arguments).status, 0);
    runJSON({"group", "set", "Work", "--target", "Cloud"});
    ProgramResult result = backup();
    EXPECT_EQ(result.status, 1);
    EXPECT_TRUE(
        holds(result.out, "certificate of the server 127.0.0.1:" + std::to_string(apache->port()) + " " + text));
    if (caFile.empty()) {
      EXPECT_TRUE(holds(result.out, "--ca-file"));
    }
    EXPECT_FALSE(fs::exists(apache->root() + "/Work"));
    runJSON({"target", "remove", "Cloud", "--force"});
  }
}

// The dav kind cannot read SabreDAV's listings: it is refused, a hand-made one runs nothing, and the
// webdav kind then takes over its versions.
TEST_F(QVWebDAVServerTest, SwitchesADAVDestinationOnSabreDAVToTheWebDAVKind) {
  qvtest::SabreDAVServer server("/remote.php/dav/files/ann/", "ann", kPassword);
  const std::string port = std::to_string(server.port());
  const std::string url = "http://127.0.0.1:" + port + "/remote.php/dav/files/ann/";
  ProgramResult refused =
      add({"--type", "dav", "--server", "127.0.0.1", "--port", port, "--path", "remote.php/dav/files/ann"});
  EXPECT_EQ(refused.status, 2);
  EXPECT_TRUE(holds(refused.err, "--type webdav --url " + url));

  ASSERT_EQ(add({"--type", "webdav", "--url", url, "--allow-plain-http"}).status, 0);
  runJSON({"group", "set", "Work", "--target", "Cloud", "--versions", "2"});
  for (int run = 0; run < 2; ++run) ASSERT_EQ(backup().status, 0);
  const auto versions = versionsIn(server.root() + "/Work");
  ASSERT_EQ(versions.size(), 2u);

  // Turned into a dav destination by hand: the run fails before it touches the server.
  nlohmann::json preferences = nlohmann::json::parse(qvtest::readFile(m_env.preferencesPath()));
  for (auto& target : preferences["QVBackupAgent"]["targets"])
    if (target["title"] == "Cloud")
      target.update(
          {{"type", "dav"}, {"server", "127.0.0.1"}, {"port", server.port()}, {"path", "remote.php/dav/files/ann"}});
  qvtest::writeFile(m_env.preferencesPath(), preferences.dump(2));
  ProgramResult run = backup();
  EXPECT_EQ(run.status, 1);
  EXPECT_TRUE(holds(run.out, "cannot read"));
  EXPECT_EQ(versionsIn(server.root() + "/Work"), versions);
  // Read back by namespace, the dav kind's versions are found and can be checked.
  EXPECT_EQ(runProgram({"versions", "Work"}).out, versions[1] + "\n" + versions[0] + "\n");  // newest first
  EXPECT_EQ(runProgram({"verify", "Work", "--version", versions[0]}).status, 0);

  ASSERT_EQ(runProgram({"target", "set", "Cloud", "--type", "webdav", "--url", url, "--allow-plain-http"}).status, 0);
  EXPECT_EQ(runProgram({"versions", "Work"}).out, versions[1] + "\n" + versions[0] + "\n");  // newest first
  ASSERT_EQ(backup().status, 0);
  const auto after = versionsIn(server.root() + "/Work");
  EXPECT_EQ(after.size(), 2u);
  EXPECT_EQ(after[0], versions[1]) << "the oldest pruned";
  EXPECT_EQ(runProgram({"restore", "Work", "--version", versions[1], "--to", m_env.root() + "/back"}).status, 0);
  EXPECT_EQ(qvtest::readFile(m_env.root() + "/back/Projects/a.txt"), "a");
}

// A destination without a password is no news for the terminal: the line is a diagnostic. A dav server
// that cannot be reached when it is added is added with a warning.
TEST_F(QVWebDAVServerTest, ShowsTheMissingPasswordLineOnlyWhenVerbose) {
  ProgramResult added = runProgram({"target", "add", "--type", "dav", "--title", "Open", "--server", "127.0.0.1",
                                    "--port", std::to_string(qvtest::freePort()), "--path", "dav"});
  ASSERT_EQ(added.status, 0);
  EXPECT_TRUE(holds(added.err, "could not be reached, so its listing was not checked"));
  runJSON({"group", "set", "Work", "--target", "Open"});
  EXPECT_FALSE(holds(runProgram({"versions", "Work"}).err, "No password for target: Open"));
  EXPECT_TRUE(holds(runProgram({"versions", "Work", "--verbose"}).err, "No password for target: Open"));
}

// A name the server refuses (as Nextcloud refuses ".part") is named, and the rest of the run goes on.
TEST_F(QVWebDAVServerTest, NamesTheFilesTheServerRefusedAndBacksUpTheRest) {
  qvtest::ApacheDAVServer server(std::nullopt, 0, nullptr, "\\.part$");
  qvtest::writeFile(m_env.home() + "/Projects/draft.part", "d");
  qvtest::writeFile(m_env.home() + "/Projects/sub/b.txt", "b");
  ASSERT_EQ(runProgram({"target", "add", "--type", "webdav", "--title", "Cloud", "--url",
                        "http://127.0.0.1:" + std::to_string(server.port()) + "/"})
                .status,
            0);
  runJSON({"group", "set", "Work", "--target", "Cloud"});
  ProgramResult result = backup();
  EXPECT_EQ(result.status, 0) << result.out;
  EXPECT_TRUE(holds(result.out, "not backed up: " + m_env.home() + "/Projects/draft.part (the server 127.0.0.1:" +
                                    std::to_string(server.port()) + " refused it: 403 Forbidden)"));
  const auto versions = versionsIn(server.root() + "/Work");
  ASSERT_EQ(versions.size(), 1u);
  EXPECT_EQ(treeOf(server.root() + "/Work/" + versions[0] + "/Projects"),
            (std::map<std::string, std::string>{{"a.txt", "a"}, {"sub/", ""}, {"sub/b.txt", "b"}}));
}
