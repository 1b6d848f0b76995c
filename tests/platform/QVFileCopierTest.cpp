#include "platform/QVFileCopier.h"

#include <fcntl.h>
#include <linux/fs.h>
#include <sys/ioctl.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <functional>
#include <random>
#include <thread>
#include <tuple>

#include <gtest/gtest.h>

#include "platform/QVError.h"
#include "support/QVTestSupport.h"

namespace fs = std::filesystem;

class QVFileCopierTest : public ::testing::Test {
 protected:
  static constexpr std::uint64_t kMiB = 1u << 20;
  // Records what the copier reports; `answer` decides whether the copy goes on.
  struct RecordingDelegate : QVFileCopierDelegate {
    bool fileManagerShouldContinueCopyingItem() override { return answer ? answer() : true; }
    void fileManagerReachedProgress(double fraction) override { progress.push_back(fraction); }
    void fileManagerCalculatedFiles(std::uint64_t files, std::uint64_t size) override {
      EXPECT_TRUE(progress.empty()) << "progress before the totals";
      totals.insert(totals.end(), {files, size});
    }
    std::function<bool()> answer;
    std::vector<double> progress;
    std::vector<std::uint64_t> totals;
  };

  void SetUp() override { m_copier.setDelegate(&m_delegate); }
  void TearDown() override {
    if (m_mounted) umount2(m_volume.c_str(), MNT_DETACH);
  }
  // A small tmpfs of our own at m_volume (root only): a second file system, or a volume that fills up.
  bool mountTmpfs(const char* options) {
    fs::create_directories(m_volume);
    return m_mounted = geteuid() == 0 && mount("tmpfs", m_volume.c_str(), "tmpfs", 0, options) == 0;
  }
  // Whether this file system clones a file at once, leaving no moment inside a copy to act in.
  bool clones() {
    const std::string probe = m_dir / "probe", copyPath = m_dir / "probe-copy";
    qvtest::writeFile(probe, "p");
    const int in = open(probe.c_str(), O_RDONLY), out = open(copyPath.c_str(), O_WRONLY | O_CREAT, 0600);
    const bool cloned = ioctl(out, FICLONE, in) == 0;
    close(in), close(out), fs::remove(copyPath), fs::remove(probe);
    return cloned;
  }
  bool copy(const std::string& from, const std::string& to, bool ignoring = false) {
    m_error = QVError{};
    m_delegate.progress.clear(), m_delegate.totals.clear();
    return m_copier.copyItemReportingProgressAtPath(from, to, ignoring, &m_error);
  }

  qvtest::TemporaryDirectory m_dir;
  RecordingDelegate m_delegate;
  QVFileCopier m_copier;
  QVError m_error;
  const std::string m_volume = m_dir / "volume";
  bool m_mounted = false;
};

