// QVDaemonCommand is "stellwin-backup daemon": it runs the agent on the main loop, so that the groups'
// timers start their backups, until SIGTERM or SIGINT, and then cancels the running backups, waits for
// their outcomes, saves and returns 0. It logs one line to stderr per run that starts and per outcome,
// and writes the preferences after every outcome, so that nothing is lost if it is killed.
// SIGUSR1 re-arms the timers as after a wake from sleep.
//
// The other commands change the same preferences file while the daemon runs. The daemon notices (SIGHUP,
// or the file changing under it) and reloads by starting itself anew once no backup is running; an
// outcome that arrives in between is written into the changed file instead of over it.
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

class QVBackupAgent;
class QVHostApp;
class QVRunMonitor;
class QVTimer;
struct QVGroup;
struct QVRunOutcome;

class QVDaemonCommand {
 public:
  // arguments: the program's own argv, to start anew with.
  QVDaemonCommand(QVBackupAgent& agent, QVRunMonitor& monitor, QVHostApp& host, std::ostream& log,
                  std::vector<std::string> arguments);
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
  std::unique_ptr<FileState> m_fileState;
  std::unique_ptr<QVTimer> m_fileCheck;
  bool m_stopping = false;
  bool m_reloading = false;
};
