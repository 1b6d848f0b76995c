#include "targets/QVBackupTarget.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <mutex>
#include <string>
#include <vector>

#include <sys/stat.h>

#include "platform/QVConstants.h"
#include "platform/QVKeychain.h"
#include "platform/QVLog.h"
#include "support/QVTestSupport.h"
#include "targets/QVDAVBackupTarget.h"
#include "targets/QVFTPBackupTarget.h"
#include "targets/QVFTPSBackupTarget.h"
#include "targets/QVLocalBackupTarget.h"

namespace fs = std::filesystem;

namespace {

QVTarget optionsOfType(const std::string& type) {
  QVTarget options;
  options.identifier = "4F1C2A9E-0000-4000-8000-000000000001";
  options.title = "Office NAS";
  options.type = type;
  options.path = "/backups";
  options.server = "nas.local";
  options.port = 21;
  return options;
}

}  // namespace

// The shared part of every destination, on the base class itself. The keychain is the file backend of
// an isolated environment.
class QVBackupTargetTest : public ::testing::Test {
 protected:
  void SetUp() override {
    m_previousSink = qv::setLogSink([this](const std::string& line) {
      std::lock_guard<std::mutex> lock(m_logMutex);
      m_log.push_back(line);
    });
  }
  void TearDown() override { qv::setLogSink(m_previousSink); }

  std::vector<std::string> logLines() {
    std::lock_guard<std::mutex> lock(m_logMutex);
    return m_log;
  }

  qvtest::IsolatedEnvironment m_env;
  qvtest::TemporaryDirectory m_dir;
  QVBackupTarget m_target{optionsOfType("local")};
  std::mutex m_logMutex;
  std::vector<std::string> m_log;  // guarded by m_logMutex
  qv::QVLogSink m_previousSink;
};

TEST_F(QVBackupTargetTest, WritesTheMessageOfEachOfItsStatusCodes) {
  const std::string path = "/Users/ann/My Reports/Report.txt";
  const std::vector<std::pair<std::int64_t, std::string>> cases = {
      {-54, "You don't have enough permissions to access file Report.txt"},
      {-43, "Group item is missing for backup"},
      {-120, "Backup destination directory not found. Check your Backup Preferences."},
      {-1429, "There is not enough disk space to perform the requested operation"},
      {-36, "I/O error"},  // passed through: the platform's text for the status
  };
  for (const auto& [status, message] : cases) {
    SCOPED_TRACE(status);
    QVError error = m_target.errorWithStatusCode(status, std::nullopt, path);
    EXPECT_EQ(error.domain, kQVErrorDomain);
    EXPECT_EQ(error.code, status);
    EXPECT_EQ(error.localizedDescription, "Error occured");
    EXPECT_EQ(error.recoverySuggestion, message);
    EXPECT_EQ(error.filePath, path);
  }
}

TEST_F(QVBackupTargetTest, ErrorWithoutAnyTextCarriesOnlyThePath) {
  for (std::int64_t status : {std::int64_t{-9999}, std::int64_t{4095}}) {
    SCOPED_TRACE(status);
    QVError withPath = m_target.errorWithStatusCode(status, std::nullopt, "/src/a file");
    EXPECT_EQ(withPath.code, status);
    EXPECT_FALSE(withPath.localizedDescription);
    EXPECT_FALSE(withPath.recoverySuggestion);
    EXPECT_EQ(withPath.filePath, "/src/a file");

    // An empty message counts as none, and an empty path as no path.
    QVError bare = m_target.errorWithStatusCode(status, std::string(), std::string());
    EXPECT_FALSE(bare.localizedDescription);
    EXPECT_FALSE(bare.recoverySuggestion);
    EXPECT_FALSE(bare.filePath);
  }
}

TEST_F(QVBackupTargetTest, AGivenMessageWinsOverTheTable) {
  for (std::int64_t status : {std::int64_t{-27}, std::int64_t{-43}, std::int64_t{-54}, std::int64_t{-1429},
                              std::int64_t{-9999}}) {
    SCOPED_TRACE(status);
    QVError error = m_target.errorWithStatusCode(status, "The server refused the folder", std::nullopt);
    EXPECT_EQ(error.code, status);
    EXPECT_EQ(error.localizedDescription, "Error occured");
    EXPECT_EQ(error.recoverySuggestion, "The server refused the folder");
    EXPECT_FALSE(error.filePath);
  }
}

TEST_F(QVBackupTargetTest, EscapesPathPiecesForURLs) {
  using T = QVBackupTarget;
  EXPECT_EQ(T::pathWithReplacingInvalidCharactersInPath("My Group/2024 01/a b.txt"), "My%20Group/2024%2001/a%20b.txt");
  EXPECT_EQ(T::pathWithReplacingInvalidCharactersInPath("why?/really??"), "why%3F/really%3F%3F");
  EXPECT_EQ(T::pathWithReplacingInvalidCharactersInPath("100% sure"), "100%25%20sure");
  EXPECT_EQ(T::pathWithReplacingInvalidCharactersInPath("Grüße/日本"), "Gr%C3%BC%C3%9Fe/%E6%97%A5%E6%9C%AC");
  EXPECT_EQ(T::pathWithReplacingInvalidCharactersInPath("\"<>\\^`{|}"), "%22%3C%3E%5C%5E%60%7B%7C%7D");
  EXPECT_EQ(T::pathWithReplacingInvalidCharactersInPath("tab\tline\n"), "tab%09line%0A");

  const std::string legal = "AZaz09-_.!~*'();/:@&=+$,#";
  EXPECT_EQ(T::pathWithReplacingInvalidCharactersInPath(legal), legal);
  EXPECT_EQ(T::pathWithReplacingInvalidCharactersInPath(""), "");
}

