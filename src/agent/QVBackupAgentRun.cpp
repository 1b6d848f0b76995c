// The backup run: the entry checks on the main thread, the run on a thread of its own, progress and
// the outcomes back on the main thread.
#include <algorithm>
#include <cmath>

#include "agent/QVBackupAgent.h"
#include "agent/QVBackupAgentDelegate.h"
#include "agent/QVBackupAgentRun.h"
#include "agent/QVBackupTargetDelegate.h"
#include "agent/QVVersionName.h"
#include "menu/QVBackupMenuItemController.h"
#include "platform/QVFoundation.h"
#include "platform/QVLocalization.h"
#include "platform/QVLog.h"
#include "platform/QVRunLoop.h"

namespace {

// Keeps the newest "versions" of the listing's version names and removes the others, oldest first.
// No lower bound, deliberately: "versions" 0 removes every version, the new one included. A stored
// "versions" that cannot be read is no count at all: then nothing is removed, and the run says so.
void pruneOldVersions(QVBackupTarget& target, const QVGroup& group, const std::vector<std::string>& listing,
                      QVRunReport& report) {
  std::vector<std::string> versions;
  for (const auto& name : listing)
    if (qv::isVersionName(name)) versions.push_back(name);
  const std::uint64_t keep = group.versions.value_or(0);
  if (group.hasUnreadableVersions()) {
    report.versionsUnreadable = true;
    QVLog("QVBackupAgent warning: the \"versions\" of group \"" + group.title +
          "\" cannot be read; no old version was removed");
  } else if (versions.size() > keep) {
    std::sort(versions.begin(), versions.end());
    const std::size_t surplus = versions.size() - static_cast<std::size_t>(keep);
    for (std::size_t i = 0; i < surplus; ++i) {
      if (!target.removeEntry(versions[i], group))
        QVLog(qv::stringWithFormat("Could not remove old entry: %@", {versions[i]}));
    }
  }
}

}  // namespace

template <typename F>
void QVBackupAgent::postToSelf(F&& work) {
  std::weak_ptr<QVBackupAgent*> self = m_weakSelf;
  qv::postToMainThread([self, work = std::forward<F>(work)]() mutable {
    if (auto agent = self.lock()) work(**agent);
  });
}

void QVBackupAgent::backupGroupWithID(const std::string& groupID) { backupGroupWithID(groupID, true); }

void QVBackupAgent::backupGroupWithID(const std::string& groupID, bool notifyHostApp) {
  if (QVGroupRef group = groupWithIdentifier(groupID)) backupGroup(group, notifyHostApp);
}

void QVBackupAgent::backupGroup(const QVGroupRef& group, bool notifyHostApp) {
  // The destination is looked up first, on purpose: a missing group also ends here, with this line.
  QVTargetRef target;
  if (group && group->target) target = targetWithIdentifier(*group->target);
  if (!target) {
    QVLog("No target specified!");
    return;
  }
  if (!group) {
    QVLog("No group specified!");
    return;
  }
  const std::string groupID = group->identifier;
  // Dropped before the running check: a refused request also leaves the group without a timer until
  // its running backup re-arms it.
  dropTimerForGroupWithID(groupID, true);
  if (m_activeBackupTargets.count(groupID)) {
    QVLog(qv::stringWithFormat("%@ warning : Current group is backing up now.", {"QVBackupAgent"}));
    return;
  }
  if (m_runGate && !m_runGate(*group)) return;

  if (!group->items.empty()) {
    if (m_host) m_host->startStatusIconAnimation();
    std::unique_ptr<QVBackupTarget> destination = QVBackupTarget::targetWithOptions(*target);
    if (!destination) {
      // No run, no outcome: the request ends here, as it always has for a destination of unknown kind.
      QVLog("QVBackupAgent: destination \"" + target->title + "\" has the unknown type \"" + target->type +
            "\"; group \"" + group->title + "\" was not backed up");
      return;
    }
    QVTarget options = destination->options();
    options.notifyHostApp = notifyHostApp;
    destination->setOptions(options);

    auto run = std::make_shared<Run>();
    run->target = std::move(destination);
    run->snapshot = *group;
    run->group = group;
    m_activeBackupTargets[groupID] = run;
    if (m_menuItemController) m_menuItemController->agentDidStartBackupGroup(group);
    run->thread = std::thread([this, run] { performBackup(run); });
    return;
  }

  // An empty group requested by the host: the host asked and sees the group, so nothing is said, and the
  // timer dropped above stays dropped until the group changes or runs.
  if (notifyHostApp) return;

  group->lastBackupAttemptDate = std::chrono::system_clock::now();
  m_delegate.send([&](QVBackupAgentDelegate& d) { d.backupDidEndForGroup(group, *this); });
  savePrefs();
  if (m_host) {
    QVNotification notification = m_host->notificationInstance();
    notification.text =
        qv::stringWithFormat(QVLocalizedString("Unable to backup group %@. The group is empty.", this), {group->title});
    notification.tag = groupID;
    notification.button1Text = QVLocalizedString("More...", this);
    std::weak_ptr<QVBackupAgent*> self = m_weakSelf;
    notification.button1Action = [self](const std::string& userInfo) {
      if (auto agent = self.lock()) (*agent)->showGroupWithID(userInfo);
    };
    notification.button2Text = QVLocalizedString("Cancel");
    notification.userInfo = groupID;
    m_host->removeNotificationWithTag(groupID);
    m_host->showNotification(notification);
  }
  sheduleTimerForGroup(group, 3600.0);
}

