#include "targets/QVBackupTarget.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <filesystem>

#include "platform/QVConstants.h"
#include "platform/QVKeychain.h"
#include "support/QVAgentTestSupport.h"
#include "targets/QVDAVBackupTarget.h"
#include "targets/QVFTPBackupTarget.h"
#include "targets/QVFTPSBackupTarget.h"
#include "targets/QVLocalBackupTarget.h"

namespace fs = std::filesystem;
using T = QVBackupTarget;

QVTarget optionsOfType(const std::string& type) {
  return qvtest::targetRecord("4F1C2A9E-0000-4000-8000-000000000001", "Office NAS", type, "/backups");
}

// The part every destination shares, on the base class, with the file keychain of an isolated environment.
class QVBackupTargetTest : public ::testing::Test {
 protected:
  qvtest::IsolatedEnvironment m_env;
  qvtest::LogCapture m_log;
  T m_target{optionsOfType("local")};
};

TEST_F(QVBackupTargetTest, BuildsItsErrorObjects) {
  const std::string path = "/Users/ann/My Reports/Report.txt", given = "The server refused the folder";
  // Status, message given, the recovery suggestion expected ("" for no text at all).
  const std::vector<std::tuple<std::int64_t, std::optional<std::string>, std::string>> cases = {
      {-54, std::nullopt, "You don't have enough permissions to access file Report.txt"},
      {-43, std::nullopt, "Group item is missing for backup"},
      {-120, std::nullopt, "Backup destination directory not found. Check your Backup Preferences."},
      {-1429, std::nullopt, "There is not enough disk space to perform the requested operation"},
      {-36, std::nullopt, "I/O error"},  // passed through: the platform's text for the status
      {-9999, std::nullopt, ""}, {4095, std::string(), ""},  // an empty message counts as none
      {-54, given, given}, {-9999, given, given}};
  for (const auto& [status, message, suggestion] : cases) {
    SCOPED_TRACE(status);
    const QVError error = m_target.errorWithStatusCode(status, message, path);
    EXPECT_EQ(error.domain, kQVErrorDomain);
    EXPECT_EQ(error.code, status);
    EXPECT_EQ(error.localizedDescription, suggestion.empty() ? std::nullopt : std::optional("Error occured"));
    EXPECT_EQ(error.recoverySuggestion, suggestion.empty() ? std::nullopt : std::optional(suggestion));
    EXPECT_EQ(error.filePath, path);
  }
  EXPECT_FALSE(m_target.errorWithStatusCode(-54, std::nullopt, std::string()).filePath) << "an empty path is none";
}

TEST_F(QVBackupTargetTest, PicksTheKindByItsExactType) {
  EXPECT_TRUE(dynamic_cast<QVLocalBackupTarget*>(T::targetWithOptions(optionsOfType("local")).get()));
  auto ftp = T::targetWithOptions(optionsOfType("ftp"));
  EXPECT_TRUE(dynamic_cast<QVFTPBackupTarget*>(ftp.get()) && !dynamic_cast<QVFTPSBackupTarget*>(ftp.get()));
  EXPECT_TRUE(dynamic_cast<QVFTPSBackupTarget*>(T::targetWithOptions(optionsOfType("ftps")).get()));
  EXPECT_TRUE(dynamic_cast<QVDAVBackupTarget*>(T::targetWithOptions(optionsOfType("dav")).get()));
  m_log.lines(true);  // a WebDAV destination looks up its password, and says when there is none
  for (const std::string type : {"FTP", "Dav", "LOCAL", "Ftps", "", " local", "local ", "webdav", "sftp"})
    EXPECT_EQ(T::targetWithOptions(optionsOfType(type)), nullptr) << "type \"" << type << "\"";
  EXPECT_EQ(T::targetWithOptions(QVTarget::fromDictionary({{"id", "A"}, {"title", "Old"}, {"path", "/x"}})), nullptr);
  EXPECT_TRUE(m_log.lines().empty()) << "an unknown type is not worth a log line";
}

TEST_F(QVBackupTargetTest, TellsWhichItemsAreWorthUploading) {
  const std::string root = m_env.root() + "/items/";
  qvtest::writeFile(root + "empty.bin", "");
  fs::create_directories(root + "only-folders/a/b/c");
  // Links inside an item are never followed; a link given as the item is taken for what it points at.
  fs::create_directories(root + "only-links");
  fs::create_symlink(root + "empty.bin", root + "only-links/file-link");
  qvtest::writeFile(root + "elsewhere/real.txt", "data");
  fs::create_directory_symlink(root + "elsewhere", root + "only-links/folder-link");
  fs::create_symlink(root + "empty.bin", root + "link-to-file");
  qvtest::writeFile(root + "only-ds/sub/deeper/.DS_Store", "finder");
  fs::create_directories(root + "only-fifo");
  ASSERT_EQ(::mkfifo((root + "only-fifo/pipe").c_str(), 0600), 0);
  qvtest::writeFile(root + "deep/.DS_Store", "finder");
  qvtest::writeFile(root + "deep/a/b/c/d/e/zero", "");
  qvtest::writeFile(root + "named/x.DS_Store/notes.txt", "n");  // only the exact name is left out

  for (const char* name : {"missing", "only-folders", "only-links", "only-ds", "only-fifo"})
    EXPECT_FALSE(T::isPathValidForUpload(root + name)) << name;
  for (const char* name : {"empty.bin", "link-to-file", "deep", "named"})
    EXPECT_TRUE(T::isPathValidForUpload(root + name)) << name;
}

TEST_F(QVBackupTargetTest, ReadsItsCredentialsAfreshFromTheKeychain) {
  EXPECT_FALSE(m_target.keychainItem());
  EXPECT_FALSE(m_target.username());
  EXPECT_TRUE(m_log.lines().empty()) << "only password() writes the line";
  EXPECT_FALSE(m_target.password());
  EXPECT_EQ(m_log.lines(), std::vector<std::string>{"No password for target: Office NAS"});

  // The name under which installed versions keep the items: it must never change.
  const std::string service = "com.stellwin.Stellwin.Backup.target." + m_target.options().identifier;
  ASSERT_TRUE(QVKeychain::sharedProxy().addGenericKeychainItemForService(service, "ann@example.org", "pa ss:wörd"));
  EXPECT_EQ(m_target.username(), "ann@example.org");
  EXPECT_EQ(m_target.password(), "pa ss:wörd");
  ASSERT_TRUE(QVKeychain::sharedProxy().storeItem(service, "bob", "changed", "label"));
  EXPECT_EQ(m_target.password(), "changed");
  EXPECT_EQ(m_log.lines().size(), 1u);
}
