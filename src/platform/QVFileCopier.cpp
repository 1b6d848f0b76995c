#include "platform/QVFileCopier.h"

#include <dirent.h>
#include <fcntl.h>
#include <linux/fs.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <memory>
#include <new>
#include <vector>

#include "platform/QVConstants.h"
#include "platform/QVError.h"
#include "platform/QVLog.h"
#include "platform/QVPassedOverFolders.h"
#include "platform/QVStatusTexts.h"

namespace {

constexpr std::int32_t kCancelledStatus = -128;

// The delegate is asked again once this much data has moved since the last question, so that a cancel
// stops a big file quickly. copy_file_range gets at most this much per call for the same reason.
constexpr std::uint64_t kAskInterval = 8u << 20;
constexpr std::size_t kCopyRangeChunk = 8u << 20;
constexpr std::size_t kBufferSize = 1u << 20;
constexpr auto kProgressInterval = std::chrono::milliseconds(200);
// How many times in all a file that changes while it is copied is copied.
constexpr int kCopyAttempts = 3;

template <typename Call>
auto retryOnInterrupt(Call call) {
  decltype(call()) result;
  do {
    result = call();
  } while (result == -1 && errno == EINTR);
  return result;
}

class ScopedFd {
 public:
  explicit ScopedFd(int fd = -1) : m_fd(fd) {}
  ~ScopedFd() { reset(); }
  ScopedFd(const ScopedFd&) = delete;
  ScopedFd& operator=(const ScopedFd&) = delete;

  int get() const { return m_fd; }
  bool valid() const { return m_fd >= 0; }
  void reset() {
    if (m_fd >= 0) ::close(m_fd);
    m_fd = -1;
  }
  // Closes now and says whether the kernel reported a late write error (NFS, quotas).
  [[nodiscard]] bool close() {
    const int fd = m_fd;
    m_fd = -1;
    return ::close(fd) == 0 || errno == EINTR;
  }

 private:
  int m_fd;
};

struct DirCloser {
  void operator()(DIR* dir) const { ::closedir(dir); }
};
using ScopedDir = std::unique_ptr<DIR, DirCloser>;

struct Entry {
  std::string name;
  unsigned char type;  // DT_* as readdir gave it, DT_UNKNOWN on file systems that do not say
};

enum class Side { Source, Destination };

unsigned char entryType(mode_t mode) {
  if (S_ISDIR(mode)) return DT_DIR;
  if (S_ISREG(mode)) return DT_REG;
  if (S_ISLNK(mode)) return DT_LNK;
  return DT_UNKNOWN;
}

// Whether the open file now differs in size or modification time from what st says of it.
bool changedSince(int fd, const struct stat& st) {
  struct stat now;
  return ::fstat(fd, &now) == 0 && (now.st_size != st.st_size || now.st_mtim.tv_sec != st.st_mtim.tv_sec ||
                                    now.st_mtim.tv_nsec != st.st_mtim.tv_nsec);
}

// Errors of our own process rather than of the item: passing over the item would silently lose data.
bool isResourceError(int error) { return error == EMFILE || error == ENFILE || error == ENOMEM; }

// A file system that cannot hold an owner, mode or time (FAT, some network shares) refuses it this way;
// the contents are what the user backs up, so the copy goes on.
bool isUnsupportedAttribute(int error) { return error == EPERM || error == EOPNOTSUPP || error == ENOTSUP; }

std::string childPath(const std::string& parent, const std::string& name) {
  return parent.empty() || parent.back() == '/' ? parent + name : parent + "/" + name;
}

// The state of one call of copyItemReportingProgressAtPath: totals, progress, the error that ended it, and what
// the kernel turned out not to support on the source's device.
class CopyOperation {
 public:
  CopyOperation(QVFileCopierDelegate* delegate, bool ignoringSourceErrors)
      : m_delegate(delegate), m_ignoringSourceErrors(ignoringSourceErrors), m_isRoot(::geteuid() == 0) {}

  bool run(const std::string& sourcePath, const std::string& destinationPath);
  void writeError(QVError* error) const;
  std::uint64_t filesCopied() const { return m_filesCopied; }
  std::uint64_t bytesCopied() const { return m_bytesCopied; }
  std::vector<std::string> takePassedOverPaths() { return std::move(m_passedOver); }
  void failOutOfMemory(const std::string& path) { fail(Side::Source, ENOMEM, "copy", path); }