const QVRunReport* QVBackupAgent::runReportForGroupWithID(const std::string& groupID) const {
  auto it = m_runReports.find(groupID);
  return it == m_runReports.end() ? nullptr : &it->second;
}

void QVBackupAgent::cancelBackupGroupWithID(const std::string& groupID) {
  auto it = m_activeBackupTargets.find(groupID);
  if (it != m_activeBackupTargets.end()) it->second->target->cancel();
}

bool QVBackupAgent::isBackingUpGroupWithID(const std::string& groupID) const {
  return m_activeBackupTargets.count(groupID) != 0;
}

// Run thread. Reads only the run's own copy of the group and drives the run's destination; everything
// else goes to the main thread through postToSelf, in order.
void QVBackupAgent::performBackup(std::shared_ptr<Run> run) {
  // The thread is handed its destination when the run starts; without one there is no run and no outcome.
  if (!run->target) {
    QVLog("Backup Agent performBackup: Target not contains in collection targets for group");
    return;
  }
  QVBackupTarget& target = *run->target;
  const QVGroup& group = run->snapshot;
  QVRunReport report;
  report.groupID = group.identifier;
  report.started = std::chrono::system_clock::now();
  report.items = group.items.size();
  const std::string version = qv::versionNameForDate(report.started);
  report.version = version;

  QVBackupTargetDelegate adapter;
  target.setDelegate(&adapter);
  target.backupWillStart();
  adapter.setGroup(run->group);
  adapter.setAgent(this);

  std::vector<std::string> usedNames;
  std::optional<QVError> lastError;
  bool anySucceeded = false;
  bool anyMissing = false;
  bool leftEarly = false;
  for (std::size_t index = 0; index < group.items.size(); ++index) {
    // A run that stops here counts as having written nothing, whatever it wrote before: a version that
    // lacks items is never counted as a complete one.
    if (target.isCancelled() || !target.isAvailable()) {
      leftEarly = true;
      break;
    }
    adapter.setIndex(index);
    const std::string& path = group.items[index];
    const std::string name = qv::uniqueItemName(path, usedNames);
    lastError.reset();
    QVError error;
    if (target.backupItem(path, group, name, version, &error)) {
      anySucceeded = true;
      continue;
    }
    if (!error.domain.empty()) {
      // Every error a destination stores has its domain; an item failed without one leaves the run without
      // an error, so the run records 1.
      lastError = error;
      if (error.code == -43) {
        anyMissing = true;
        report.missingItems.push_back(path);
        continue;
      }
    }
    // Named for the report: a run that completes does not say so in its status. A cancel is told as such,
    // and a file the destination named as left out has been told already.
    const auto& leftOut = target.leftOutPaths();
    if (!target.isCancelled() && std::find(leftOut.begin(), leftOut.end(), path) == leftOut.end())
      report.failedItems.push_back(error.recoverySuggestion && !error.recoverySuggestion->empty()
                                       ? path + " (" + *error.recoverySuggestion + ")"
                                       : path);
  }
  target.backupDidEnd();
  report.files = target.filesWritten();
  report.bytes = target.bytesWritten();
  report.leftOut = target.leftOutPaths();

  auto endReport = [&] {
    target.setDelegate(nullptr);
    report.ended = std::chrono::system_clock::now();
    report.notes = target.notes();
  };
  if (target.isCancelled()) {
    // The partial version stays at the destination.
    endReport();
    postToSelf([group = run->group, report](QVBackupAgent& agent) {
      agent.m_runReports[report.groupID] = report;  // filed before the outcome, for the host to read with it
      agent.onBackupCancel(group);
    });
    return;
  }

  std::vector<std::string> listing;
  if (target.isAvailable()) listing = target.entriesInDirectoryForItem(group).value_or(std::vector<std::string>{});

  if (anySucceeded && !leftEarly) {
    pruneOldVersions(target, group, listing, report);
    endReport();
    postToSelf([group = run->group, anyMissing, report](QVBackupAgent& agent) {
      agent.m_runReports[report.groupID] = report;
      agent.onBackupComplete(group, anyMissing);
    });
  } else {
    auto it = std::find(listing.begin(), listing.end(), version);
    if (it != listing.end()) {
      target.removeEntry(version, group);
      listing.erase(it);
    }
    // With a destination that was lost the listing is empty, so this is called all the same.
    if (listing.empty()) target.removeRootEntryForGroup(group);
    endReport();
    postToSelf([group = run->group, lastError, report](QVBackupAgent& agent) {
      agent.m_runReports[report.groupID] = report;
      agent.onBackupFailed(group, lastError);
    });
  }
}

