#include "targets/QVLocalBackupTarget.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <filesystem>
#include <system_error>
#include <vector>

#include "platform/QVFoundation.h"
#include "platform/QVLocalization.h"
#include "platform/QVLog.h"
#include "platform/QVStatusTexts.h"

namespace fs = std::filesystem;

namespace qv {

std::vector<std::string> leftOutEntriesBelow(const std::string& folder) {
  std::vector<std::string> paths;
  std::error_code ec;
  fs::directory_iterator it(folder, ec);
  if (ec) {
    if (fs::is_directory(fs::symlink_status(folder, ec))) paths.push_back(folder);  // cannot be read
    return paths;
  }
  std::vector<std::string> names;
  for (; it != fs::directory_iterator(); it.increment(ec)) {
    if (ec) break;
    names.push_back(it->path().filename().string());
  }
  std::sort(names.begin(), names.end());
  for (const auto& name : names) {
    const std::string path = qv::stringByAppendingPathComponent(folder, name);
    if (fs::is_directory(fs::symlink_status(path, ec))) {
      auto below = leftOutEntriesBelow(path);
      paths.insert(paths.end(), below.begin(), below.end());
    } else {
      paths.push_back(path);
    }
  }
  return paths;
}

}  // namespace qv

QVLocalBackupTarget::QVLocalBackupTarget(const QVTarget& options) : QVBackupTarget(options) {}

std::string QVLocalBackupTarget::pathForItem(const QVGroup& group) const {
  return qv::stringByAppendingPathComponent(m_options.path, group.title);
}

std::optional<std::vector<std::string>> QVLocalBackupTarget::entriesInDirectoryForItem(const QVGroup& group) {
  std::error_code ec;
  fs::directory_iterator it(pathForItem(group), ec);
  if (ec) return std::nullopt;
  std::vector<std::string> names;
  for (; it != fs::directory_iterator(); it.increment(ec)) {
    if (ec) return std::nullopt;
    names.push_back(it->path().filename().string());
  }
  return names;
}

void QVLocalBackupTarget::removeRootEntryForGroup(const QVGroup& group) {
  std::error_code ec;
  const std::string path = pathForItem(group);
  // A folder that is not there cannot be removed, as the platform's removal says.
  bool removed = fs::exists(fs::symlink_status(path, ec));
  if (removed) removed = fs::remove_all(path, ec) != static_cast<std::uintmax_t>(-1) && !ec;
  if (!removed)
    QVLog(qv::stringWithFormat("%@ warning: Could not remove directory -%@", {"QVLocalBackupTarget", path}));
}

bool QVLocalBackupTarget::removeEntry(const std::string& entry, const QVGroup& forItem) {
  std::error_code ec;
  const std::string path = qv::stringByAppendingPathComponent(pathForItem(forItem), entry);
  if (!fs::exists(fs::symlink_status(path, ec))) return false;
  fs::remove_all(path, ec);
  return !ec;
}

bool QVLocalBackupTarget::renameEntry(const std::string& entry, const std::string& toName, const QVGroup& forItem) {
  const std::string folder = pathForItem(forItem);
  const std::string from = qv::stringByAppendingPathComponent(folder, entry);
  const std::string to = qv::stringByAppendingPathComponent(folder, toName);
  // RENAME_NOREPLACE: an entry that has the name already is never replaced.
  return ::renameat2(AT_FDCWD, from.c_str(), AT_FDCWD, to.c_str(), RENAME_NOREPLACE) == 0;
}

bool QVLocalBackupTarget::backupItem(const std::string& path, const QVGroup& ofGroup, const std::string& withName,
                                     const std::string& toEntry, QVError* error) {
  // A copier of its own for this call, with this destination as its delegate for the call only.
  QVFileCopier copier;
  copier.setDelegate(this);

  if (!QVBackupTarget::backupItem(path, ofGroup, withName, toEntry, error)) return false;

  // A folder with nothing to copy is skipped and counts as backed up; whatever it holds (links,
  // special files, folders that cannot be read) is not in the version, and is told as left out.
  if (!isPathValidForUpload(path)) {
    noteLeftOut(qv::leftOutEntriesBelow(path));
    return true;
  }

  const std::string& destination = m_options.path;
  if (!qv::fileExistsAtPath(destination)) {
    if (error) *error = errorWithStatusCode(-120, std::nullopt, path);
    return false;
  }

  const std::string entryPath = qv::stringByAppendingPathComponent(pathForItem(ofGroup), toEntry);
  std::error_code ec;
  fs::create_directories(entryPath, ec);
  if (ec || !qv::fileExistsAtPath(entryPath)) {
    if (error) {
      const std::string message = qv::stringWithFormat(
          QVLocalizedString("You do not have appropriate access privileges to save group %@ in folder %@", this),
          {ofGroup.title, qv::lastPathComponent(destination)});
      *error = errorWithStatusCode(ec ? ec.value() : 0, message, path);
    }
    return false;
  }

  // An existing copy is kept as it is and never overwritten.
  const std::string itemPath = qv::stringByAppendingPathComponent(entryPath, withName);
  if (fs::exists(fs::symlink_status(itemPath, ec))) return true;

  QVError copyError;
  copyError.code = 0;
  bool copied = copier.copyItemReportingProgressAtPath(path, itemPath, true, &copyError);
  noteWritten(copier.filesCopied(), copier.bytesCopied());
  noteLeftOut(copier.passedOverPaths());
  if (!copied && error) *error = errorWithStatusCode(copyError.code, std::nullopt, path);
  copier.setDelegate(nullptr);
  return copied;
}

