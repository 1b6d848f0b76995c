// QVBackupCommand is "stellwin-backup backup GROUP...": it starts each group's run, follows the runs on
// the main loop with a live progress display on a terminal, prints one line per outcome (or a JSON
// array), and returns 0 when every group completed, 1 otherwise, 130 when SIGINT or SIGTERM cancelled
// the runs. Under an outcome it names what the run left out. It refuses (status 2, before any run) a
// group whose title cannot name a folder of its own at the destination, and warns when a run is about
// to remove every version. It never returns while the agent still runs a backup, also one that a group's timer started
// meanwhile. Uses the agent, the monitor and the host without owning them. Main thread.
#pragma once

#include <functional>
#include <iosfwd>
#include <optional>
#include <string>
#include <vector>

#include "host/cli/QVCommandLine.h"
#include "host/run/QVRunMonitor.h"

class QVBackupAgent;
class QVHostApp;
class QVRunPresenter;

class QVBackupCommand {
 public:
  QVBackupCommand(QVBackupAgent& agent, QVRunMonitor& monitor, QVHostApp& host, std::ostream& out, std::ostream& err);
  int run(const QVCommandOptions& options);
  // Shows the runs of the requested groups until the agent runs none, after start (which starts them, or
  // follows runs already started). Returns the exit status as run does.
  int waitForRuns(const std::vector<std::string>& requested, bool json,
                  const std::function<void(QVRunPresenter&)>& start);

  // Finds the groups that options.groups name, each once, and checks that each can be backed up; warns on
  // err about a group whose runs remove every version. 2 after writing the refusal to err, else 0.
  static int findGroups(const QVBackupAgent& agent, const QVCommandOptions& options, std::ostream& err,
                        std::vector<QVGroupRef>& groups);
  // Starts the group's run and follows it, or follows the run it has already. For a group that cannot
  // run (empty, or no usable destination): its outcome, and in say the line that tells the user.
  static std::optional<QVRunOutcome> startRun(QVBackupAgent& agent, QVRunMonitor& monitor, const QVGroup& group,
                                              std::string& say);

 private:
  QVBackupAgent& m_agent;
  QVRunMonitor& m_monitor;
  QVHostApp& m_host;
  std::ostream& m_out;
  std::ostream& m_err;
};

namespace qv {

// Waits (at most a second) until a run of the group started now gets a version name of its own.
void waitForANewVersionName(const QVGroup& group);

// The outcomes as a JSON array of their records (QVRecords), each naming every file left out.
std::string outcomesJSON(const std::vector<QVRunOutcome>& outcomes);

}  // namespace qv