// Odd names, an empty and a read-only file, one of several copy chunks, links (one dangling), a
// read-only folder; every item with its own time, folders' set after their contents. Last, the tree is
// copied into a folder of its own, which must not copy itself.
TEST_F(QVFileCopierTest, CopiesATreeAsItIsOnTheSameAndOnAnotherFileSystemAndIntoItself) {
  const std::string src = m_dir / "src";
  std::string big(9 * kMiB + 123, '\0');
  std::generate(big.begin(), big.end(), std::mt19937(42));
  qvtest::writeFile(src + "/sub/deeper/big.bin", big);
  qvtest::writeFile(src + "/name with spaces ü é.txt", "ünïcode");
  qvtest::writeFile(src + "/locked/empty", "");
  fs::create_symlink("../sub", src + "/locked/link");
  fs::create_symlink("nowhere/at/all", src + "/dangling");
  chmod((src + "/sub/deeper/big.bin").c_str(), 0444);
  std::vector<std::string> items{src};
  for (const auto& item : fs::recursive_directory_iterator(src)) items.push_back(item.path());
  std::sort(items.rbegin(), items.rend());  // contents before their folder
  for (std::size_t i = 0; i < items.size(); ++i) {
    const timespec times[2] = {{1'500'000'000, 0}, {time_t(1'500'000'000 + 3600 * i), 123456789}};
    ASSERT_EQ(utimensat(AT_FDCWD, items[i].c_str(), times, AT_SYMLINK_NOFOLLOW), 0) << items[i];
  }
  chmod((src + "/locked").c_str(), 0555);

  std::vector<std::string> destinations{m_dir / "dst"};
  if (mountTmpfs("size=64m")) destinations.push_back(m_volume + "/dst");  // by read/write, not the kernel
  const auto contents = [](const std::string& path, mode_t mode) {        // a link's target, a file's bytes
    return S_ISLNK(mode) ? fs::read_symlink(path).string() : S_ISREG(mode) ? qvtest::readFile(path) : "";
  };
  for (const std::string& dst : destinations) {
    ASSERT_TRUE(copy(src, dst)) << m_error.localizedDescription.value_or("");
    EXPECT_EQ(std::distance(fs::recursive_directory_iterator(dst), {}), std::ptrdiff_t(items.size() - 1));
    for (const std::string& item : items) {
      const std::string copied = dst + item.substr(src.size());
      struct stat a {
      }, b{};
      ASSERT_EQ(lstat(item.c_str(), &a) | lstat(copied.c_str(), &b), 0) << copied;
      EXPECT_EQ(std::tuple(a.st_mode, a.st_mtim.tv_sec, a.st_mtim.tv_nsec),
                std::tuple(b.st_mode, b.st_mtim.tv_sec, b.st_mtim.tv_nsec))
          << copied;
      EXPECT_TRUE(contents(item, a.st_mode) == contents(copied, b.st_mode)) << copied;
    }
  }
  ASSERT_TRUE(copy(src, src + "/sub/copy"));
  EXPECT_EQ(qvtest::readFile(src + "/sub/copy/sub/deeper/big.bin"), big);
  EXPECT_FALSE(fs::exists(src + "/sub/copy/sub/copy"));
}

TEST_F(QVFileCopierTest, StopsOnAFullVolumeOrWithinEightMebibytesOfACancelAndRemovesThePartialFile) {
  if (mountTmpfs("size=4m")) {
    qvtest::writeFile(m_volume + "/filler", std::string(3 * kMiB, 'f'));
    qvtest::writeFile(m_dir / "src/photo.raw", std::string(2 * kMiB, 'p'));
    EXPECT_FALSE(copy(m_dir / "src", m_volume + "/dst"));
    EXPECT_EQ(m_error.code, -1429);
    EXPECT_TRUE(fs::exists(m_volume + "/dst"));
    EXPECT_FALSE(fs::exists(m_volume + "/dst/photo.raw"));
  }
  const std::string huge = m_dir / "huge.img", copyPath = m_dir / "huge-copy.img";
  if (clones()) GTEST_SKIP() << "this file system clones a file at once, with nothing to cancel";
  qvtest::writeFile(huge, "h");
  ASSERT_EQ(truncate(huge.c_str(), 1024 * kMiB), 0);  // sparse: reads as zeros, copies as data
  std::uint64_t size = 0;
  bool cancelled = false;
  m_delegate.answer = [&] {
    EXPECT_FALSE(cancelled) << "asked again after a cancel";
    const std::uint64_t now = fs::exists(copyPath) ? fs::file_size(copyPath) : 0;
    EXPECT_LE(now - size, 8 * kMiB);
    return !(cancelled = (size = now) >= 64 * kMiB);
  };
  EXPECT_FALSE(copy(huge, copyPath));
  EXPECT_EQ(m_error.code, -128);
  EXPECT_TRUE(cancelled);
  EXPECT_FALSE(fs::exists(copyPath));
  for (double fraction : m_delegate.progress) EXPECT_LE(fraction * 1024 * kMiB, size + 8 * kMiB);
}

