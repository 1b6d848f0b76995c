#include "host/QVAgentLock.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <thread>

namespace {

// Names the lock a process image inherited from the one that exec'd it.
constexpr const char* kInheritedLockVariable = "STELLWIN_BACKUP_LOCK_FD";
constexpr auto kPollInterval = std::chrono::milliseconds(100);

std::string lockPath(const std::string& folder) { return folder + "/agent.lock"; }

// The lock that the previous image of this process held, when it left one.
int inheritedLock() {
  const char* value = std::getenv(kInheritedLockVariable);
  if (!value) return -1;
  const int fd = std::atoi(value);
  unsetenv(kInheritedLockVariable);
  struct stat st {};
  if (fd <= 2 || fstat(fd, &st) != 0 || !S_ISREG(st.st_mode)) return -1;
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

std::string QVAgentLock::holder(const std::string& folder) {
  const int fd = open(lockPath(folder).c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW);
  if (fd < 0) return "";
  char buffer[512];
  const ssize_t count = read(fd, buffer, sizeof buffer);
  close(fd);
  if (count <= 0) return "";
  std::string text(buffer, static_cast<std::size_t>(count));
  while (!text.empty() && (text.back() == '\n' || text.back() == '\0')) text.pop_back();
  return text;
}

std::unique_ptr<QVAgentLock> QVAgentLock::acquire(const std::string& folder, const std::string& description,
                                                  std::chrono::milliseconds wait,
                                                  const std::function<bool()>& stopWaiting, std::string& error) {
  int fd = inheritedLock();
  if (fd < 0) {
    fd = open(lockPath(folder).c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0600);
    if (fd < 0) {
      error = "cannot open " + lockPath(folder) + ": " + std::strerror(errno);
      return nullptr;
    }
    const auto deadline = std::chrono::steady_clock::now() + wait;
    while (flock(fd, LOCK_EX | LOCK_NB) != 0) {
      if (errno != EWOULDBLOCK && errno != EINTR) {
        error = "cannot lock " + lockPath(folder) + ": " + std::strerror(errno);
        close(fd);
        return nullptr;
      }
      if (std::chrono::steady_clock::now() >= deadline || (stopWaiting && stopWaiting())) {
        const std::string who = holder(folder);
        error = who.empty() ? "another process" : "process " + who;
        close(fd);
        return nullptr;
      }
      std::this_thread::sleep_for(kPollInterval);
    }
  }
  // Who holds it now, for those who wait.
  const std::string text = std::to_string(getpid()) + " (" + description + ")\n";
  if (ftruncate(fd, 0) == 0 && pwrite(fd, text.data(), text.size(), 0) < 0) {
    // Only the holder's description is lost; the lock itself holds.
  }
  return std::unique_ptr<QVAgentLock>(new QVAgentLock(fd));
}

QVAgentLock::~QVAgentLock() {
  if (m_fd >= 0) close(m_fd);
}

void QVAgentLock::keepAcrossExec() {
  fcntl(m_fd, F_SETFD, 0);
  setenv(kInheritedLockVariable, std::to_string(m_fd).c_str(), 1);
}
