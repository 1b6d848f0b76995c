#include "platform/QVFileKeychain.h"

#include <cerrno>

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include "platform/QVLog.h"
#include "platform/QVUserDefaults.h"

namespace {

struct Entry {
  std::string user;
  std::string pass;
  std::string label;
};

std::optional<Entry> entryFor(const QVUserDefaults& file, const std::string& service) {
  std::optional<QVDictionary> fields = file.dictionaryForKey(service);
  if (!fields) return std::nullopt;
  auto text = [&](const char* key) {
    const QVValue* value = qv::valueForKey(*fields, key);
    return value && value->string() ? *value->string() : std::string();
  };
  return Entry{text("user"), text("pass"), text("label")};
}

QVValue valueOf(const Entry& entry) {
  return QVDictionary{{"user", entry.user}, {"pass", entry.pass}, {"label", entry.label}};
}

std::string parentFolder(const std::string& path) {
  std::string::size_type slash = path.find_last_of('/');
  return slash == std::string::npos ? "." : slash == 0 ? "/" : path.substr(0, slash);
}

// Missing folders are made with mode 0700, as the store would make them.
void makeFolders(const std::string& path) {
  struct stat st;
  if (::stat(path.c_str(), &st) == 0 || errno != ENOENT) return;
  if (std::string parent = parentFolder(path); parent != path) makeFolders(parent);
  if (::mkdir(path.c_str(), 0700) == 0) ::chmod(path.c_str(), 0700);
}

// An exclusive lock on the keychain's folder for one read-modify-write cycle. The file itself cannot
// carry the lock: every write replaces it with a new file. The folder is made first, or the very first
// writers would race unlocked. Where the folder cannot be made or locked (some network file systems),
// the cycle runs unlocked and the write reports any failure.
class FolderLock {
 public:
  explicit FolderLock(const std::string& filePath) {
    std::string folder = parentFolder(filePath);
    makeFolders(folder);
    m_fd = ::open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (m_fd < 0) return;
    while (::flock(m_fd, LOCK_EX) != 0) {
      if (errno == EINTR) continue;
      qv::debugLog("platform", "keychain: cannot lock " + folder + ", going on unlocked");
      break;
    }
  }
  ~FolderLock() {
    if (m_fd >= 0) ::close(m_fd);
  }
  FolderLock(const FolderLock&) = delete;
  FolderLock& operator=(const FolderLock&) = delete;

 private:
  int m_fd = -1;
};

}  // namespace

QVFileKeychain::QVFileKeychain(std::string filePath) : m_filePath(std::move(filePath)) {}

std::optional<QVKeychainItem> QVFileKeychain::keychainItemWithService(const std::string& service) {
  std::lock_guard<std::mutex> lock(m_mutex);
  // Writers replace the file in one rename, so reading needs no folder lock.
  QVUserDefaults file(m_filePath);
  std::optional<Entry> entry = entryFor(file, service);
  if (!entry) return std::nullopt;
  return QVKeychainItem(*this, service, entry->user, entry->pass, entry->label);
}

bool QVFileKeychain::addGenericKeychainItemForService(const std::string& service, const std::string& username,
                                                      const std::string& password) {
  std::lock_guard<std::mutex> lock(m_mutex);
  FolderLock folderLock(m_filePath);
  QVUserDefaults file(m_filePath);
  std::optional<Entry> existing = entryFor(file, service);
  file.setObject(valueOf({username, password, existing ? existing->label : service}), service);
  return file.synchronize();
}

bool QVFileKeychain::deleteItem(const std::string& service) {
  std::lock_guard<std::mutex> lock(m_mutex);
  FolderLock folderLock(m_filePath);
  QVUserDefaults file(m_filePath);
  if (!file.objectForKey(service)) return false;
  file.removeObjectForKey(service);
  return file.synchronize();
}

bool QVFileKeychain::storeItem(const std::string& service, const std::string& username, const std::string& password,
                               const std::string& label) {
  std::lock_guard<std::mutex> lock(m_mutex);
  FolderLock folderLock(m_filePath);
  QVUserDefaults file(m_filePath);
  file.setObject(valueOf({username, password, label}), service);
  return file.synchronize();
}
