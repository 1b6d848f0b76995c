#include "targets/QVBackupTarget.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <filesystem>

#include "platform/QVKeychain.h"
#include "support/QVAgentTestSupport.h"

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
