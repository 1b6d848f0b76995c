#include "platform/QVUserDefaults.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <mutex>
#include <vector>

#include <fcntl.h>
#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include "platform/QVLog.h"

namespace {

std::mutex g_standardMutex;
std::unique_ptr<QVUserDefaults> g_standard;  // guarded by g_standardMutex

std::string errnoText(int error) { return std::strerror(error); }

std::string parentFolder(const std::string& path) {
  std::string::size_type slash = path.find_last_of('/');
  if (slash == std::string::npos) return ".";
  if (slash == 0) return "/";
  return path.substr(0, slash);
}

// Creates the folder and any missing parents with mode 0700 (the XDG rule for the program's own
// folders). Folders that exist keep their mode. False with errno set on failure.
bool makeFolders(const std::string& path) {
  struct stat st;
  if (::stat(path.c_str(), &st) == 0) {
    if (S_ISDIR(st.st_mode)) return true;
    errno = ENOTDIR;
    return false;
  }
  if (errno != ENOENT) return false;
  std::string parent = parentFolder(path);
  if (parent != path && !makeFolders(parent)) return false;
  if (::mkdir(path.c_str(), 0700) != 0 && errno != EEXIST) return false;
  // mkdir honours the umask; the folder must not be readable by others whatever it is.
  ::chmod(path.c_str(), 0700);
  return true;
}

bool writeAll(int fd, const std::string& text) {
  const char* data = text.data();
  std::size_t left = text.size();
  while (left > 0) {
    ssize_t written = ::write(fd, data, left);
    if (written < 0) {
      if (errno == EINTR) continue;
      return false;
    }
    data += written;
    left -= static_cast<std::size_t>(written);
  }
  return true;
}

enum class ReadResult { Read, Missing, Failed };

ReadResult readWholeFile(const std::string& path, std::string* text, int* error) {
  int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) {
    *error = errno;
    // ENOTDIR: a component of the path is a file, so there is no store to read either.
    return (errno == ENOENT || errno == ENOTDIR) ? ReadResult::Missing : ReadResult::Failed;
  }
  struct stat st;
  if (::fstat(fd, &st) != 0) {
    *error = errno;
    ::close(fd);
    return ReadResult::Failed;
  }
  if (!S_ISREG(st.st_mode)) {
    *error = S_ISDIR(st.st_mode) ? EISDIR : EINVAL;
    ::close(fd);
    return ReadResult::Failed;
  }
  text->clear();
  char buffer[16384];
  for (;;) {
    ssize_t n = ::read(fd, buffer, sizeof buffer);
    if (n < 0) {
      if (errno == EINTR) continue;
      *error = errno;
      ::close(fd);
      return ReadResult::Failed;
    }
    if (n == 0) break;
    text->append(buffer, static_cast<std::size_t>(n));
  }
  ::close(fd);
  return ReadResult::Read;
}

std::string timestampForFileName() {
  std::time_t now = std::time(nullptr);
  std::tm tm{};
  localtime_r(&now, &tm);
  char buffer[32];
  std::strftime(buffer, sizeof buffer, "%Y%m%d%H%M%S", &tm);
  return buffer;
}

// Renames path to path.damaged-<time>, adding -2, -3… when that name is taken, so that an earlier
// damaged copy is never replaced. Returns the new name, or "" with errno set.
std::string moveAside(const std::string& path) {
  const std::string base = path + ".damaged-" + timestampForFileName();
  for (int attempt = 1; attempt < 1000; ++attempt) {
    std::string candidate = attempt == 1 ? base : base + "-" + std::to_string(attempt);
    if (::renameat2(AT_FDCWD, path.c_str(), AT_FDCWD, candidate.c_str(), RENAME_NOREPLACE) == 0) return candidate;
    if (errno == EEXIST) continue;
    if (errno != EINVAL && errno != ENOSYS) return "";
    // The file system cannot refuse to replace; look first instead.
    struct stat st;
    if (::lstat(candidate.c_str(), &st) == 0) continue;
    if (::rename(path.c_str(), candidate.c_str()) == 0) return candidate;
    return "";
  }
  errno = EEXIST;
  return "";
}

}  // namespace

QVUserDefaults& QVUserDefaults::standardUserDefaults() {
  std::lock_guard<std::mutex> lock(g_standardMutex);
  if (!g_standard) g_standard = std::make_unique<QVUserDefaults>(configDirectory() + "/preferences.json");
  return *g_standard;
}

void QVUserDefaults::resetStandardUserDefaults() {
  std::lock_guard<std::mutex> lock(g_standardMutex);
  g_standard.reset();
}

