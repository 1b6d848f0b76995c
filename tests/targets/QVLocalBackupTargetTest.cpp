#include "targets/QVLocalBackupTarget.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <functional>
#include <string>
#include <vector>

#include <fcntl.h>
#include <sys/mount.h>
#include <unistd.h>

#include "platform/QVConstants.h"
#include "support/QVTestSupport.h"

namespace fs = std::filesystem;

namespace {

constexpr const char* kEntry = "20240105143007.backup";

// Records what a destination reports, in order.
class RecordingProgress : public QVTargetProgressDelegate {
 public:
  struct Event {
    bool calculated;
    double fraction;
    std::uint64_t files;
    std::uint64_t size;
  };
  std::vector<Event> events;
  std::function<void()> onCalculated;

  void backupProgress(double fraction) override { events.push_back({false, fraction, 0, 0}); }
  void backupCalculatedFiles(std::uint64_t files, std::uint64_t size) override {
    events.push_back({true, 0.0, files, size});
    if (onCalculated) onCalculated();
  }
};

void makeFileOfSize(const std::string& path, off_t size) {
  fs::create_directories(fs::path(path).parent_path());
  int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
  ASSERT_GE(fd, 0) << path;
  ASSERT_EQ(::ftruncate(fd, size), 0);
  ::close(fd);
}

}  // namespace

// A local destination D = <tmp>/dest with the group "Photos"; sources live in <tmp>/src.
class QVLocalBackupTargetTest : public ::testing::Test {
 protected:
  void SetUp() override {
    fs::create_directories(m_destination);
    m_group.title = "Photos";
  }

  void TearDown() override {
    if (m_mounted) ::umount2(m_destination.c_str(), MNT_DETACH);
  }

  QVLocalBackupTarget makeTarget(const std::string& path) {
    QVTarget options;
    options.identifier = "L1";
    options.title = "My Mac";
    options.type = "local";
    options.path = path;
    return QVLocalBackupTarget(options);
  }

  // Mounts a small tmpfs over D; false (the test then skips) when that is not possible here.
  bool mountSmallVolume() {
    if (::geteuid() != 0) return false;
    if (::mount("tmpfs", m_destination.c_str(), "tmpfs", 0, "size=4m") != 0) return false;
    m_mounted = true;
    return true;
  }

  qvtest::TemporaryDirectory m_dir;
  std::string m_destination = m_dir / "dest";
  std::string m_source = m_dir / "src";
  QVGroup m_group;
  bool m_mounted = false;
};

TEST_F(QVLocalBackupTargetTest, CopiesEachItemIntoTheGroupsVersionEntry) {
  qvtest::writeFile(m_source + "/Grüße an alle.txt", "hello");
  qvtest::writeFile(m_source + "/Album/2023/beach.jpg", "jpeg");
  qvtest::writeFile(m_source + "/Album/.hidden", "h");

  QVLocalBackupTarget target = makeTarget(m_destination + "/");
  EXPECT_EQ(target.pathForItem(m_group), m_destination + "/Photos");

  QVError error;
  ASSERT_TRUE(target.backupItem(m_source + "/Grüße an alle.txt", m_group, "Grüße an alle.txt", kEntry, &error))
      << error.message();
  // The second item reuses the entry the first one made, under the name the run gave it.
  ASSERT_TRUE(target.backupItem(m_source + "/Album", m_group, "Album 2", kEntry, &error)) << error.message();

  const std::string entry = m_destination + "/Photos/" + kEntry;
  EXPECT_EQ(qvtest::readFile(entry + "/Grüße an alle.txt"), "hello");
  EXPECT_EQ(qvtest::readFile(entry + "/Album 2/2023/beach.jpg"), "jpeg");
  EXPECT_EQ(qvtest::readFile(entry + "/Album 2/.hidden"), "h");

  // Titles are used as they are: a slash nests.
  m_group.title = "Work/2024 Q1";
  ASSERT_TRUE(target.backupItem(m_source + "/Album/2023/beach.jpg", m_group, "beach.jpg", kEntry, nullptr));
  EXPECT_EQ(qvtest::readFile(m_destination + "/Work/2024 Q1/" + kEntry + "/beach.jpg"), "jpeg");
}

TEST_F(QVLocalBackupTargetTest, FailsWhenTheDestinationFolderIsMissing) {
  qvtest::writeFile(m_source + "/a.txt", "a");
  const std::string unmounted = m_dir / "Volumes/Backup Disk";
  QVLocalBackupTarget target = makeTarget(unmounted);

  QVError error;
  EXPECT_FALSE(target.backupItem(m_source + "/a.txt", m_group, "a.txt", kEntry, &error));
  EXPECT_EQ(error.code, -120);
  EXPECT_EQ(error.localizedDescription, "Error occured");
  EXPECT_EQ(error.recoverySuggestion, "Backup destination directory not found. Check your Backup Preferences.");
  EXPECT_EQ(error.filePath, m_source + "/a.txt");
  EXPECT_FALSE(target.backupItem(m_source + "/a.txt", m_group, "a.txt", kEntry, nullptr));
  EXPECT_FALSE(fs::exists(unmounted)) << "the destination folder itself is never created";

  // The source is checked first.
  EXPECT_FALSE(target.backupItem(m_source + "/gone.txt", m_group, "gone.txt", kEntry, &error));
  EXPECT_EQ(error.code, -43);
  EXPECT_EQ(error.recoverySuggestion, "Group item is missing for backup");
}