 private:
  // Walking the tree first gives the totals the delegate is told before any data moves.
  bool scanDirectory(int parentFd, const std::string& name, const std::string& path, bool isTop);
  bool listDirectory(int fd, const std::string& path, std::vector<Entry>& entries, ScopedDir& dir);

  bool copyItem(int srcParent, const std::string& srcName, const std::string& srcPath, int dstParent,
                const std::string& dstName, const std::string& dstPath, unsigned char type, bool isTop);
  bool copyDirectory(int srcParent, const std::string& srcName, const std::string& srcPath, int dstParent,
                     const std::string& dstName, const std::string& dstPath, bool isTop);
  bool copyFile(int srcParent, const std::string& srcName, const std::string& srcPath, int dstParent,
                const std::string& dstName, const std::string& dstPath, bool isTop);
  bool copySymlink(int srcParent, const std::string& srcName, const std::string& srcPath, int dstParent,
                   const std::string& dstName, const std::string& dstPath, bool isTop);

  enum class Transfer { Done, SourceFailed, Failed };
  Transfer copyContents(int in, int out, const struct stat& st, const std::string& srcPath, const std::string& dstPath,
                        std::uint64_t& copied);
  Transfer readWriteContents(int in, int out, std::uint64_t size, const std::string& srcPath,
                             const std::string& dstPath, std::uint64_t& copied);
  bool applyAttributes(int fd, const struct stat& st, const std::string& dstPath);

  // A source item that could not be read: passed over when allowed (true), else the copy fails. A file
  // passed over counts as done, with its size, so that the progress still reaches the total.
  bool sourceFailure(int error, const std::string& operation, const std::string& path, bool isTop);
  bool fileSourceFailure(int error, const std::string& operation, const std::string& path, bool isTop,
                         std::uint64_t size = 0) {
    if (!sourceFailure(error, operation, path, isTop)) return false;
    finishItem(size);
    return true;
  }
  bool mayPassOver(int error, bool isTop) const { return m_ignoringSourceErrors && !isTop && !isResourceError(error); }
  // mayPassOver, remembering the path when it is passed over.
  bool passOver(int error, const std::string& path, bool isTop) {
    if (!mayPassOver(error, isTop)) return false;
    m_passedOver.push_back(path);
    return true;
  }
  bool fail(Side side, int error, const std::string& operation, const std::string& path);
  bool cancelled(const std::string& path);
  Transfer failTransfer(Side side, int error, const std::string& operation, const std::string& path) {
    fail(side, error, operation, path);
    return Transfer::Failed;
  }
  Transfer cancelledTransfer(const std::string& path) {
    cancelled(path);
    return Transfer::Failed;
  }

  bool shouldContinue();
  bool shouldContinueIfDue() { return m_bytesSinceAsk < kAskInterval || shouldContinue(); }
  void addBytes(std::uint64_t bytes);
  void finishItem(std::uint64_t skippedBytes = 0);
  void reportProgress();

  static bool contains(const std::vector<dev_t>& devices, dev_t device) {
    return std::find(devices.begin(), devices.end(), device) != devices.end();
  }

  QVFileCopierDelegate* m_delegate;
  const bool m_ignoringSourceErrors;
  const bool m_isRoot;

  std::uint64_t m_totalFiles = 0;
  std::uint64_t m_totalBytes = 0;
  std::uint64_t m_filesDone = 0;
  std::uint64_t m_bytesDone = 0;
  bool m_lastCopyCloned = false;  // the last file's contents were cloned
  std::uint64_t m_bytesSinceAsk = 0;
  std::uint64_t m_filesCopied = 0;
  std::uint64_t m_bytesCopied = 0;
  std::vector<std::string> m_passedOver;
  double m_lastFraction = 0.0;
  std::chrono::steady_clock::time_point m_lastReport;

  // The destination folder made for the copy; met again inside the source when the destination lies
  // within it, and then passed over so that the copy does not copy itself.
  dev_t m_destinationDevice = 0;
  ino_t m_destinationInode = 0;
  bool m_haveDestinationRoot = false;
  // Backup destinations and the program's own folders, as they stood when the copy began: never entered.
  std::vector<qv::QVFolderIdentity> m_foldersPassedOver = qv::passedOverFolderIdentities();

