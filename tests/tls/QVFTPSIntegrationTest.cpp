// The FTPS destination against vsftpd with implicit TLS on 127.0.0.1. The program runs under
// scripts/with-test-ca.sh, which makes the test authority trusted for this process alone; the
// destination itself sets no TLS option, so what it trusts is exactly the system's store.
#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>

#include "host/QVProgramRunner.h"
#include "support/QVAgentTestSupport.h"
#include "support/QVFTPTestServer.h"
#include "support/QVVersionChecks.h"

namespace fs = std::filesystem;
using namespace qvtest;

namespace {

std::string skipReason(const std::optional<TestCertificates>& certificates) {
  if (!certificates) return "needs the test CA: run through scripts/with-test-ca.sh as root (ctest does)";
  if (!haveProgram("/usr/sbin/vsftpd")) return "vsftpd is not installed (scripts/setup.sh --tests)";
  return "";
}

class QVFTPSIntegrationTest : public RemoteAgentTest {
 protected:
  void SetUp() override {
    if (std::string reason = skipReason(m_certificates); !reason.empty()) GTEST_SKIP() << reason;
    start();
  }
  std::optional<TestCertificates> m_certificates = TestCertificates::fromEnvironment();
};

TEST_F(QVFTPSIntegrationTest, CopiesATreeOverTLSAndPrunesOldVersions) {
  VsftpdServer server(std::pair(m_certificates->trustedCertificate, m_certificates->trustedKey));
  const std::string tree = makeTree(env.root() + "/sources/Tree");
  QVGroupRef group = makeGroup("Secure", {tree}, {"ftps", server.port(), "backup", std::nullopt, std::nullopt}, 1);
  const std::string folder = server.root() + "/backup/Secure";
  writeFile(folder + "/20200101000000.backup/Tree/x/y.txt", "old");

  ASSERT_TRUE(runToEnd(group));
  ASSERT_EQ(group->statusCode, 0) << shownFailure(group) << server.logTail();
  auto listed = agent->backupsForGroupWithID(group->identifier);
  ASSERT_TRUE(listed && listed->size() == 1u);
  EXPECT_EQ(treeListing(folder + "/" + listed->front() + "/Tree"), treeListing(tree));
  EXPECT_FALSE(fs::exists(folder + "/20200101000000.backup"));
}

TEST_F(QVFTPSIntegrationTest, RefusesAServerTheSystemDoesNotTrust) {
  VsftpdServer server(std::pair(m_certificates->untrustedCertificate, m_certificates->untrustedKey));
  QVGroupRef group = makeGroup("Untrusted", {makeFile("secret.txt")}, {"ftps", server.port(), "backup", std::nullopt, std::nullopt});
  ASSERT_TRUE(runToEnd(group));
  EXPECT_EQ(group->statusCode, 60);
  EXPECT_EQ(shownFailure(group), "Untrusted - SSL peer certificate or SSH remote key was not OK");
  EXPECT_TRUE(fs::is_empty(server.root())) << "nothing was sent, in the clear or otherwise";
}

// stellwin-backup itself, in the same trusted environment.
class QVFTPSProgramTest : public HostTest {};

TEST_F(QVFTPSProgramTest, BacksUpToAnFTPSDestinationAddedOnTheCommandLine) {
  const auto certificates = TestCertificates::fromEnvironment();
  if (std::string reason = skipReason(certificates); !reason.empty()) GTEST_SKIP() << reason;
  VsftpdServer server(std::pair(certificates->trustedCertificate, certificates->trustedKey));
  runJSON({"target", "add", "--type", "ftps", "--title", "Vault", "--server", "127.0.0.1", "--port",
           std::to_string(server.port()), "--path", "backup"});
  runJSON({"group", "add", "Notes", makeFile("Notizen ä.txt", "geheim")});
  runJSON({"group", "set", "Notes", "--target", "Vault"});
  ProgramResult result = runProgram({"backup", "Notes"});
  ASSERT_EQ(result.status, 0) << result.err << server.logTail();
  const nlohmann::json versions = runJSON({"versions", "Notes", "--json"});
  ASSERT_EQ(versions.size(), 1u) << versions;
  EXPECT_EQ(readFile(server.root() + "/backup/Notes/" + versions[0]["name"].get<std::string>() + "/Notizen ä.txt"), "geheim");
}

}  // namespace
