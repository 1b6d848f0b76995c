// QVRunMonitor is the agent's delegate in stellwin-backup. It follows every run of the agent: those the
// program starts (followRun) and those that a group's timer starts (found when the agent starts the
// status icon animation). From the agent's messages and the items its notification templates show it
// makes each run's outcome: complete, complete with missing items, failed with the status code and the
// message the user was shown, or cancelled; and a group started by its timer while empty. An outcome is
// handed out after the agent has finished handling the run, so the notification it shows is known. The
// outcome of every run is appended to the run journal before it is handed out; a journal that cannot
// be written costs one warning, never the run's outcome.
//
//   not followed --followRun / timer start--> running --backupDidEndForGroup--> ending --posted--> outcome
//
// Made as a shared_ptr, which the program keeps for the agent's whole life (the agent only refers to
// it). Refers to the agent and the host, which outlive it. Main thread.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "agent/QVBackupAgentDelegate.h"
#include "agent/QVRunReport.h"
#include "host/run/QVListeners.h"
#include "host/run/QVRunJournal.h"

class QVBackupAgent;
class QVHostApp;
class QVBackupTarget;
class QVNCTemplate;
struct QVNCTemplateItem;

struct QVRunOutcome {
  enum class Kind { complete, completeWithMissingItems, failed, cancelled, empty };

  std::string groupID;
  std::string title;
  Kind kind = Kind::failed;
  std::optional<std::int64_t> statusCode;
  std::string message;                // failed, empty: what went wrong
  std::optional<QVRunReport> report;  // what the run did; none for a group that was not run

  // Names what the run left out, one line each, for under the outcome line: the missing items, the
  // files the copy passed over (at most ten, then how many more), the folders inside the items that are
  // never copied (destinations, the program's own), and old versions kept for want of a
  // readable "versions". Empty when nothing was left out.
  std::vector<std::string> detailLines() const;
  // The journal's entry for the run, naming at most leftOutLimit of the files left out.
  QVJournalEntry journalEntry(std::size_t leftOutLimit = kQVJournalLeftOutPaths) const;

  bool isSuccess() const { return kind == Kind::complete || kind == Kind::completeWithMissingItems; }
  // "complete", "complete with missing items", "failed", "cancelled", "empty".
  static std::string kindName(Kind kind);
  // The kind of a name that kindName gives; nullopt for any other text.
  static std::optional<Kind> kindNamed(const std::string& name);
  // The line a person reads: "Photos: failed (-120): Backup destination directory not found. ...", or
  // for a run that completed what it wrote: "Main job: complete, 17 files, 232 KiB in 0.4 s, version
  // 20261125121202.backup".
  std::string line() const;
};

namespace qv {

// Makes every local destination's folder and the program's own configuration and state folders the ones
// that no copy enters (QVPassedOverFolders), as the agent's destinations stand now.
void passOverOwnFolders(const QVBackupAgent& agent);

// For a local destination whose folder is missing: "the destination folder "/media/usb/Backups" does not
// exist (is its volume mounted?)"; "" otherwise.
std::string missingDestinationText(const QVTarget& target);

}  // namespace qv

class QVRunMonitor : public QVBackupAgentDelegate, public std::enable_shared_from_this<QVRunMonitor> {
 public:
  // Makes the monitor and registers it with the host for run starts and template items. The caller
  // then makes it the agent's delegate.
  // The journal is the user's own (QVRunJournal::defaultDirectory).
  static std::shared_ptr<QVRunMonitor> make(QVBackupAgent& agent, QVHostApp& host);
  ~QVRunMonitor() override;