  bool isPassedOver(const struct stat& st) const {
    const qv::QVFolderIdentity identity{static_cast<std::uint64_t>(st.st_dev), static_cast<std::uint64_t>(st.st_ino)};
    return std::find(m_foldersPassedOver.begin(), m_foldersPassedOver.end(), identity) != m_foldersPassedOver.end();
  }

  std::vector<dev_t> m_noCloneDevices;
  std::vector<dev_t> m_noCopyRangeDevices;
  std::unique_ptr<char[]> m_buffer;

  int m_errno = 0;  // of the error behind m_status, when it came from the system
  std::int32_t m_status = 0;
  std::string m_description;
  std::string m_errorPath;
};

bool CopyOperation::run(const std::string& sourcePath, const std::string& destinationPath) {
  struct stat st;
  if (::fstatat(AT_FDCWD, sourcePath.c_str(), &st, AT_SYMLINK_NOFOLLOW) != 0) {
    return fail(Side::Source, errno, "read", sourcePath);
  }
  const unsigned char type = entryType(st.st_mode);
  if (type == DT_DIR) {
    if (!scanDirectory(AT_FDCWD, sourcePath, sourcePath, true)) return false;
  } else if (type == DT_REG) {
    m_totalFiles = 1;
    m_totalBytes = static_cast<std::uint64_t>(st.st_size);
  } else if (type == DT_LNK) {
    m_totalFiles = 1;
  } else {
    return fail(Side::Source, ENOTSUP, "copy the special file", sourcePath);
  }

  if (m_delegate) m_delegate->fileManagerCalculatedFiles(m_totalFiles, m_totalBytes);
  m_lastReport = std::chrono::steady_clock::now();

  if (!copyItem(AT_FDCWD, sourcePath, sourcePath, AT_FDCWD, destinationPath, destinationPath, type, true)) {
    return false;
  }
  if (m_delegate) m_delegate->fileManagerReachedProgress(1.0);
  return true;
}

bool CopyOperation::listDirectory(int fd, const std::string& path, std::vector<Entry>& entries, ScopedDir& dir) {
  // The stream takes its own descriptor: the caller's stays open for the *at() calls.
  const int streamFd = ::fcntl(fd, F_DUPFD_CLOEXEC, 0);
  if (streamFd < 0) return fail(Side::Source, errno, "list", path);
  dir.reset(::fdopendir(streamFd));
  if (!dir) {
    const int error = errno;
    ::close(streamFd);
    return fail(Side::Source, error, "list", path);
  }
  for (;;) {
    errno = 0;
    const dirent* entry = ::readdir(dir.get());
    if (!entry) break;
    const char* name = entry->d_name;
    if (name[0] == '.' && (name[1] == '\0' || (name[1] == '.' && name[2] == '\0'))) continue;
    entries.push_back(Entry{name, entry->d_type});
  }
  if (errno != 0) return fail(Side::Source, errno, "list", path);
  return true;
}

bool CopyOperation::scanDirectory(int parentFd, const std::string& name, const std::string& path, bool isTop) {
  ScopedFd fd(::openat(parentFd, name.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
  if (!fd.valid()) {
    const int error = errno;
    if (error == ENOENT && !isTop) return true;  // gone already; the copy will not meet it either
    fail(Side::Source, error, "list", path);
    return mayPassOver(error, isTop);
  }
  if (struct stat st; !m_foldersPassedOver.empty() && ::fstat(fd.get(), &st) == 0 && isPassedOver(st)) return true;
  std::vector<Entry> entries;
  ScopedDir dir;
  if (!listDirectory(fd.get(), path, entries, dir)) return mayPassOver(m_errno, isTop);
  dir.reset();

  for (const Entry& entry : entries) {
    unsigned char type = entry.type;
    struct stat st;
    if (type == DT_REG || type == DT_UNKNOWN) {
      if (::fstatat(fd.get(), entry.name.c_str(), &st, AT_SYMLINK_NOFOLLOW) != 0) {
        const int error = errno;
        if (error == ENOENT) continue;
        fail(Side::Source, error, "read", childPath(path, entry.name));
        if (!mayPassOver(error, false)) return false;
        continue;
      }
      type = entryType(st.st_mode);
    }
    if (type == DT_DIR) {
      if (!scanDirectory(fd.get(), entry.name, childPath(path, entry.name), false)) return false;
    } else if (type == DT_REG) {
      ++m_totalFiles;
      m_totalBytes += static_cast<std::uint64_t>(st.st_size);
    } else if (type == DT_LNK) {
      ++m_totalFiles;
    }
  }
  return true;
}

bool CopyOperation::copyItem(int srcParent, const std::string& srcName, const std::string& srcPath, int dstParent,
                             const std::string& dstName, const std::string& dstPath, unsigned char type, bool isTop) {
  if (!shouldContinue()) return cancelled(srcPath);
  if (type == DT_UNKNOWN) {
    struct stat st;
    if (::fstatat(srcParent, srcName.c_str(), &st, AT_SYMLINK_NOFOLLOW) != 0) {
      return sourceFailure(errno, "read", srcPath, isTop);
    }
    type = entryType(st.st_mode);
  }
  switch (type) {
    case DT_DIR:
      return copyDirectory(srcParent, srcName, srcPath, dstParent, dstName, dstPath, isTop);
    case DT_REG:
      return copyFile(srcParent, srcName, srcPath, dstParent, dstName, dstPath, isTop);
    case DT_LNK:
      return copySymlink(srcParent, srcName, srcPath, dstParent, dstName, dstPath, isTop);
    default:
      // Sockets, pipes and device nodes hold no data of the user's; a backup passes over them, and says so.
      qv::debugLog("platform", "QVFileCopier passes over the special file " + srcPath);
      m_passedOver.push_back(srcPath);
      return true;
  }
}

bool CopyOperation::copyDirectory(int srcParent, const std::string& srcName, const std::string& srcPath, int dstParent,
                                  const std::string& dstName, const std::string& dstPath, bool isTop) {
  ScopedFd src(::openat(srcParent, srcName.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
  if (!src.valid()) return sourceFailure(errno, "open", srcPath, isTop);
  struct stat st;
  if (::fstat(src.get(), &st) != 0) return sourceFailure(errno, "read", srcPath, isTop);
  if (m_haveDestinationRoot && st.st_dev == m_destinationDevice && st.st_ino == m_destinationInode) return true;
  if (isPassedOver(st)) return true;

  // Listed before the copy's own folder exists, so that a destination inside the source is not in it.
  std::vector<Entry> entries;
  {
    ScopedDir dir;
    if (!listDirectory(src.get(), srcPath, entries, dir)) return passOver(m_errno, srcPath, isTop);
  }

  // Private while it fills; the source's mode (perhaps read-only) comes last.
  if (::mkdirat(dstParent, dstName.c_str(), S_IRWXU) != 0) {
    return fail(Side::Destination, errno, "create", dstPath);
  }
  ScopedFd dst(::openat(dstParent, dstName.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
  if (!dst.valid()) return fail(Side::Destination, errno, "open", dstPath);
  if (isTop) {
    struct stat dstStat;
    if (::fstat(dst.get(), &dstStat) != 0) return fail(Side::Destination, errno, "read", dstPath);
    m_destinationDevice = dstStat.st_dev;
    m_destinationInode = dstStat.st_ino;
    m_haveDestinationRoot = true;
  }

  for (const Entry& entry : entries) {
    if (!copyItem(src.get(), entry.name, childPath(srcPath, entry.name), dst.get(), entry.name,
                  childPath(dstPath, entry.name), entry.type, false)) {
      return false;
    }
  }
  // Last, since creating the entries above changed the folder's times.
  return applyAttributes(dst.get(), st, dstPath);
}

bool CopyOperation::copyFile(int srcParent, const std::string& srcName, const std::string& srcPath, int dstParent,
                             const std::string& dstName, const std::string& dstPath, bool isTop) {
  // O_NONBLOCK: a file that became a pipe since the listing must not hang the copy; regular files
  // ignore the flag.
  ScopedFd in(retryOnInterrupt(
      [&] { return ::openat(srcParent, srcName.c_str(), O_RDONLY | O_NOFOLLOW | O_CLOEXEC | O_NOCTTY | O_NONBLOCK); }));
  if (!in.valid()) {
    const int error = errno;
    struct stat st;
    std::uint64_t size = 0;
    if (::fstatat(srcParent, srcName.c_str(), &st, AT_SYMLINK_NOFOLLOW) == 0) {
      size = static_cast<std::uint64_t>(st.st_size);
    }
    return fileSourceFailure(error, "open", srcPath, isTop, size);
  }
  struct stat st;
  if (::fstat(in.get(), &st) != 0) return fileSourceFailure(errno, "read", srcPath, isTop);
  if (!S_ISREG(st.st_mode)) {
    m_passedOver.push_back(srcPath);  // became something else since the listing
    return true;
  }

  // O_EXCL: an existing file is never written over. Private until the attributes are set.
  ScopedFd out(retryOnInterrupt([&] {
    return ::openat(dstParent, dstName.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC,
                    S_IRUSR | S_IWUSR);
  }));
  if (!out.valid()) return fail(Side::Destination, errno, "create", dstPath);

  std::uint64_t copied = 0;
  Transfer result = copyContents(in.get(), out.get(), st, srcPath, dstPath, copied);
  // A file written to while it was copied (cut short, grown, rewritten) would be stored torn: it is
  // copied again from its start, as it is then, and passed over when it keeps changing. A clone is
  // taken at one moment and needs no second look.
  for (int attempt = 1; result == Transfer::Done && !m_lastCopyCloned && changedSince(in.get(), st); ++attempt) {
    if (attempt == kCopyAttempts) {
      fail(Side::Source, EAGAIN, "copy a stable state of", srcPath);
      result = Transfer::SourceFailed;
      break;
    }
    qv::debugLog("platform", "QVFileCopier copies " + srcPath + " again: it changed during the copy");
    m_bytesDone -= std::min(m_bytesDone, copied);  // progress counts the copy that is kept
    copied = 0;
    if (::fstat(in.get(), &st) != 0 || ::lseek(in.get(), 0, SEEK_SET) != 0) {
      result = failTransfer(Side::Source, errno, "read", srcPath);
    } else if (::ftruncate(out.get(), 0) != 0 || ::lseek(out.get(), 0, SEEK_SET) != 0) {
      result = failTransfer(Side::Destination, errno, "write", dstPath);
    } else {
      result = copyContents(in.get(), out.get(), st, srcPath, dstPath, copied);
    }
  }
  // A copy whose folder was removed meanwhile (the folder deleted, a volume gone) went nowhere. Some
  // file systems report no links for every file: the name is looked up to be sure.
  if (struct stat written, named;
      result == Transfer::Done && ::fstat(out.get(), &written) == 0 && written.st_nlink == 0 &&
      ::fstatat(dstParent, dstName.c_str(), &named, AT_SYMLINK_NOFOLLOW) != 0 && errno == ENOENT) {
    result = failTransfer(Side::Destination, ENOENT, "write", dstPath);
  }
  if (result == Transfer::Done && !applyAttributes(out.get(), st, dstPath)) result = Transfer::Failed;
  if (result == Transfer::Done && !out.close()) {
    result = failTransfer(Side::Destination, errno, "write", dstPath);
  }
  if (result != Transfer::Done) {
    // Never leave a partly written file that looks like a complete copy.
    out.reset();
    ::unlinkat(dstParent, dstName.c_str(), 0);
    if (result == Transfer::Failed) return false;
    // The source could not be read to its end: pass it over if allowed, with the error kept if not.
    if (!passOver(m_errno, srcPath, isTop)) return false;
    qv::debugLog("platform", "QVFileCopier passes over " + srcPath + ": " + m_description);
    const auto size = static_cast<std::uint64_t>(st.st_size);
    finishItem(size > copied ? size - copied : 0);
    return true;
  }
  ++m_filesCopied;
  m_bytesCopied += static_cast<std::uint64_t>(st.st_size);
  finishItem();
  return true;
}

bool CopyOperation::copySymlink(int srcParent, const std::string& srcName, const std::string& srcPath, int dstParent,
                                const std::string& dstName, const std::string& dstPath, bool isTop) {
  struct stat st;
  if (::fstatat(srcParent, srcName.c_str(), &st, AT_SYMLINK_NOFOLLOW) != 0) {
    return fileSourceFailure(errno, "read", srcPath, isTop);
  }
  // st_size is the target's length on most file systems, 0 on some; grow until the target fits.
  std::string target(std::max<std::size_t>(static_cast<std::size_t>(st.st_size) + 1, 256), '\0');
  for (;;) {
    const ssize_t length = ::readlinkat(srcParent, srcName.c_str(), target.data(), target.size());
    if (length < 0) return fileSourceFailure(errno, "read", srcPath, isTop);
    if (static_cast<std::size_t>(length) < target.size()) {
      target.resize(static_cast<std::size_t>(length));
      break;
    }
    target.resize(target.size() * 2);
  }
  if (::symlinkat(target.c_str(), dstParent, dstName.c_str()) != 0) {
    return fail(Side::Destination, errno, "create", dstPath);
  }
  if (m_isRoot) ::fchownat(dstParent, dstName.c_str(), st.st_uid, st.st_gid, AT_SYMLINK_NOFOLLOW);
  const struct timespec times[2] = {st.st_atim, st.st_mtim};
  if (::utimensat(dstParent, dstName.c_str(), times, AT_SYMLINK_NOFOLLOW) != 0 && !isUnsupportedAttribute(errno)) {
    const int error = errno;
    ::unlinkat(dstParent, dstName.c_str(), 0);
    return fail(Side::Destination, error, "set the attributes of", dstPath);
  }
  ++m_filesCopied;
  finishItem();
  return true;
}

CopyOperation::Transfer CopyOperation::copyContents(int in, int out, const struct stat& st, const std::string& srcPath,
                                                    const std::string& dstPath, std::uint64_t& copied) {
  const auto size = static_cast<std::uint64_t>(st.st_size);
  m_lastCopyCloned = false;
  if (size == 0) return Transfer::Done;

  // A clone shares the blocks (Btrfs, XFS): no data moves, whatever the size.
  if (!contains(m_noCloneDevices, st.st_dev)) {
    if (retryOnInterrupt([&] { return ::ioctl(out, FICLONE, in); }) == 0) {
      m_lastCopyCloned = true;
      copied = size;
      addBytes(size);
      return Transfer::Done;
    }
    const int error = errno;
    if (error == ENOSPC || error == EDQUOT) return failTransfer(Side::Destination, error, "write", dstPath);
    if (error == EOPNOTSUPP || error == ENOTTY || error == EXDEV || error == EINVAL || error == ENOSYS) {
      m_noCloneDevices.push_back(st.st_dev);
    }
  }

  // The kernel copies between the two files (server-side on network shares, splice elsewhere). Any
  // failure other than a full volume falls back to read/write, which tells a source fault from a
  // destination fault; both continue from the same file offsets.
  if (!contains(m_noCopyRangeDevices, st.st_dev)) {
    while (copied < size) {
      if (!shouldContinueIfDue()) return cancelledTransfer(srcPath);
      const auto chunk = static_cast<std::size_t>(std::min<std::uint64_t>(kCopyRangeChunk, size - copied));
      const ssize_t n = retryOnInterrupt([&] { return ::copy_file_range(in, nullptr, out, nullptr, chunk, 0); });
      if (n < 0) {
        const int error = errno;
        if (error == ENOSPC || error == EDQUOT) return failTransfer(Side::Destination, error, "write", dstPath);
        if (copied == 0 &&
            (error == EXDEV || error == EINVAL || error == ENOSYS || error == EOPNOTSUPP || error == ENOTSUP)) {
          m_noCopyRangeDevices.push_back(st.st_dev);
        }
        break;
      }
      // 0 means the file shrank, or (some pseudo file systems) no support: read/write finds out which.
      if (n == 0) break;
      copied += static_cast<std::uint64_t>(n);
      addBytes(static_cast<std::uint64_t>(n));
    }
    if (copied >= size) return Transfer::Done;
  }
  return readWriteContents(in, out, size, srcPath, dstPath, copied);
}

CopyOperation::Transfer CopyOperation::readWriteContents(int in, int out, std::uint64_t size,
                                                         const std::string& srcPath, const std::string& dstPath,
                                                         std::uint64_t& copied) {
  if (!m_buffer) m_buffer = std::make_unique_for_overwrite<char[]>(kBufferSize);
  ::posix_fadvise(in, 0, 0, POSIX_FADV_SEQUENTIAL);
  while (copied < size) {
    if (!shouldContinueIfDue()) return cancelledTransfer(srcPath);
    const auto want = static_cast<std::size_t>(std::min<std::uint64_t>(kBufferSize, size - copied));
    const ssize_t got = retryOnInterrupt([&] { return ::read(in, m_buffer.get(), want); });
    if (got < 0) {
      fail(Side::Source, errno, "read", srcPath);
      return Transfer::SourceFailed;
    }
    if (got == 0) break;
    for (ssize_t written = 0; written < got;) {
      const ssize_t n = retryOnInterrupt([&] { return ::write(out, m_buffer.get() + written, got - written); });
      if (n <= 0) return failTransfer(Side::Destination, n < 0 ? errno : EIO, "write", dstPath);
      written += n;
    }
    copied += static_cast<std::uint64_t>(got);
    addBytes(static_cast<std::uint64_t>(got));
  }
  return Transfer::Done;
}

bool CopyOperation::applyAttributes(int fd, const struct stat& st, const std::string& dstPath) {
  // Owner first: changing it clears the set-user-ID and set-group-ID bits that the mode then restores.
  if (m_isRoot) (void)::fchown(fd, st.st_uid, st.st_gid);
  if (::fchmod(fd, st.st_mode & 07777) != 0 && !isUnsupportedAttribute(errno)) {
    return fail(Side::Destination, errno, "set the attributes of", dstPath);
  }
  const struct timespec times[2] = {st.st_atim, st.st_mtim};
  if (::futimens(fd, times) != 0 && !isUnsupportedAttribute(errno)) {
    return fail(Side::Destination, errno, "set the attributes of", dstPath);
  }
  return true;
}

bool CopyOperation::sourceFailure(int error, const std::string& operation, const std::string& path, bool isTop) {
  fail(Side::Source, error, operation, path);
  if (!passOver(error, path, isTop)) return false;
  qv::debugLog("platform", "QVFileCopier passes over " + path + ": " + m_description);
  return true;
}

bool CopyOperation::fail(Side side, int error, const std::string& operation, const std::string& path) {
  // A missing destination folder is no missing item of the user's: only the source reports -43.
  m_errno = error;
  m_status = side == Side::Destination && error == ENOENT ? ENOENT : qv::statusCodeForErrno(error);
  m_description = "Could not " + operation + " " + path + ": " + std::strerror(error);
  m_errorPath = path;
  return false;
}

bool CopyOperation::cancelled(const std::string& path) {
  m_errno = 0;
  m_status = kCancelledStatus;
  m_description = "The copy of " + path + " was cancelled";
  m_errorPath = path;
  return false;
}

void CopyOperation::writeError(QVError* error) const {
  if (!error) return;
  *error = QVError{};
  error->domain = kQVErrorDomain;
  error->code = m_status;
  error->localizedDescription = m_description;
  std::string suggestion = qv::statusCommentString(m_status);
  if (!suggestion.empty()) error->recoverySuggestion = std::move(suggestion);
  error->filePath = m_errorPath;
}

bool CopyOperation::shouldContinue() {
  m_bytesSinceAsk = 0;
  return !m_delegate || m_delegate->fileManagerShouldContinueCopyingItem();
}

void CopyOperation::addBytes(std::uint64_t bytes) {
  m_bytesDone += bytes;
  m_bytesSinceAsk += bytes;
  reportProgress();
}

void CopyOperation::finishItem(std::uint64_t skippedBytes) {
  ++m_filesDone;
  m_bytesDone += skippedBytes;
  reportProgress();
}

void CopyOperation::reportProgress() {
  if (!m_delegate) return;
  const auto now = std::chrono::steady_clock::now();
  if (now - m_lastReport < kProgressInterval) return;
  double fraction = 0.0;
  if (m_totalBytes > 0) {
    fraction = static_cast<double>(m_bytesDone) / static_cast<double>(m_totalBytes);
  } else if (m_totalFiles > 0) {
    fraction = static_cast<double>(m_filesDone) / static_cast<double>(m_totalFiles);
  }
  // Files that grew since the walk can push the count past the total; 1.0 is kept for the real end.
  if (fraction <= m_lastFraction || fraction >= 1.0) return;
  m_lastFraction = fraction;
  m_lastReport = now;
  m_delegate->fileManagerReachedProgress(fraction);
}

}  // namespace

bool QVFileCopier::copyItemReportingProgressAtPath(const std::string& sourcePath, const std::string& destinationPath,
                                                   bool ignoringSourceErrors, QVError* error) {
  CopyOperation operation(m_delegate, ignoringSourceErrors);
  bool copied = false;
  try {
    copied = operation.run(sourcePath, destinationPath);
  } catch (const std::bad_alloc&) {
    operation.failOutOfMemory(sourcePath);
  }
  m_filesCopied = operation.filesCopied();
  m_bytesCopied = operation.bytesCopied();
  m_passedOverPaths = operation.takePassedOverPaths();
  if (!copied) operation.writeError(error);
  return copied;
}
