#include "platform/QVFileCopier.h"

#include <fcntl.h>
#include <grp.h>
#include <linux/fs.h>
#include <sys/ioctl.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <filesystem>
#include <functional>
#include <random>
#include <set>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "platform/QVConstants.h"
#include "platform/QVError.h"
#include "platform/QVStatusTexts.h"
#include "support/QVTestSupport.h"

namespace fs = std::filesystem;

namespace {

constexpr std::uint64_t kMiB = 1u << 20;

class RecordingDelegate : public QVFileCopierDelegate {
 public:
  bool fileManagerShouldContinueCopyingItem() override {
    ++asks;
    return answer ? answer() : true;
  }
  void fileManagerReachedProgress(double fraction) override { progress.push_back(fraction); }
  void fileManagerCalculatedFiles(std::uint64_t f, std::uint64_t s) override {
    calculations.emplace_back(f, s);
    progressBeforeCalculation += progress.size();
  }

  std::function<bool()> answer;
  int asks = 0;
  std::vector<double> progress;
  std::vector<std::pair<std::uint64_t, std::uint64_t>> calculations;
  std::size_t progressBeforeCalculation = 0;
};

std::string randomBytes(std::size_t size) {
  std::mt19937 generator(42);
  std::string bytes(size, '\0');
  for (char& c : bytes) c = static_cast<char>(generator());
  return bytes;
}

void setTime(const std::string& path, time_t seconds) {
  const timespec times[2] = {{seconds, 0}, {seconds, 123456789}};
  ASSERT_EQ(utimensat(AT_FDCWD, path.c_str(), times, AT_SYMLINK_NOFOLLOW), 0) << path;
}

struct stat lstatOf(const std::string& path) {
  struct stat st {};
  lstat(path.c_str(), &st);
  return st;
}

// Every item of `from` exists in `to` with the same type, contents, mode, owner and modification time.
void expectSameTree(const std::string& from, const std::string& to) {
  std::size_t count = 0;
  for (const auto& item : fs::recursive_directory_iterator(from)) {
    ++count;
    const std::string copy = to + "/" + item.path().lexically_relative(from).string();
    const struct stat a = lstatOf(item.path()), b = lstatOf(copy);
    EXPECT_EQ(a.st_mode, b.st_mode) << copy;
    EXPECT_EQ(a.st_uid, b.st_uid) << copy;
    EXPECT_EQ(a.st_mtim.tv_sec, b.st_mtim.tv_sec) << copy;
    EXPECT_EQ(a.st_mtim.tv_nsec, b.st_mtim.tv_nsec) << copy;
    if (S_ISLNK(a.st_mode)) {
      EXPECT_EQ(fs::read_symlink(item.path()), fs::read_symlink(copy)) << copy;
    } else if (S_ISREG(a.st_mode)) {
      EXPECT_TRUE(qvtest::readFile(item.path()) == qvtest::readFile(copy)) << copy;
    }
  }
  const auto copies = std::distance(fs::recursive_directory_iterator(to), fs::recursive_directory_iterator());
  EXPECT_EQ(static_cast<std::size_t>(copies), count);
}

// A small tmpfs of our own, for a second file system and a volume that fills up.
class TmpfsMount {
 public:
  TmpfsMount(const std::string& path, const char* options) : m_path(path) {
    fs::create_directories(path);
    m_mounted = geteuid() == 0 && mount("tmpfs", path.c_str(), "tmpfs", 0, options) == 0;
  }
  ~TmpfsMount() {
    if (m_mounted) umount2(m_path.c_str(), MNT_DETACH);
  }
  bool mounted() const { return m_mounted; }

 private:
  std::string m_path;
  bool m_mounted = false;
};

struct Outcome {
  bool ok = false;
  std::int64_t code = 0;
  bool dropped = true;  // false: the child could not give up root, and the copy did not run
};

}  // namespace

class QVFileCopierTest : public ::testing::Test {
 protected:
  void SetUp() override { m_copier.setDelegate(&m_delegate); }

  bool copy(const std::string& from, const std::string& to, bool ignoring = false) {
    m_error = QVError{};
    return m_copier.copyItemReportingProgressAtPath(from, to, ignoring, &m_error);
  }