void QVBackupAgent::backupProgress(double progress, const QVGroupRef& forGroup, std::size_t item) {
  postToSelf([group = forGroup, progress, item](QVBackupAgent& agent) {
    agent.backupProgressWithArguments(group, progress, item);
  });
}

void QVBackupAgent::backupCalculatedFiles(std::uint64_t, std::uint64_t, const QVGroupRef& forGroup, std::size_t item) {
  backupProgress(-1.0, forGroup, item);
}

void QVBackupAgent::backupProgressWithArguments(const QVGroupRef& group, double progress, std::size_t index) {
  const std::size_t n = group->items.size();
  // The first message of a run fills every slot with its own value (kept as it is).
  if (!group->progressInfo) group->progressInfo = std::vector<double>(n, progress);
  if (index < group->progressInfo->size()) (*group->progressInfo)[index] = progress;
  if (m_menuItemController) m_menuItemController->agentGroup(group, totalProgressForGroup(*group->progressInfo));
  if (progress >= 1.0 && n > 0 && index == n - 1) group->progressInfo.reset();
  m_delegate.send([&](QVBackupAgentDelegate& d) { d.backupProgress(progress, group->identifier, index, *this); });
}

std::int64_t QVBackupAgent::totalProgressForGroup(const std::vector<double>& progressInfo) {
  if (progressInfo.empty()) return 100;
  double sum = 0.0;
  // A fraction that is not a finite number is no progress a menu can show.
  for (double value : progressInfo) sum += std::isfinite(value) ? std::max(value, 0.0) : 0.0;
  return static_cast<std::int64_t>(sum / static_cast<double>(progressInfo.size()) * 100.0);
}

void QVBackupAgent::removeProgressInfoForGroup(const QVGroupRef& group) {
  if (!group->progressInfo) return;
  for (std::size_t i = 0; i < group->items.size(); ++i)
    m_delegate.send([&](QVBackupAgentDelegate& d) { d.backupProgress(1.0, group->identifier, i, *this); });
  group->progressInfo.reset();
}

void QVBackupAgent::backupDidFinishForGroup(const QVGroupRef& group, std::int64_t withStatusCode) {
  removeProgressInfoForGroup(group);
  group->statusCode = withStatusCode;
  if (m_menuItemController) m_menuItemController->agentDidFinishBackupGroup(group);
  // Stopped even while other groups still run.
  if (m_host) m_host->stopStatusIconAnimation();
  auto it = m_activeBackupTargets.find(group->identifier);
  if (it != m_activeBackupTargets.end()) {
    std::shared_ptr<Run> run = it->second;
    m_activeBackupTargets.erase(it);
    // The thread posted this outcome as its last act.
    if (run->thread.joinable()) run->thread.join();
  }
  savePrefs();
  m_delegate.send([&](QVBackupAgentDelegate& d) { d.backupDidEndForGroup(group, *this); });
}

void QVBackupAgent::onBackupComplete(const QVGroupRef& group, bool showWarning) {
  const QVDate now = std::chrono::system_clock::now();
  group->lastBackupAttemptDate = now;
  group->lastBackupDate = now;
  setLastBackupDate(now);
  backupDidFinishForGroup(group, 0);
  sheduleTimerForGroup(group);
  if (showWarning) showWarningPopupForGroup(group);
}

void QVBackupAgent::onBackupFailed(const QVGroupRef& group, const std::optional<QVError>& error) {
  group->lastBackupAttemptDate = std::chrono::system_clock::now();
  const std::int64_t code = error ? error->code : 1;
  backupDidFinishForGroup(group, code);
  // The notify flag is read after the run's destination has left the table, so it always reads false:
  // every failed run is shown to the user, and the delegate's failure message is not sent (intended).
  bool notifyHostApp = false;
  auto it = m_activeBackupTargets.find(group->identifier);
  if (it != m_activeBackupTargets.end()) notifyHostApp = it->second->target->options().notifyHostApp.value_or(false);
  if (notifyHostApp) {
    m_delegate.send([&](QVBackupAgentDelegate& d) { d.backupFailedForGroup(group, error, *this); });
  } else {
    showUserPopupForGroup(group, error);
  }
  sheduleTimerForGroup(group, 3600.0);
}

void QVBackupAgent::onBackupCancel(const QVGroupRef& group) {
  group->lastBackupAttemptDate = std::chrono::system_clock::now();
  backupDidFinishForGroup(group, -128);
  sheduleTimerForGroup(group);
}