// 40 files of 1000 bytes, an empty file and a link, with a delegate slow enough to need throttling.
TEST_F(QVFileCopierTest, ReportsTheTotalsOnceThenRisingThrottledProgressEndingAtOne) {
  for (int i = 0; i < 40; ++i) qvtest::writeFile(m_dir / ("src/f" + std::to_string(i)), std::string(1000, 'x'));
  qvtest::writeFile(m_dir / "src/empty", "");
  fs::create_symlink("f1", m_dir / "src/link");
  m_delegate.answer = [] {
    std::this_thread::sleep_for(std::chrono::milliseconds(15));
    return true;
  };
  const auto start = std::chrono::steady_clock::now();
  ASSERT_TRUE(copy(m_dir / "src", m_dir / "dst"));
  const double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  const std::vector<double>& progress = m_delegate.progress;
  EXPECT_EQ(m_delegate.totals, (std::vector<std::uint64_t>{42, 40000}));
  ASSERT_GE(progress.size(), 2u) << "no progress while copying";
  EXPECT_LE(progress.size(), seconds / 0.2 + 2) << "progress is not throttled";
  EXPECT_TRUE(std::is_sorted(progress.begin(), progress.end()));
  EXPECT_EQ(progress.back(), 1.0);
  EXPECT_LT(progress.end()[-2], 1.0);
}

// An item removed after its folder was listed fails the copy, or is passed over when ignoring errors. A
// file written to during its copy is copied again as it is then, and passed over when it keeps changing;
// a copy whose folder is removed meanwhile fails instead of reporting a file nowhere.
TEST_F(QVFileCopierTest, NeverStoresAnItemThatVanishedOrChangedMidCopyOrWhoseFolderWent) {
  const std::string src = m_dir / "src/big.bin", dst = m_dir / "dst";
  for (bool ignoring : {false, true}) {
    qvtest::writeFile(m_dir / "src/victim", "v");
    m_delegate.answer = [&] {
      if (fs::exists(dst)) fs::remove(m_dir / "src/victim");
      return true;
    };
    fs::remove_all(dst);
    EXPECT_EQ(copy(m_dir / "src", dst, ignoring), ignoring);
    EXPECT_EQ(m_error.code, ignoring ? 0 : -43);
    EXPECT_FALSE(fs::exists(dst + "/victim"));
    EXPECT_EQ(m_copier.passedOverPaths(), std::vector<std::string>(ignoring, m_dir / "src/victim"));
  }
  if (clones()) GTEST_SKIP() << "this file system clones a file at once, with nothing to change meanwhile";
  const auto inside = [&] { return fs::exists(dst + "/big.bin") && fs::file_size(dst + "/big.bin") > 0; };
  for (int changes : {1, 3}) {
    qvtest::writeFile(src, std::string(20 * kMiB, 'a'));
    int made = 0;
    m_delegate.answer = [&] {
      if (inside() && made < changes && ++made) qvtest::writeFile(src, std::string(9 * kMiB, 'b'));
      return true;
    };
    fs::remove_all(dst);
    EXPECT_TRUE(copy(m_dir / "src", dst, true));
    EXPECT_EQ(m_copier.passedOverPaths(), std::vector<std::string>(changes == 3, src)) << changes;
    EXPECT_EQ(qvtest::readFile(dst + "/big.bin"), changes == 3 ? "" : std::string(9 * kMiB, 'b')) << "never torn";
  }
  m_delegate.answer = [&] {
    if (inside()) fs::remove_all(dst);
    return true;
  };
  fs::remove_all(dst);
  qvtest::writeFile(src, std::string(20 * kMiB, 'a'));
  EXPECT_FALSE(copy(m_dir / "src", dst, true));
  EXPECT_NE(m_error.code, 0);
}
