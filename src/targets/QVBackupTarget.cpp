#include "targets/QVBackupTarget.h"

#include <dirent.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstring>

#include "platform/QVConstants.h"
#include "platform/QVFoundation.h"
#include "platform/QVLocalization.h"
#include "platform/QVLog.h"
#include "platform/QVStatusTexts.h"
#include "targets/QVDAVBackupTarget.h"
#include "targets/QVFTPBackupTarget.h"
#include "targets/QVFTPSBackupTarget.h"
#include "targets/QVLocalBackupTarget.h"
#include "targets/QVWebDAVBackupTarget.h"

namespace {
std::atomic<QVBackupTarget::QVTargetMaker> g_testingMaker{nullptr};
}

void QVBackupTarget::setTestingMaker(QVTargetMaker maker) { g_testingMaker.store(maker); }

std::unique_ptr<QVBackupTarget> QVBackupTarget::targetWithOptions(const QVTarget& options) {
  if (QVTargetMaker maker = g_testingMaker.load()) {
    if (auto made = maker(options)) return made;
  }
  const std::string& type = options.type;
  if (type == "local") return std::make_unique<QVLocalBackupTarget>(options);
  if (type == "ftp") return std::make_unique<QVFTPBackupTarget>(options);
  if (type == "ftps") return std::make_unique<QVFTPSBackupTarget>(options);
  if (type == "dav") return std::make_unique<QVDAVBackupTarget>(options);
  if (type == "webdav") return std::make_unique<QVWebDAVBackupTarget>(options);
  return nullptr;
}

QVBackupTarget::QVBackupTarget(const QVTarget& options) : m_options(options) {}

QVBackupTarget::~QVBackupTarget() = default;

std::optional<std::vector<std::string>> QVBackupTarget::entriesInDirectoryForItem(const QVGroup&) {
  return std::nullopt;
}

void QVBackupTarget::removeRootEntryForGroup(const QVGroup&) {}

bool QVBackupTarget::removeEntry(const std::string&, const QVGroup&) { return false; }

bool QVBackupTarget::renameEntry(const std::string&, const std::string&, const QVGroup&) { return false; }

std::optional<std::vector<std::string>> QVBackupTarget::entriesForReading(const QVGroup& group) {
  return entriesInDirectoryForItem(group);
}

bool QVBackupTarget::backupItem(const std::string& path, const QVGroup&, const std::string&, const std::string&,
                                QVError* error) {
  std::int64_t status = 0;
  if (!qv::fileExistsAtPath(path))
    status = -43;
  else if (!qv::isReadableFileAtPath(path))
    status = -54;
  if (status == 0) return true;
  if (error) *error = errorWithStatusCode(status, std::nullopt, path);
  return false;
}

std::optional<std::vector<QVVersionEntry>> QVBackupTarget::contentsOfVersion(const QVGroup&, const std::string&,
                                                                             const std::string& relativePath,
                                                                             QVError* error) {
  if (error) *error = errorWithStatusCode(-4, "This destination cannot be read back", relativePath);
  return std::nullopt;
}

bool QVBackupTarget::readFileOfVersion(const QVGroup&, const std::string&, const std::string& relativePath,
                                       const QVDataSink&, QVError* error) {
  if (error) *error = errorWithStatusCode(-4, "This destination cannot be read back", relativePath);
  return false;
}

std::string QVBackupTarget::keychainServiceName() const {
  // A fixed literal on purpose: the agent builds the same name from the product identifier.
  return std::string(VendorIdentifierPrefix) + ".Stellwin.Backup.target." + m_options.identifier;
}

std::optional<QVKeychainItem> QVBackupTarget::keychainItem() const {
  return QVKeychain::sharedProxy().keychainItemWithService(keychainServiceName());
}

std::optional<std::string> QVBackupTarget::username() const {
  auto item = keychainItem();
  if (!item) return std::nullopt;
  return item->username();
}