std::string QVUserDefaults::configDirectory() {
  // Relative values are invalid by the XDG rules and are ignored.
  const char* xdg = std::getenv("XDG_CONFIG_HOME");
  if (xdg && xdg[0] == '/') return std::string(xdg) + "/stellwin";
  std::string home;
  if (const char* value = std::getenv("HOME"); value && *value) {
    home = value;
  } else {
    std::vector<char> buffer(16384);
    struct passwd entry;
    struct passwd* result = nullptr;
    if (getpwuid_r(getuid(), &entry, buffer.data(), buffer.size(), &result) == 0 && result && result->pw_dir)
      home = result->pw_dir;
  }
  return home + "/.config/stellwin";
}

QVUserDefaults::QVUserDefaults(std::string filePath) : m_filePath(std::move(filePath)) {
  std::string text;
  int error = 0;
  std::string problem;
  switch (readWholeFile(m_filePath, &text, &error)) {
    case ReadResult::Missing:
      return;
    case ReadResult::Failed:
      problem = "cannot be read: " + errnoText(error);
      break;
    case ReadResult::Read: {
      // The parser's message is left out on purpose: it quotes the file's text.
      std::optional<QVValue> value = qv::parseJSON(text);
      if (!value) {
        problem = "is not valid JSON";
      } else if (!value->isDictionary()) {
        problem = "does not hold a JSON object";
      } else {
        m_values = std::move(*value->dictionary());
        return;
      }
      break;
    }
  }
  // Keep the damaged file for the user to look at; the next synchronize must not write over it.
  std::string aside = moveAside(m_filePath);
  if (aside.empty()) {
    QVLog("QVUserDefaults: " + m_filePath + " " + problem + "; could not move it to " + m_filePath +
          ".damaged-*: " + errnoText(errno) + "; starting with empty settings");
  } else {
    QVLog("QVUserDefaults: " + m_filePath + " " + problem + "; moved it to " + aside +
          " and started with empty settings");
  }
}

// Never writes: the host decides when the store goes to disk (synchronize), and a store dropped at exit
// or by a test must not write half-made changes.
QVUserDefaults::~QVUserDefaults() = default;

std::optional<QVDictionary> QVUserDefaults::dictionaryForKey(const std::string& key) const {
  const QVValue* value = objectForKey(key);
  if (!value || !value->isDictionary()) return std::nullopt;
  return *value->dictionary();
}

const QVValue* QVUserDefaults::objectForKey(const std::string& key) const { return qv::valueForKey(m_values, key); }

void QVUserDefaults::setObject(const QVValue& value, const std::string& key) {
  // Storing an equal value changes nothing, so that a save without changes leaves the file alone.
  auto it = m_values.find(key);
  if (it != m_values.end() && it->second == value) return;
  m_values[key] = value;
  m_dirty = true;
}

void QVUserDefaults::removeObjectForKey(const std::string& key) {
  if (m_values.erase(key) > 0) m_dirty = true;
}

bool QVUserDefaults::synchronize() {
  if (!m_dirty) return true;

  std::string text = qv::toJSON(QVValue(m_values), true);
  if (text.empty() || text.back() != '\n') text += '\n';

  const std::string folder = parentFolder(m_filePath);
  auto fail = [this](const std::string& step, int error) {
    QVLog("QVUserDefaults: could not write " + m_filePath + " (" + step + "): " + errnoText(error));
    return false;
  };

  if (!makeFolders(folder)) return fail("create folder " + folder, errno);

  std::string tempPath = m_filePath + ".tmp-XXXXXX";
  std::vector<char> pattern(tempPath.begin(), tempPath.end());
  pattern.push_back('\0');
  int fd = ::mkostemp(pattern.data(), O_CLOEXEC);
  if (fd < 0) return fail("create temporary file", errno);
  tempPath = pattern.data();

  // mkostemp already uses 0600, but only the umask's view of it; make it exact.
  bool ok = ::fchmod(fd, 0600) == 0 && writeAll(fd, text) && ::fsync(fd) == 0;
  int error = errno;
  if (::close(fd) != 0 && ok) {
    ok = false;
    error = errno;
  }
  if (!ok) {
    ::unlink(tempPath.c_str());
    return fail("write " + tempPath, error);
  }
  if (::rename(tempPath.c_str(), m_filePath.c_str()) != 0) {
    error = errno;
    ::unlink(tempPath.c_str());
    return fail("rename " + tempPath, error);
  }

  // The rename is only durable once the folder is; some file systems cannot sync a folder, which is
  // no reason to report the write as failed.
  int folderFd = ::open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (folderFd >= 0) {
    if (::fsync(folderFd) != 0) qv::debugLog("platform", "fsync of " + folder + " failed: " + errnoText(errno));
    ::close(folderFd);
  }
  m_dirty = false;
  return true;
}