  // Files, folders (one read-only), links (one dangling, one to a folder), an empty file, a file of
  // several copy chunks, odd names; distinct times, folders' set last.
  std::string makeTree() {
    const std::string src = m_dir / "src";
    qvtest::writeFile(src + "/plain.txt", "hello");
    qvtest::writeFile(src + "/empty", "");
    qvtest::writeFile(src + "/name with spaces ü é.txt", "ünïcode");
    qvtest::writeFile(src + "/bin/tool", "#!/bin/sh\n");
    qvtest::writeFile(src + "/sub/deeper/big.bin", randomBytes(9 * kMiB + 123));
    qvtest::writeFile(src + "/locked/inside.txt", "x");
    fs::create_symlink("plain.txt", src + "/link");
    fs::create_symlink("nowhere/at/all", src + "/dangling");
    fs::create_symlink("sub", src + "/link-to-folder");
    chmod((src + "/plain.txt").c_str(), 0640);
    chmod((src + "/bin/tool").c_str(), 0755);
    chmod((src + "/sub/deeper/big.bin").c_str(), 0444);
    if (geteuid() == 0) lchown((src + "/plain.txt").c_str(), 65534, 65534);
    time_t when = 1'500'000'000;
    std::vector<std::string> items;
    for (const auto& item : fs::recursive_directory_iterator(src)) items.push_back(item.path());
    std::sort(items.rbegin(), items.rend());  // contents before their folder
    for (const auto& item : items) setTime(item, when += 3600);
    chmod((src + "/locked").c_str(), 0555);
    setTime(src + "/locked", 1'400'000'000);
    setTime(src, 1'300'000'000);
    return src;
  }

  qvtest::TemporaryDirectory m_dir;
  RecordingDelegate m_delegate;
  QVFileCopier m_copier;
  QVError m_error;
};

TEST_F(QVFileCopierTest, CopiesATreeWithContentsModesTimesAndLinksAsLinks) {
  const std::string src = makeTree();
  ASSERT_TRUE(copy(src, m_dir / "dst")) << m_error.localizedDescription.value_or("");
  expectSameTree(src, m_dir / "dst");
  EXPECT_EQ(lstatOf(m_dir / "dst").st_mtim.tv_sec, 1'300'000'000);
}

TEST_F(QVFileCopierTest, CopiesASingleFileOrLinkAsTheItem) {
  qvtest::writeFile(m_dir / "photo.jpg", "jpeg");
  chmod((m_dir / "photo.jpg").c_str(), 0604);
  setTime(m_dir / "photo.jpg", 1'234'567'890);
  fs::create_symlink("gone", m_dir / "link");
  ASSERT_TRUE(copy(m_dir / "photo.jpg", m_dir / "copy.jpg"));
  ASSERT_TRUE(copy(m_dir / "link", m_dir / "copy-link"));
  EXPECT_EQ(qvtest::readFile(m_dir / "copy.jpg"), "jpeg");
  EXPECT_EQ(lstatOf(m_dir / "copy.jpg").st_mode & 07777, 0604u);
  EXPECT_EQ(lstatOf(m_dir / "copy.jpg").st_mtim.tv_nsec, 123456789);
  EXPECT_EQ(fs::read_symlink(m_dir / "copy-link"), "gone");
}

TEST_F(QVFileCopierTest, CopiesToAnotherFileSystemThroughReadAndWrite) {
  TmpfsMount volume(m_dir / "volume", "size=64m");
  if (!volume.mounted()) GTEST_SKIP() << "mounting a tmpfs needs root";
  const std::string src = makeTree();
  ASSERT_TRUE(copy(src, m_dir / "volume/dst")) << m_error.localizedDescription.value_or("");
  expectSameTree(src, m_dir / "volume/dst");
}

TEST_F(QVFileCopierTest, FailsOnAFullVolumeAndRemovesThePartialFile) {
  TmpfsMount volume(m_dir / "volume", "size=4m");
  if (!volume.mounted()) GTEST_SKIP() << "mounting a tmpfs needs root";
  qvtest::writeFile(m_dir / "volume/filler", std::string(3 * kMiB, 'f'));
  qvtest::writeFile(m_dir / "src/photo.raw", randomBytes(2 * kMiB));
  EXPECT_FALSE(copy(m_dir / "src", m_dir / "volume/dst"));
  EXPECT_EQ(m_error.domain, kQVErrorDomain);
  EXPECT_EQ(m_error.code, -1429);
  EXPECT_EQ(m_error.filePath.value_or(""), m_dir / "volume/dst/photo.raw");
  if (const std::string text = qv::statusCommentString(-1429); !text.empty()) {
    EXPECT_EQ(m_error.recoverySuggestion.value_or(""), text);
  }
  EXPECT_TRUE(fs::exists(m_dir / "volume/dst"));
  EXPECT_FALSE(fs::exists(m_dir / "volume/dst/photo.raw"));
}

// Root reads everything: the copy runs in a child that has become "nobody".
TEST_F(QVFileCopierTest, PassesOverUnreadableItemsOnlyWhenIgnoringSourceErrors) {
  qvtest::writeFile(m_dir / "src/visible.txt", "v");
  qvtest::writeFile(m_dir / "src/sub/also.txt", "a");
  qvtest::writeFile(m_dir / "src/secret.txt", "s");
  qvtest::writeFile(m_dir / "src/private/hidden.txt", "h");
  fs::create_directories(m_dir / "out");
  chmod(m_dir.path().c_str(), 0755);
  chmod((m_dir / "out").c_str(), 0777);
  chmod((m_dir / "src/secret.txt").c_str(), 0);
  chmod((m_dir / "src/private").c_str(), 0);

  const auto copyUnprivileged = [&](const std::string& from, const std::string& to, bool ignoring) {
    if (geteuid() != 0) return Outcome{copy(from, to, ignoring), m_error.code};
    int fds[2];
    EXPECT_EQ(pipe(fds), 0);
    const pid_t child = fork();
    if (child == 0) {
      Outcome outcome{false, 0, false};
      if (setgroups(0, nullptr) == 0 && setresgid(65534, 65534, 65534) == 0 &&
          setresuid(65534, 65534, 65534) == 0) {
        outcome = Outcome{copy(from, to, ignoring), m_error.code};
      }
      (void)!write(fds[1], &outcome, sizeof outcome);
      _exit(0);
    }
    close(fds[1]);
    Outcome outcome{false, 0, false};
    EXPECT_EQ(read(fds[0], &outcome, sizeof outcome), static_cast<ssize_t>(sizeof outcome));
    close(fds[0]);
    waitpid(child, nullptr, 0);
    return outcome;
  };

  const Outcome ignoring = copyUnprivileged(m_dir / "src", m_dir / "out/ignoring", true);
  if (!ignoring.dropped) GTEST_SKIP() << "cannot become nobody here";
  EXPECT_TRUE(ignoring.ok) << ignoring.code;
  EXPECT_EQ(qvtest::readFile(m_dir / "out/ignoring/visible.txt"), "v");
  EXPECT_EQ(qvtest::readFile(m_dir / "out/ignoring/sub/also.txt"), "a");
  EXPECT_FALSE(fs::exists(m_dir / "out/ignoring/secret.txt"));
  EXPECT_FALSE(fs::exists(m_dir / "out/ignoring/private"));

  fs::permissions(m_dir / "src/private", fs::perms::owner_all, fs::perm_options::add);
  fs::remove_all(m_dir / "src/private");
  const Outcome failing = copyUnprivileged(m_dir / "src", m_dir / "out/failing", false);
  EXPECT_FALSE(failing.ok);
  EXPECT_EQ(failing.code, -54);
  EXPECT_FALSE(fs::exists(m_dir / "out/failing/secret.txt"));
}

TEST_F(QVFileCopierTest, StopsABigFileWithinEightMebibytesOfACancel) {
  {
    qvtest::writeFile(m_dir / "probe", "probe");
    const int in = open((m_dir / "probe").c_str(), O_RDONLY);
    const int out = open((m_dir / "probe-clone").c_str(), O_WRONLY | O_CREAT, 0600);
    const bool clones = ioctl(out, FICLONE, in) == 0;
    close(in);
    close(out);
    if (clones) GTEST_SKIP() << "this file system clones a file at once, with nothing to cancel";
  }
  const std::string huge = m_dir / "huge.img", copyPath = m_dir / "huge-copy.img";
  const int fd = open(huge.c_str(), O_WRONLY | O_CREAT, 0644);
  ASSERT_EQ(ftruncate(fd, 1024 * kMiB), 0);  // sparse: reads as zeros, copies as data
  close(fd);

  std::vector<std::uint64_t> sizesAtAsks;
  std::uint64_t sizeAtCancel = 0;
  int asksAfterCancel = 0;
  m_delegate.answer = [&] {
    if (sizeAtCancel > 0) {
      ++asksAfterCancel;
      return false;
    }
    sizesAtAsks.push_back(fs::exists(copyPath) ? fs::file_size(copyPath) : 0);
    if (sizesAtAsks.back() < 64 * kMiB) return true;
    sizeAtCancel = sizesAtAsks.back();
    return false;
  };
  EXPECT_FALSE(copy(huge, copyPath));
  EXPECT_EQ(m_error.code, -128);
  EXPECT_GE(sizeAtCancel, 64 * kMiB);
  EXPECT_EQ(asksAfterCancel, 0);
  EXPECT_FALSE(fs::exists(copyPath));
  for (std::size_t i = 1; i < sizesAtAsks.size(); ++i) EXPECT_LE(sizesAtAsks[i] - sizesAtAsks[i - 1], 8 * kMiB);
  for (double fraction : m_delegate.progress) EXPECT_LE(fraction * 1024 * kMiB, sizeAtCancel + 8 * kMiB);
}

TEST_F(QVFileCopierTest, KeepsTheFilesCopiedBeforeACancelBetweenFiles) {
  for (int i = 0; i < 6; ++i) qvtest::writeFile(m_dir / ("src/f" + std::to_string(i)), std::to_string(i));
  m_delegate.answer = [&] { return m_delegate.asks <= 3; };  // the folder, then two files
  EXPECT_FALSE(copy(m_dir / "src", m_dir / "dst"));
  EXPECT_EQ(m_error.code, -128);
  std::set<std::string> copied;
  for (const auto& item : fs::directory_iterator(m_dir / "dst")) {
    copied.insert(item.path().filename());
    EXPECT_EQ(qvtest::readFile(item.path()), qvtest::readFile(m_dir / "src" / item.path().filename()));
  }
  EXPECT_EQ(copied.size(), 2u);
}

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

  ASSERT_EQ(m_delegate.calculations.size(), 1u);
  EXPECT_EQ(m_delegate.calculations[0], std::make_pair(std::uint64_t{42}, std::uint64_t{40000}));
  EXPECT_EQ(m_delegate.progressBeforeCalculation, 0u);
  ASSERT_GE(m_delegate.progress.size(), 2u) << "no progress while copying";
  EXPECT_LE(m_delegate.progress.size(), seconds / 0.2 + 2) << "progress is not throttled";
  EXPECT_TRUE(std::is_sorted(m_delegate.progress.begin(), m_delegate.progress.end()));
  EXPECT_EQ(m_delegate.progress.back(), 1.0);
  EXPECT_LT(m_delegate.progress.end()[-2], 1.0);

  m_delegate = RecordingDelegate{};
  fs::create_directories(m_dir / "nothing");
  ASSERT_TRUE(copy(m_dir / "nothing", m_dir / "nothing-copy"));
  EXPECT_EQ(m_delegate.calculations[0], std::make_pair(std::uint64_t{0}, std::uint64_t{0}));
  EXPECT_EQ(m_delegate.progress, std::vector<double>{1.0});
}

TEST_F(QVFileCopierTest, ReportsASourceThatVanishesAsMissing) {
  EXPECT_FALSE(copy(m_dir / "no such item", m_dir / "dst"));
  EXPECT_EQ(m_error.code, -43);
  EXPECT_EQ(m_error.filePath.value_or(""), m_dir / "no such item");
  EXPECT_FALSE(fs::exists(m_dir / "dst"));

  // The file goes away after the folder was listed, before its turn comes.
  for (bool ignoring : {false, true}) {
    qvtest::writeFile(m_dir / "src/victim", "v");
    qvtest::writeFile(m_dir / "src/stays", "s");
    const std::string dst = m_dir / (ignoring ? "dst-ignoring" : "dst-failing");
    m_delegate.answer = [&] {
      if (fs::exists(dst)) fs::remove(m_dir / "src/victim");
      return true;
    };
    if (ignoring) {
      EXPECT_TRUE(copy(m_dir / "src", dst, true));
      EXPECT_EQ(qvtest::readFile(dst + "/stays"), "s");
    } else {
      EXPECT_FALSE(copy(m_dir / "src", dst, false));
      EXPECT_EQ(m_error.code, -43);
      EXPECT_EQ(m_error.filePath.value_or(""), m_dir / "src/victim");
    }
    EXPECT_FALSE(fs::exists(dst + "/victim"));
  }
}

TEST_F(QVFileCopierTest, RefusesAnExistingDestinationWithoutTouchingIt) {
  qvtest::writeFile(m_dir / "new.txt", "new");
  qvtest::writeFile(m_dir / "src/new.txt", "new");
  qvtest::writeFile(m_dir / "old.txt", "precious");
  qvtest::writeFile(m_dir / "old/kept.txt", "kept");
  EXPECT_FALSE(copy(m_dir / "new.txt", m_dir / "old.txt"));
  EXPECT_EQ(m_error.code, qv::statusCodeForErrno(EEXIST));
  EXPECT_FALSE(copy(m_dir / "src", m_dir / "old"));
  EXPECT_EQ(m_error.code, qv::statusCodeForErrno(EEXIST));
  EXPECT_EQ(qvtest::readFile(m_dir / "old.txt"), "precious");
  EXPECT_FALSE(fs::exists(m_dir / "old/new.txt"));
  EXPECT_EQ(qvtest::readFile(m_dir / "old/kept.txt"), "kept");
}

TEST_F(QVFileCopierTest, DoesNotCopyItselfIntoADestinationInsideTheSource) {
  qvtest::writeFile(m_dir / "src/a/file", "f");
  ASSERT_TRUE(copy(m_dir / "src", m_dir / "src/a/copy"));
  EXPECT_EQ(qvtest::readFile(m_dir / "src/a/copy/a/file"), "f");
  EXPECT_FALSE(fs::exists(m_dir / "src/a/copy/a/copy"));
}
