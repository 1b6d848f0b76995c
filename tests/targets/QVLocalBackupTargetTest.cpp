#include "targets/QVLocalBackupTarget.h"

#include <gtest/gtest.h>

#include <filesystem>

#include "support/QVTestSupport.h"

namespace fs = std::filesystem;

constexpr const char* kEntry = "20240105143007.backup";

QVTarget localOptions(const std::string& path) {
  return QVTarget::fromDictionary({{"id", "L1"}, {"title", "My Mac"}, {"type", "local"}, {"path", path}});
}

// A local destination <tmp>/dest with the group "Photos"; sources live in <tmp>/src.
class QVLocalBackupTargetTest : public ::testing::Test {
 protected:
  void SetUp() override { fs::create_directories(m_dest); }
  // Backs up <src>/item into kEntry under name (else its file name), on m_target or a destination at dest.
  bool backup(const std::string& item, std::string name = "", const std::string& dest = "") {
    if (name.empty()) name = fs::path(item).filename();
    QVLocalBackupTarget other(localOptions(dest));
    return (dest.empty() ? m_target : other).backupItem(m_src + "/" + item, m_group, name, kEntry, &m_error);
  }
  void expectError(std::optional<std::int64_t> code, const std::string& suggestion, const std::string& item) {
    EXPECT_EQ(m_error.code, code.value_or(m_error.code));
    EXPECT_EQ(m_error.localizedDescription, "Error occured");
    EXPECT_EQ(m_error.recoverySuggestion, suggestion);
    EXPECT_EQ(m_error.filePath, m_src + "/" + item);
  }

  qvtest::TemporaryDirectory m_dir;
  const std::string m_dest = m_dir / "dest", m_src = m_dir / "src", m_entry = m_dest + "/Photos/" + kEntry;
  QVLocalBackupTarget m_target{localOptions(m_dest)};
  QVGroup m_group = QVGroup::fromDictionary({{"title", "Photos"}});
  QVError m_error;
};

TEST_F(QVLocalBackupTargetTest, CopiesEachItemIntoTheGroupsVersionEntry) {
  qvtest::writeFile(m_src + "/Grüße an alle.txt", "hello");
  qvtest::writeFile(m_src + "/Album/2023/beach.jpg", "jpeg");
  qvtest::writeFile(m_src + "/Album/.hidden", "h");
  EXPECT_EQ(QVLocalBackupTarget(localOptions(m_dest + "/")).pathForItem(m_group), m_dest + "/Photos");
  ASSERT_TRUE(backup("Grüße an alle.txt", "", m_dest + "/")) << m_error.message();
  // The second item goes into the entry the first one made, under the name the run gave it.
  ASSERT_TRUE(backup("Album", "Album 2")) << m_error.message();
  EXPECT_EQ(qvtest::readFile(m_entry + "/Grüße an alle.txt"), "hello");
  EXPECT_EQ(qvtest::readFile(m_entry + "/Album 2/2023/beach.jpg"), "jpeg");
  EXPECT_EQ(qvtest::readFile(m_entry + "/Album 2/.hidden"), "h");
  m_group.title = "Work/2024 Q1";  // titles are used as they are: a slash nests
  ASSERT_TRUE(backup("Album/2023/beach.jpg"));
  EXPECT_EQ(qvtest::readFile(m_dest + "/Work/2024 Q1/" + kEntry + "/beach.jpg"), "jpeg");
}

TEST_F(QVLocalBackupTargetTest, FailsWithoutTheDestinationFolderTheSourceOrAccess) {
  qvtest::writeFile(m_src + "/a.txt", "a");
  const std::string unmounted = m_dir / "Volumes/Backup Disk";
  EXPECT_FALSE(backup("a.txt", "", unmounted));
  expectError(-120, "Backup destination directory not found. Check your Backup Preferences.", "a.txt");
  EXPECT_FALSE(fs::exists(unmounted)) << "the destination folder itself is never created";
  EXPECT_FALSE(backup("gone.txt", "", unmounted));  // the source is checked first
  expectError(-43, "Group item is missing for backup", "gone.txt");
  qvtest::writeFile(m_dest + "/Photos", "in the way");  // where the group's folder belongs: fails even for root
  EXPECT_FALSE(backup("a.txt"));
  expectError(std::nullopt, "You do not have appropriate access privileges to save group Photos in folder dest",
              "a.txt");
  EXPECT_EQ(qvtest::readFile(m_dest + "/Photos"), "in the way");
}

TEST_F(QVLocalBackupTargetTest, KeepsAnExistingCopyAndSkipsAnItemWithNothingToCopy) {
  qvtest::writeFile(m_src + "/notes.txt", "new contents");
  qvtest::writeFile(m_src + "/Folder/new.txt", "new");
  qvtest::writeFile(m_entry + "/notes.txt", "old");
  qvtest::writeFile(m_entry + "/Folder/old.txt", "old");
  EXPECT_TRUE(backup("notes.txt") && backup("Folder"));
  EXPECT_EQ(qvtest::readFile(m_entry + "/notes.txt"), "old");
  EXPECT_TRUE(fs::exists(m_entry + "/Folder/old.txt") && !fs::exists(m_entry + "/Folder/new.txt")) << "nor merged";

  fs::remove_all(m_dest + "/Photos");
  fs::create_directories(m_src + "/Empty/sub");
  qvtest::writeFile(m_src + "/OnlyFinder/.DS_Store", "x");
  EXPECT_TRUE(backup("Empty") && backup("OnlyFinder"));
  EXPECT_TRUE(fs::is_empty(m_dest)) << "no group folder or entry for an empty item";
  EXPECT_TRUE(backup("Empty", "", m_dir / "unmounted")) << "a missing destination does not matter then";
}

TEST_F(QVLocalBackupTargetTest, ListsNothingBeforeTheFirstBackupAndRemovesOnlyTheGroupsFolder) {
  EXPECT_EQ(m_target.entriesInDirectoryForItem(m_group), std::nullopt) << "never backed up is not an empty list";
  qvtest::writeFile(m_entry + "/a.txt", "x");
  qvtest::writeFile(m_dest + "/Other/" + kEntry + "/d.txt", "x");
  EXPECT_EQ(m_target.entriesInDirectoryForItem(m_group), std::vector<std::string>{kEntry});
  qvtest::LogCapture log;
  m_target.removeRootEntryForGroup(m_group);
  EXPECT_FALSE(fs::exists(m_dest + "/Photos"));
  EXPECT_TRUE(fs::exists(m_dest + "/Other/" + kEntry + "/d.txt"));
  EXPECT_TRUE(log.lines().empty());
  m_target.removeRootEntryForGroup(m_group);
  EXPECT_EQ(log.lines(),
            std::vector<std::string>{"QVLocalBackupTarget warning: Could not remove directory -" + m_dest + "/Photos"})
      << "a folder that is not there cannot be removed";
}
