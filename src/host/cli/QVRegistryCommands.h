// QVRegistryCommands are the commands of stellwin-backup that read and change the agent's groups and
// destinations (group ..., target ..., versions, menu, status, cancel, log, and the summary without a
// command). Every argument
// is checked before the agent is asked to change anything, because the agent saves on each change: a
// command that refuses its arguments writes one line to stderr, returns 2 and leaves the preferences
// as they were. The commands guard what the agent would do without a word: a group title must name one
// folder of its own at the destination (valid, and no other group's), a destination title is unique,
// and a number of versions to keep that removes every backup needs --yes. Passwords come from standard input or the
// terminal only, and are never printed. Uses the agent without owning it. Main thread.
#pragma once

#include <iosfwd>
#include <optional>
#include <string>
#include <vector>

#include "host/cli/QVCommandLine.h"
#include "targets/QVGroup.h"

class QVBackupAgent;
struct QVGroup;
struct QVTarget;

class QVRegistryCommands {
 public:
  QVRegistryCommands(QVBackupAgent& agent, std::ostream& out, std::ostream& err);

  // Runs options.command (one of the commands above). Returns the exit status: 0 done, 1 failed,
  // 2 refused arguments.
  int run(const QVCommandOptions& options);

  // The groups whose run the last command started (a menu entry such as "Backup Now"), for the caller
  // to follow. Empty after every other command.
  const std::vector<std::string>& startedRuns() const { return m_startedRuns; }

 private:
  int groupAdd(const QVCommandOptions& options);
  int groupList(const QVCommandOptions& options);
  int groupShow(const QVCommandOptions& options);
  int groupSet(const QVCommandOptions& options);
  int groupRemove(const QVCommandOptions& options);
  int groupRemoveItems(const QVCommandOptions& options);
  int targetAdd(const QVCommandOptions& options);
  int targetList(const QVCommandOptions& options);
  int targetSet(const QVCommandOptions& options);
  int targetRemove(const QVCommandOptions& options);
  int versions(const QVCommandOptions& options);
  int menu(const QVCommandOptions& options);
  int menuEntry(const QVCommandOptions& options);
  int status(const QVCommandOptions& options);
  int cancel(const QVCommandOptions& options);
  int log(const QVCommandOptions& options);
  int summary(const QVCommandOptions& options);

  // Applies the destination options to target. Returns the refusal line, or "" when they fit.
  // Reads the password (stdin or terminal) when the options ask for one.
  std::string applyTargetOptions(const QVCommandOptions& options, QVTarget& target, bool isNew);
  // Why title cannot be a new title of the group groupID ("" for a new group), or "".
  std::string groupTitleRefusal(const std::string& title, const std::string& groupID) const;
  // Why the group's versions could not be listed, given that its destination gave no listing; "" when
  // that only means the group has no folder there yet (no versions).
  std::string listingFailure(const QVGroup& group) const;
  // Under the groups shown: that no scheduled backup starts while no daemon runs, when one of groups has a
  // schedule, and how to start one. Nothing for --json or for a command that the daemon carries out.
  void noteWithoutDaemon(const QVCommandOptions& options, const std::vector<QVGroupRef>& groups);
  // A dav destination whose server answers with listings the dav kind cannot read is refused (2, with
  // how to switch to the webdav kind); one whose server gives no answer is kept with a warning (0).
  int refuseUnreadableDAV(const QVTarget& target, bool isNew);
  // With --default: marks target as the default and removes the mark of every other destination.
  void markDefault(const QVCommandOptions& options, QVTarget& target);
  // Removes the default mark of every destination but keepID.
  void clearOtherDefaults(const std::string& keepID);

  // "stellwin-backup: <line>" on stderr; the exit status 2 or 1.
  int refuse(const std::string& line);
  int fail(const std::string& line);
  void warn(const std::string& line);

  QVBackupAgent& m_agent;
  std::ostream& m_out;
  std::ostream& m_err;
  std::vector<std::string> m_startedRuns;
};
