// QVAgentLock makes sure that one process at a time loads a user's agent, so that no two processes ever
// write the preferences at once: the daemon holds it for as long as it runs, any other command for as
// long as it works. It is an exclusive lock (flock) on "agent.lock" beside the preferences it guards
// ($XDG_CONFIG_HOME/stellwin, mode 0600), so that each set of preferences has a lock of its own. The
// daemon's control socket is elsewhere, in the user's private runtime folder (runtimeFolder). The holder
// writes its process id and command line into the file, so that one who waits can say who holds it.
// The lock goes when the process ends or the object is destroyed; a daemon that starts itself anew keeps
// it across exec (keepAcrossExec) and takes it back at once. Main thread.
#pragma once

#include <chrono>
#include <functional>
#include <memory>
#include <string>

class QVAgentLock {
 public:
  // The user's private runtime folder, made when missing: $XDG_RUNTIME_DIR/stellwin-backup, else
  // /tmp/stellwin-backup-<uid>. "" with error when it cannot be made or is not private (another
  // owner, or open to others).
  static std::string runtimeFolder(std::string& error);
  // The daemon's socket in folder, named after the preferences it serves, so that daemons of two
  // configurations sharing a runtime folder never meet: "control-<hash>.sock".
  static std::string socketPath(const std::string& folder);

  // Takes the lock, waiting up to wait for its holder to let go. Every 100 ms of waiting, stopWaiting
  // (when given) may end the wait early. nullptr with error naming the holder otherwise:
  // "process 4242 (stellwin-backup backup Photos)". description: this process, for others to read.
  static std::unique_ptr<QVAgentLock> acquire(const std::string& description, std::chrono::milliseconds wait,
                                              const std::function<bool()>& stopWaiting, std::string& error);
  // Who holds the lock, as acquire's error names it; "" when nobody says.
  static std::string holder();
  // The control socket that the holder serves, "" when it serves none (it is no daemon).
  static std::string servedSocket();

  // Records that this holder serves commands at socketPath.
  void setServedSocket(const std::string& socketPath);

  ~QVAgentLock();
  QVAgentLock(const QVAgentLock&) = delete;
  QVAgentLock& operator=(const QVAgentLock&) = delete;

  // Requires: the process is about to exec itself. The new image's acquire takes this lock back.
  void keepAcrossExec();

 private:
  QVAgentLock(int fd, std::string description) : m_fd(fd), m_description(std::move(description)) {}
  void writeRecord(const std::string& socketPath);

  int m_fd;
  std::string m_description;
};
