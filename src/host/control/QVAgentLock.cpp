#include "host/control/QVAgentLock.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <functional>
#include <thread>
#include <vector>

#include "platform/QVUserDefaults.h"

namespace {

// Names the lock a process image inherited from the one that exec'd it.
constexpr const char* kInheritedLockVariable = "STELLWIN_BACKUP_LOCK_FD";
constexpr auto kPollInterval = std::chrono::milliseconds(100);

std::string lockPath() { return QVUserDefaults::configDirectory() + "/agent.lock"; }

// The lock file's lines: the holder, then (for a daemon) its socket.
std::vector<std::string> recordLines() {
  const int fd = open(lockPath().c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW);
  if (fd < 0) return {};
  char buffer[2048];
  const ssize_t count = read(fd, buffer, sizeof buffer);
  close(fd);
  std::vector<std::string> lines;
  std::string line;
  for (ssize_t i = 0; i < count; ++i) {
    if (buffer[i] == '\n') {
      lines.push_back(line);
      line.clear();
    } else if (buffer[i] != '\0') {
      line += buffer[i];
    }
  }
  return lines;
}

// The lock that the previous image of this process held, when it left one.
int inheritedLock() {
  const char* value = std::getenv(kInheritedLockVariable);
  if (!value) return -1;
  const int fd = std::atoi(value);
  unsetenv(kInheritedLockVariable);
  // Only the lock file of these preferences itself: a number handed down from elsewhere is not a lock.
  struct stat st {
  }, file{};
  if (fd <= 2 || fstat(fd, &st) != 0 || !S_ISREG(st.st_mode) || stat(lockPath().c_str(), &file) != 0 ||
      st.st_dev != file.st_dev || st.st_ino != file.st_ino)
    return -1;
  if (flock(fd, LOCK_EX | LOCK_NB) != 0) {
    close(fd);
    return -1;
  }
  fcntl(fd, F_SETFD, FD_CLOEXEC);
  return fd;
}

}  // namespace

std::string QVAgentLock::runtimeFolder(std::string& error) {
  const char* runtime = std::getenv("XDG_RUNTIME_DIR");
  const std::string folder = runtime && runtime[0] == '/' ? std::string(runtime) + "/stellwin-backup"
                                                          : "/tmp/stellwin-backup-" + std::to_string(geteuid());
  if (runtime && runtime[0] == '/' && mkdir(runtime, 0700) != 0 && errno != EEXIST) {
    error = std::string("cannot make ") + runtime + ": " + std::strerror(errno);
    return "";
  }
  if (mkdir(folder.c_str(), 0700) != 0 && errno != EEXIST) {
    error = "cannot make " + folder + ": " + std::strerror(errno);
    return "";
  }
  struct stat st {};
  if (lstat(folder.c_str(), &st) != 0 || !S_ISDIR(st.st_mode) || st.st_uid != geteuid()) {
    error = folder + " is not a folder of this user";
    return "";
  }
  if ((st.st_mode & 077) != 0 && chmod(folder.c_str(), 0700) != 0) {
    error = folder + " is open to other users and cannot be made private";
    return "";
  }
  return folder;
}

std::string QVAgentLock::socketPath(const std::string& folder) {
  char name[32];
  std::snprintf(name, sizeof name, "/control-%08zx.sock",
                std::hash<std::string>{}(QVUserDefaults::configDirectory()) & 0xffffffffu);
  return folder + name;
}

std::string QVAgentLock::holder() {
  const auto lines = recordLines();
  return lines.empty() ? "" : lines[0];
}

std::string QVAgentLock::servedSocket() {
  const auto lines = recordLines();
  return lines.size() > 1 ? lines[1] : "";
}

std::unique_ptr<QVAgentLock> QVAgentLock::acquire(const std::string& description, std::chrono::milliseconds wait,
                                                  const std::function<bool()>& stopWaiting, std::string& error) {
  int fd = inheritedLock();
  if (fd < 0) {
    std::error_code ec;
    std::filesystem::create_directories(QVUserDefaults::configDirectory(), ec);
    fd = open(lockPath().c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0600);
    if (fd < 0) {
      error = "cannot open " + lockPath() + ": " + std::strerror(errno);
      return nullptr;
    }
    const auto deadline = std::chrono::steady_clock::now() + wait;
    while (flock(fd, LOCK_EX | LOCK_NB) != 0) {
      if (errno != EWOULDBLOCK && errno != EINTR) {
        error = "cannot lock " + lockPath() + ": " + std::strerror(errno);
        close(fd);
        return nullptr;
      }
      if (std::chrono::steady_clock::now() >= deadline || (stopWaiting && stopWaiting())) {
        const std::string who = holder();
        error = who.empty() ? "another process" : "process " + who;
        close(fd);
        return nullptr;
      }
      std::this_thread::sleep_for(kPollInterval);
    }
  }
  auto lock = std::unique_ptr<QVAgentLock>(new QVAgentLock(fd, description));
  lock->writeRecord("");
  return lock;
}

void QVAgentLock::writeRecord(const std::string& socketPath) {
  // Who holds it now, for those who wait; a record that cannot be written costs only the description.
  std::string text = std::to_string(getpid()) + " (" + m_description + ")\n";
  if (!socketPath.empty()) text += socketPath + "\n";
  if (ftruncate(m_fd, 0) == 0 && pwrite(m_fd, text.data(), text.size(), 0) < 0) return;
}

void QVAgentLock::setServedSocket(const std::string& socketPath) { writeRecord(socketPath); }

QVAgentLock::~QVAgentLock() {
  if (m_fd >= 0) close(m_fd);
}

void QVAgentLock::keepAcrossExec() {
  fcntl(m_fd, F_SETFD, 0);
  setenv(kInheritedLockVariable, std::to_string(m_fd).c_str(), 1);
}