std::optional<std::string> QVBackupTarget::password() const {
  auto item = keychainItem();
  if (!item) {
    QVLog(qv::stringWithFormat("No password for target: %@", {m_options.title}));
    return std::nullopt;
  }
  return item->password();
}

bool QVBackupTarget::isAvailable() { return true; }

void QVBackupTarget::backupWillStart() {}

void QVBackupTarget::backupDidEnd() {}

QVError QVBackupTarget::errorWithStatusCode(std::int64_t statusCode, const std::optional<std::string>& errorString,
                                            const std::optional<std::string>& sourcePath) const {
  std::string message;
  if (errorString && !errorString->empty()) {
    message = *errorString;
  } else {
    switch (statusCode) {
      case -43:
        message = QVLocalizedString("Group item is missing for backup", this);
        break;
      case -54:
        message = qv::stringWithFormat(QVLocalizedString("You don't have enough permissions to access file %@", this),
                                       {qv::lastPathComponent(sourcePath.value_or(""))});
        break;
      case -120:
        message = QVLocalizedString("Backup destination directory not found. Check your Backup Preferences.", this);
        break;
      case -1429:
        message = QVLocalizedString("There is not enough disk space to perform the requested operation", this);
        break;
      default:
        message = qv::statusCommentString(static_cast<std::int32_t>(statusCode));
        break;
    }
  }
  QVError error;
  error.domain = kQVErrorDomain;
  error.code = statusCode;
  if (!message.empty()) {
    error.localizedDescription = "Error occured";  // the fixed description of every destination error
    error.recoverySuggestion = message;
  }
  if (sourcePath && !sourcePath->empty()) error.filePath = *sourcePath;
  return error;
}

std::string QVBackupTarget::pathWithReplacingInvalidCharactersInPath(const std::string& path) {
  static const char* const kLegal = "-_.!~*'();/?:@&=+$,";
  static const char* const kHex = "0123456789ABCDEF";
  std::string escaped;
  escaped.reserve(path.size());
  for (unsigned char c : path) {
    bool legal = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
                 (c != '\0' && std::strchr(kLegal, c) != nullptr);
    if (c == '?') {
      escaped += "%3F";
    } else if (legal) {
      escaped += static_cast<char>(c);
    } else {
      escaped += '%';
      escaped += kHex[c >> 4];
      escaped += kHex[c & 0x0F];
    }
  }
  return escaped;
}

namespace {

// Depth first, parents before their content. Relative paths ending in ".DS_Store" never count.
bool containsRegularFile(const std::string& directory, const std::string& relative) {
  DIR* dir = opendir(directory.c_str());
  if (!dir) return false;
  bool found = false;
  while (!found) {
    errno = 0;
    dirent* entry = readdir(dir);
    if (!entry) break;
    if (std::strcmp(entry->d_name, ".") == 0 || std::strcmp(entry->d_name, "..") == 0) continue;
    std::string childRelative = relative.empty() ? entry->d_name : relative + "/" + entry->d_name;
    std::string childPath = directory + "/" + entry->d_name;
    struct stat st;
    if (lstat(childPath.c_str(), &st) != 0) continue;
    const std::string suffix = ".DS_Store";
    bool isDSStore = childRelative.size() >= suffix.size() &&
                     childRelative.compare(childRelative.size() - suffix.size(), suffix.size(), suffix) == 0;
    if (S_ISREG(st.st_mode) && !isDSStore) {
      found = true;
    } else if (S_ISDIR(st.st_mode)) {
      found = containsRegularFile(childPath, childRelative);
    }
  }
  closedir(dir);
  return found;
}

}  // namespace

bool QVBackupTarget::isPathValidForUpload(const std::string& path) {
  bool isDirectory = false;
  if (!qv::fileExistsAtPath(path, &isDirectory)) return false;
  if (!isDirectory) return true;
  return containsRegularFile(path, "");
}