TEST_F(QVLocalBackupTargetTest, ReportsMissingAccessWhenTheEntryCannotBeCreated) {
  qvtest::writeFile(m_source + "/a.txt", "a");
  // A file where the group's folder belongs: creation fails even for root.
  qvtest::writeFile(m_destination + "/Photos", "in the way");
  QVLocalBackupTarget target = makeTarget(m_destination);

  QVError error;
  EXPECT_FALSE(target.backupItem(m_source + "/a.txt", m_group, "a.txt", kEntry, &error));
  EXPECT_EQ(error.localizedDescription, "Error occured");
  EXPECT_EQ(error.recoverySuggestion, "You do not have appropriate access privileges to save group Photos in folder dest");
  EXPECT_EQ(error.filePath, m_source + "/a.txt");
  EXPECT_EQ(qvtest::readFile(m_destination + "/Photos"), "in the way");
}

TEST_F(QVLocalBackupTargetTest, KeepsAnExistingCopyInsteadOfOverwriting) {
  qvtest::writeFile(m_source + "/notes.txt", "new contents");
  qvtest::writeFile(m_source + "/Folder/new.txt", "new");
  const std::string entry = m_destination + "/Photos/" + kEntry;
  qvtest::writeFile(entry + "/notes.txt", "old");
  qvtest::writeFile(entry + "/Folder/old.txt", "old");
  QVLocalBackupTarget target = makeTarget(m_destination);

  QVError error;
  EXPECT_TRUE(target.backupItem(m_source + "/notes.txt", m_group, "notes.txt", kEntry, &error));
  EXPECT_TRUE(target.backupItem(m_source + "/Folder", m_group, "Folder", kEntry, &error));
  EXPECT_EQ(qvtest::readFile(entry + "/notes.txt"), "old");
  EXPECT_TRUE(fs::exists(entry + "/Folder/old.txt"));
  EXPECT_FALSE(fs::exists(entry + "/Folder/new.txt")) << "an existing folder is not merged into either";
}

TEST_F(QVLocalBackupTargetTest, SkipsAnItemWithNothingToCopy) {
  fs::create_directories(m_source + "/Empty/sub");
  qvtest::writeFile(m_source + "/OnlyFinder/.DS_Store", "x");
  QVLocalBackupTarget target = makeTarget(m_destination);

  EXPECT_TRUE(target.backupItem(m_source + "/Empty", m_group, "Empty", kEntry, nullptr));
  EXPECT_TRUE(target.backupItem(m_source + "/OnlyFinder", m_group, "OnlyFinder", kEntry, nullptr));
  EXPECT_TRUE(fs::is_empty(m_destination)) << "no group folder or entry for an empty item";

  // Even a missing destination does not matter for an item that is skipped.
  QVLocalBackupTarget unmounted = makeTarget(m_dir / "unmounted");
  EXPECT_TRUE(unmounted.backupItem(m_source + "/Empty", m_group, "Empty", kEntry, nullptr));
}

TEST_F(QVLocalBackupTargetTest, ListsEverythingInTheGroupsFolder) {
  QVLocalBackupTarget target = makeTarget(m_destination);
  EXPECT_EQ(target.entriesInDirectoryForItem(m_group), std::nullopt) << "never backed up is not an empty list";

  fs::create_directories(m_destination + "/Photos");
  auto none = target.entriesInDirectoryForItem(m_group);
  ASSERT_TRUE(none);
  EXPECT_TRUE(none->empty());

  fs::create_directories(m_destination + "/Photos/20240101000000.backup");
  fs::create_directories(m_destination + "/Photos/20240102000000.backup");
  qvtest::writeFile(m_destination + "/Photos/.DS_Store", "x");
  qvtest::writeFile(m_destination + "/Photos/stray notes.txt", "x");
  qvtest::writeFile(m_destination + "/Photos/20240101000000.backup/inner.txt", "x");
  auto entries = target.entriesInDirectoryForItem(m_group);
  ASSERT_TRUE(entries);
  std::sort(entries->begin(), entries->end());
  EXPECT_EQ(*entries, (std::vector<std::string>{".DS_Store", "20240101000000.backup", "20240102000000.backup",
                                                "stray notes.txt"}));
}