std::optional<std::vector<QVVersionEntry>> QVLocalBackupTarget::contentsOfVersion(const QVGroup& group,
                                                                                  const std::string& version,
                                                                                  const std::string& relativePath,
                                                                                  QVError* error) {
  const std::string folder =
      qv::stringByAppendingPathComponent(qv::stringByAppendingPathComponent(pathForItem(group), version), relativePath);
  DIR* stream = ::opendir(folder.c_str());
  if (!stream) {
    if (error) *error = errorWithStatusCode(qv::statusCodeForErrno(errno), std::nullopt, relativePath);
    return std::nullopt;
  }
  std::vector<QVVersionEntry> entries;
  while (dirent* found = ::readdir(stream)) {
    const std::string name = found->d_name;
    struct stat info {};
    if (name == "." || name == ".." || ::fstatat(::dirfd(stream), found->d_name, &info, AT_SYMLINK_NOFOLLOW) != 0)
      continue;
    QVVersionEntry entry;
    entry.name = name;
    entry.isDirectory = S_ISDIR(info.st_mode);
    entry.size = S_ISREG(info.st_mode) ? static_cast<std::uint64_t>(info.st_size) : 0;
    entry.mode = static_cast<std::uint32_t>(info.st_mode & 07777);
    entry.modificationTimeNanoseconds =
        static_cast<std::int64_t>(info.st_mtim.tv_sec) * 1000000000 + info.st_mtim.tv_nsec;
    if (S_ISLNK(info.st_mode)) {
      std::vector<char> target(static_cast<std::size_t>(info.st_size) + 256);
      ssize_t length = ::readlinkat(::dirfd(stream), found->d_name, target.data(), target.size());
      entry.symbolicLinkTarget = std::string(target.data(), length > 0 ? static_cast<std::size_t>(length) : 0);
    } else if (!S_ISREG(info.st_mode) && !S_ISDIR(info.st_mode)) {
      continue;  // nothing a backup would have made
    }
    entries.push_back(std::move(entry));
  }
  ::closedir(stream);
  return entries;
}

bool QVLocalBackupTarget::readFileOfVersion(const QVGroup& group, const std::string& version,
                                            const std::string& relativePath, const QVDataSink& sink, QVError* error) {
  const std::string file =
      qv::stringByAppendingPathComponent(qv::stringByAppendingPathComponent(pathForItem(group), version), relativePath);
  int fd = ::open(file.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW);
  int failure = fd < 0 ? errno : 0;
  std::vector<char> buffer(fd < 0 ? 0 : 1 << 20);
  while (fd >= 0 && !failure) {
    if (isCancelled()) {
      failure = ECANCELED;
      break;
    }
    ssize_t n = ::read(fd, buffer.data(), buffer.size());
    if (n < 0 && errno == EINTR) continue;
    if (n < 0)
      failure = errno;
    else if (n == 0)
      break;
    else if (!sink(buffer.data(), static_cast<std::size_t>(n)))
      failure = ECANCELED;
  }
  if (fd >= 0) ::close(fd);
  if (!failure) return true;
  if (error)
    *error =
        errorWithStatusCode(failure == ECANCELED ? -128 : qv::statusCodeForErrno(failure), std::nullopt, relativePath);
  return false;
}

bool QVLocalBackupTarget::fileManagerShouldContinueCopyingItem() { return !isCancelled(); }

void QVLocalBackupTarget::fileManagerReachedProgress(double fraction) {
  if (delegate()) delegate()->backupProgress(fraction);
}

void QVLocalBackupTarget::fileManagerCalculatedFiles(std::uint64_t files, std::uint64_t size) {
  if (delegate()) delegate()->backupCalculatedFiles(files, size);
}