  // Listeners of the runs it follows (each called until its subscription is destroyed): a run's start,
  // its progress as the group's percentage with the item being copied, its outcome; and of the agent's groups and
  // destinations changing (added, changed, removed; also a run's dates and status code).
  [[nodiscard]] QVSubscription addStartListener(std::function<void(const QVGroup& group)> listener) {
    return m_starts.add(std::move(listener));
  }
  [[nodiscard]] QVSubscription addProgressListener(
      std::function<void(const std::string& groupID, std::int64_t percent, const std::string& item)> listener) {
    return m_progress.add(std::move(listener));
  }
  [[nodiscard]] QVSubscription addOutcomeListener(std::function<void(const QVRunOutcome& outcome)> listener) {
    return m_outcomes.add(std::move(listener));
  }
  [[nodiscard]] QVSubscription addRegistryListener(std::function<void()> listener) {
    return m_registryChanges.add(std::move(listener));
  }

  // Requires: the agent runs the group now. Follows it from here (the start handler is told).
  void followRun(const std::string& groupID);
  // The groups whose runs are followed and have no outcome yet.
  std::vector<std::string> runningGroupIDs() const;
  // No run in progress, none ending, and every outcome handed out.
  bool isIdle() const;

  // QVBackupAgentDelegate
  void backupProgress(double progress, const std::string& forGroupID, std::size_t item,
                      QVBackupAgent& inAgent) override;
  void backupDidEndForGroup(const QVGroupRef& group, QVBackupAgent& inAgent) override;
  void backupFailedForGroup(const QVGroupRef& group, const std::optional<QVError>& withError,
                            QVBackupAgent& inAgent) override;
  void groupsAndTargetsDidChangeInAgent(const std::vector<QVGroupRef>&, const std::vector<QVTargetRef>&,
                                        QVBackupAgent&) override {
    m_registryChanges.notify();
  }
  void groupDidChangeInAgent(const QVGroupRef&, QVBackupAgent&) override { m_registryChanges.notify(); }
  void groupWithIDDidRemovedInAgent(const std::string&, QVBackupAgent&) override { m_registryChanges.notify(); }
  void targetDidChangeInAgent(const QVTargetRef&, QVBackupAgent&) override { m_registryChanges.notify(); }
  void showGroupsWithIDs(const std::vector<std::string>& groupIDs) override;
  void setLastBackupDate(const std::optional<QVDate>&) override {}

 private:
  QVRunMonitor(QVBackupAgent& agent, QVHostApp& host, QVRunJournal journal);

  struct Run {
    std::optional<std::string> failureText;  // the failure template's item for the run
    std::optional<QVError> error;            // when the agent reports it
    bool warned = false;                     // the warning template showed the group
    bool ending = false;
  };

  void findStartedRuns();
  void templateDidShowItem(const QVNCTemplate& nctemplate, const QVNCTemplateItem& item);
  void finishRun(const std::string& groupID);
  void emptyGroupEnded(const std::string& groupID);
  // After a run: a version it left unfinished is renamed partial; a complete one removes the partial
  // versions older than itself. This talks to the destination, so it runs on a thread of its own, and
  // the outcome is handed out (journal, listeners) once it is done: a server that is slow to answer never
  // holds up the main loop. Requires: the agent has finished handling the run.
  void settleVersionsThenHandOut(const QVGroup& group, QVRunOutcome outcome);
  static void settleVersions(QVBackupTarget& target, const QVGroup& group, QVRunOutcome& outcome);
  void handOut(const QVRunOutcome& outcome);

  QVBackupAgent& m_agent;
  QVHostApp& m_host;
  QVRunJournal m_journal;
  std::map<std::string, Run> m_runs;
  std::size_t m_pendingOutcomes = 0;
  std::size_t m_settling = 0;                  // outcomes whose versions are being settled
  std::map<unsigned, std::thread> m_settlers;  // the threads settling them, by number
  unsigned m_nextSettler = 0;
  QVListeners<const QVGroup&> m_starts;
  QVListeners<const std::string&, std::int64_t, const std::string&> m_progress;
  QVListeners<const QVRunOutcome&> m_outcomes;
  QVListeners<> m_registryChanges;
  std::vector<QVSubscription> m_hostSubscriptions;  // the host's run starts and template items
};