TEST_F(QVLocalBackupTargetTest, RemovesOneEntryOrTheWholeGroupFolder) {
  const std::string group = m_destination + "/Photos";
  qvtest::writeFile(group + "/20240101000000.backup/a/b.txt", "x");
  qvtest::writeFile(group + "/20240102000000.backup/c.txt", "x");
  qvtest::writeFile(m_destination + "/Other/20240101000000.backup/d.txt", "x");
  QVLocalBackupTarget target = makeTarget(m_destination);

  EXPECT_TRUE(target.removeEntry("20240101000000.backup", m_group));
  EXPECT_FALSE(fs::exists(group + "/20240101000000.backup"));
  EXPECT_TRUE(fs::exists(group + "/20240102000000.backup/c.txt"));
  EXPECT_FALSE(target.removeEntry("20240101000000.backup", m_group)) << "removing what is gone fails";

  target.removeRootEntryForGroup(m_group);
  EXPECT_FALSE(fs::exists(group));
  EXPECT_TRUE(fs::exists(m_destination + "/Other/20240101000000.backup/d.txt"));
  EXPECT_TRUE(fs::exists(m_destination));
}

TEST_F(QVLocalBackupTargetTest, FailsWithTheDiskFullErrorOnAFullVolume) {
  if (!mountSmallVolume()) GTEST_SKIP() << "needs root to mount a small tmpfs";
  // Leave about half a megabyte free, then copy a megabyte of real data.
  qvtest::writeFile(m_destination + "/filler", std::string(3584 * 1024, 'f'));
  qvtest::writeFile(m_source + "/Movie.mov", std::string(1024 * 1024, 'm'));
  QVLocalBackupTarget target = makeTarget(m_destination);

  QVError error;
  EXPECT_FALSE(target.backupItem(m_source + "/Movie.mov", m_group, "Movie.mov", kEntry, &error));
  EXPECT_EQ(error.code, -1429);
  EXPECT_EQ(error.localizedDescription, "Error occured");
  EXPECT_EQ(error.recoverySuggestion, "There is not enough disk space to perform the requested operation");
  EXPECT_EQ(error.filePath, m_source + "/Movie.mov");
}

TEST_F(QVLocalBackupTargetTest, ForwardsTheCopyProgressToItsDelegate) {
  qvtest::writeFile(m_source + "/Album/one.jpg", std::string(1000, '1'));
  qvtest::writeFile(m_source + "/Album/sub/two.jpg", std::string(2000, '2'));
  qvtest::writeFile(m_source + "/Album/sub/empty", "");
  QVLocalBackupTarget target = makeTarget(m_destination);
  RecordingProgress progress;
  target.setDelegate(&progress);

  ASSERT_TRUE(target.backupItem(m_source + "/Album", m_group, "Album", kEntry, nullptr));

  ASSERT_FALSE(progress.events.empty());
  EXPECT_TRUE(progress.events.front().calculated) << "the totals come before any fraction";
  EXPECT_EQ(progress.events.front().files, 3u);
  EXPECT_EQ(progress.events.front().size, 3000u);
  double last = 0.0;
  for (std::size_t i = 1; i < progress.events.size(); ++i) {
    EXPECT_FALSE(progress.events[i].calculated) << "the totals come once";
    EXPECT_GT(progress.events[i].fraction, 0.0);
    EXPECT_GE(progress.events[i].fraction, last);
    last = progress.events[i].fraction;
  }
  EXPECT_EQ(progress.events.back().fraction, 1.0);
  EXPECT_FALSE(progress.events.back().calculated);
}

TEST_F(QVLocalBackupTargetTest, ACancelledDestinationStopsCopying) {
  const off_t big = 256 * 1024 * 1024;
  makeFileOfSize(m_source + "/big.iso", big);
  const std::string copy = m_destination + "/Photos/" + kEntry + "/big.iso";

  QVLocalBackupTarget cancelledFirst = makeTarget(m_destination);
  cancelledFirst.cancel();
  QVError error;
  EXPECT_FALSE(cancelledFirst.backupItem(m_source + "/big.iso", m_group, "big.iso", kEntry, &error));
  EXPECT_EQ(error.code, -128);
  EXPECT_FALSE(fs::exists(copy) && fs::file_size(copy) == static_cast<std::uintmax_t>(big));

  // Cancelled while the copy is under way: the copy routine notices at its next question.
  qvtest::writeFile(m_source + "/Album/a.jpg", "a");
  qvtest::writeFile(m_source + "/Album/b.jpg", "b");
  qvtest::writeFile(m_source + "/Album/c.jpg", "c");
  QVLocalBackupTarget cancelledDuring = makeTarget(m_destination);
  RecordingProgress progress;
  progress.onCalculated = [&] { cancelledDuring.cancel(); };
  cancelledDuring.setDelegate(&progress);
  EXPECT_FALSE(cancelledDuring.backupItem(m_source + "/Album", m_group, "Album", kEntry, &error));
  EXPECT_EQ(error.code, -128);
  const std::string album = m_destination + "/Photos/" + kEntry + "/Album";
  int copied = 0;
  for (const char* name : {"/a.jpg", "/b.jpg", "/c.jpg"}) copied += fs::exists(album + name) ? 1 : 0;
  EXPECT_LT(copied, 3);
}
