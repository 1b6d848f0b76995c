// QVDaemonCommand is "stellwin-backup daemon": it runs the agent on the main loop, so that the groups'
// timers start their backups, until SIGTERM or SIGINT, and then cancels the running backups, waits for
// their outcomes, saves and returns 0. It logs one line to stderr per run that starts and per outcome,
// and writes the preferences after every outcome, so that nothing is lost if it is killed.
// SIGUSR1 re-arms the timers as after a wake from sleep.
//
// While it runs, it is the user's one agent: it holds the agent lock, and the other commands hand
// themselves to it through the control socket (QVControlService), so that every change goes through
// its agent and is saved at once.
//
// The preferences file may still be changed by hand (or by an older program) while the daemon runs.
// The daemon notices (SIGHUP, or the file changing under it) and reloads by starting itself anew once no
// backup is running and no restore holds a group; an outcome that arrives in between is written into the
// changed file instead of over it, and a command that would change the preferences meanwhile is told to
// try again.
//
//   watching --file changed / SIGHUP--> reloading --idle--> exec self
//   watching --SIGTERM / SIGINT--> stopping (runs cancelled) --idle--> exit 0
//
// Uses the agent, the monitor and the host without owning them. Main thread.
#pragma once

#include <iosfwd>
#include <memory>
#include <string>
#include <vector>

class QVAgentLock;
class QVBackupAgent;
class QVControlService;
class QVDaemonTray;
class QVHostApp;
class QVRunMonitor;
class QVTimer;
struct QVGroup;
struct QVRunOutcome;

class QVDaemonCommand {
 public:
  // arguments: the program's own argv, to start anew with.
  // lock: the agent lock this process holds; socketPath: where the other commands find the daemon.
  QVDaemonCommand(QVBackupAgent& agent, QVRunMonitor& monitor, QVHostApp& host, std::ostream& log,
                  std::vector<std::string> arguments, QVAgentLock& lock, std::string socketPath);
  ~QVDaemonCommand();
  QVDaemonCommand(const QVDaemonCommand&) = delete;
  QVDaemonCommand& operator=(const QVDaemonCommand&) = delete;

  int run();

 private:
  struct FileState;

  void runStarted(const QVGroup& group);
  void runEnded(const QVRunOutcome& outcome);
  void checkPreferencesFile();
  void armFileCheck();
  void rememberPreferencesFile();
  // Writes the group's outcome fields into the preferences file as it is now on disk.
  void mergeOutcomeIntoFile(const std::string& groupID);
  void restartSelf();
  std::string nextRunText(const std::string& groupID) const;

  QVBackupAgent& m_agent;
  QVRunMonitor& m_monitor;
  QVHostApp& m_host;
  std::ostream& m_log;
  std::vector<std::string> m_arguments;
  QVAgentLock& m_lock;
  std::string m_socketPath;
  std::unique_ptr<QVControlService> m_service;
  std::unique_ptr<QVDaemonTray> m_tray;
  std::unique_ptr<FileState> m_fileState;
  std::unique_ptr<QVTimer> m_fileCheck;
  bool m_stopping = false;
  bool m_reloading = false;
};