TEST_F(QVBackupTargetTest, PicksTheKindByItsExactType) {
  auto local = QVBackupTarget::targetWithOptions(optionsOfType("local"));
  EXPECT_NE(dynamic_cast<QVLocalBackupTarget*>(local.get()), nullptr);

  auto ftp = QVBackupTarget::targetWithOptions(optionsOfType("ftp"));
  ASSERT_NE(dynamic_cast<QVFTPBackupTarget*>(ftp.get()), nullptr);
  EXPECT_EQ(dynamic_cast<QVFTPSBackupTarget*>(ftp.get()), nullptr) << "plain FTP must not speak TLS";

  auto ftps = QVBackupTarget::targetWithOptions(optionsOfType("ftps"));
  EXPECT_NE(dynamic_cast<QVFTPSBackupTarget*>(ftps.get()), nullptr);

  auto dav = QVBackupTarget::targetWithOptions(optionsOfType("dav"));
  ASSERT_NE(dynamic_cast<QVDAVBackupTarget*>(dav.get()), nullptr);
  // The object works on the options it was given.
  EXPECT_EQ(dav->options().identifier, optionsOfType("dav").identifier);
  EXPECT_EQ(dav->options().server, "nas.local");

  for (const std::string type : {"FTP", "Dav", "LOCAL", "Ftps", "", " local", "local ", "webdav", "sftp"}) {
    EXPECT_EQ(QVBackupTarget::targetWithOptions(optionsOfType(type)), nullptr) << "type \"" << type << "\"";
  }

  // A stored record without any type.
  QVTarget untyped = QVTarget::fromDictionary({{"id", "A"}, {"title", "Old"}, {"path", "/x"}});
  EXPECT_EQ(QVBackupTarget::targetWithOptions(untyped), nullptr);
  EXPECT_TRUE(logLines().empty()) << "an unknown type is not worth a log line";
}

TEST_F(QVBackupTargetTest, TellsWhichItemsAreWorthUploading) {
  using T = QVBackupTarget;
  const std::string root = m_dir.path();

  qvtest::writeFile(root + "/empty.bin", "");
  EXPECT_TRUE(T::isPathValidForUpload(root + "/empty.bin"));
  EXPECT_FALSE(T::isPathValidForUpload(root + "/nothing-here"));

  fs::create_directories(root + "/empty");
  EXPECT_FALSE(T::isPathValidForUpload(root + "/empty"));

  fs::create_directories(root + "/only-folders/a/b/c");
  fs::create_directories(root + "/only-folders/d");
  EXPECT_FALSE(T::isPathValidForUpload(root + "/only-folders"));

  // Links are never followed, whatever they point at.
  fs::create_directories(root + "/only-links");
  fs::create_symlink(root + "/empty.bin", root + "/only-links/file-link");
  qvtest::writeFile(root + "/elsewhere/real.txt", "data");
  fs::create_directory_symlink(root + "/elsewhere", root + "/only-links/folder-link");
  EXPECT_FALSE(T::isPathValidForUpload(root + "/only-links"));

  qvtest::writeFile(root + "/only-ds/.DS_Store", "finder");
  qvtest::writeFile(root + "/only-ds/sub/deeper/.DS_Store", "finder");
  EXPECT_FALSE(T::isPathValidForUpload(root + "/only-ds"));

  fs::create_directories(root + "/only-fifo");
  ASSERT_EQ(::mkfifo((root + "/only-fifo/pipe").c_str(), 0600), 0);
  EXPECT_FALSE(T::isPathValidForUpload(root + "/only-fifo"));

  fs::create_directories(root + "/deep/a/b/c/d/e");
  qvtest::writeFile(root + "/deep/.DS_Store", "finder");
  qvtest::writeFile(root + "/deep/a/b/c/d/e/zero", "");
  EXPECT_TRUE(T::isPathValidForUpload(root + "/deep"));

  // A file inside a folder that merely carries the name still counts.
  qvtest::writeFile(root + "/named/x.DS_Store/notes.txt", "n");
  EXPECT_TRUE(T::isPathValidForUpload(root + "/named"));

  // A symbolic link given as the item itself is taken for what it points at.
  fs::create_symlink(root + "/empty.bin", root + "/link-to-file");
  EXPECT_TRUE(T::isPathValidForUpload(root + "/link-to-file"));
}

TEST_F(QVBackupTargetTest, ReadsItsCredentialsAfreshFromTheKeychain) {
  EXPECT_FALSE(m_target.keychainItem());
  EXPECT_FALSE(m_target.username());
  EXPECT_TRUE(logLines().empty()) << "only password() writes the line";
  EXPECT_FALSE(m_target.password());
  EXPECT_EQ(logLines(), std::vector<std::string>{"No password for target: Office NAS"});
  EXPECT_FALSE(m_target.password());
  EXPECT_EQ(logLines().size(), 2u) << "one line per call";

  // The name under which installed versions keep the items: it must never change.
  const std::string service = "com.stellwin.Stellwin.Backup.target." + m_target.options().identifier;
  QVKeychain& keychain = QVKeychain::sharedProxy();
  ASSERT_TRUE(keychain.addGenericKeychainItemForService(service, "ann@example.org", "pa ss:wörd"));
  EXPECT_EQ(m_target.username(), "ann@example.org");
  EXPECT_EQ(m_target.password(), "pa ss:wörd");

  ASSERT_TRUE(keychain.storeItem(service, "bob", "changed", "label"));
  EXPECT_EQ(m_target.username(), "bob");
  EXPECT_EQ(m_target.password(), "changed");
  EXPECT_EQ(logLines().size(), 2u);
}
