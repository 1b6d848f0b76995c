#include "host/run/QVRunMonitor.h"

#include <thread>

#include "agent/QVBackupAgent.h"
#include "host/run/QVHostApp.h"
#include "host/run/QVReadableText.h"
#include "host/run/QVVersionNames.h"
#include "platform/QVFoundation.h"
#include "platform/QVLog.h"
#include "platform/QVNCTemplate.h"
#include "platform/QVPassedOverFolders.h"
#include "platform/QVRunLoop.h"
#include "platform/QVStatusTexts.h"
#include "platform/QVUserDefaults.h"
#include "targets/QVBackupTarget.h"

std::string QVRunOutcome::kindName(Kind kind) {
  switch (kind) {
    case Kind::complete:
      return "complete";
    case Kind::completeWithMissingItems:
      return "complete with missing items";
    case Kind::failed:
      return "failed";
    case Kind::cancelled:
      return "cancelled";
    case Kind::empty:
      return "empty";
  }
  return "failed";
}

std::optional<QVRunOutcome::Kind> QVRunOutcome::kindNamed(const std::string& name) {
  for (Kind kind : {Kind::complete, Kind::completeWithMissingItems, Kind::failed, Kind::cancelled, Kind::empty})
    if (kindName(kind) == name) return kind;
  return std::nullopt;
}

std::string QVRunOutcome::line() const {
  if (kind == Kind::empty) return title + ": empty, nothing to back up";
  std::string text = title + ": " + kindName(kind);
  if (isSuccess() && report) {
    text += ", " + qv::countText(report->files, "file") + ", " + qv::sizeText(report->bytes) + " in " +
            qv::durationText(report->ended - report->started);
    if (!report->version.empty()) text += ", version " + report->version;
  }
  if (kind == Kind::failed && statusCode) text += " (" + std::to_string(*statusCode) + ")";
  if (!message.empty() && kind != Kind::complete && kind != Kind::completeWithMissingItems && kind != Kind::cancelled)
    text += ": " + message;
  return text;
}

std::vector<std::string> QVRunOutcome::detailLines() const {
  std::vector<std::string> lines;
  if (!report) return lines;
  for (const auto& item : report->missingItems) lines.push_back("missing item: " + item);
  // A failed run backed up nothing: its message says why.
  if (kind == Kind::complete || kind == Kind::completeWithMissingItems)
    for (const auto& item : report->failedItems) lines.push_back("not backed up: " + item);
  const std::size_t leftOut = report->leftOut.size();
  if (leftOut > 0) {
    lines.push_back(std::to_string(leftOut) + (leftOut == 1 ? " file could not be read and was left out"
                                                            : " files could not be read and were left out"));
    constexpr std::size_t kShown = 10;
    for (std::size_t i = 0; i < leftOut && i < kShown; ++i) lines.push_back("  " + report->leftOut[i]);
    if (leftOut > kShown) lines.push_back("  and " + std::to_string(leftOut - kShown) + " more (see --json)");
  }
  for (const auto& folder : report->passedOver)
    lines.push_back("passed over (a backup destination or this program's own folder): " + folder);
  for (const auto& note : report->notes) lines.push_back(note);
  if (report->versionsUnreadable)
    lines.push_back(
        "the group's stored \"versions\" cannot be read, so no old version was removed; set it with "
        "\"stellwin-backup group set " +
        groupID + " --versions N\"");
  return lines;
}

QVJournalEntry QVRunOutcome::journalEntry(std::size_t leftOutLimit) const {
  QVJournalEntry entry;
  entry.groupID = groupID;
  entry.title = title;
  entry.outcome = kindName(kind);
  entry.statusCode = statusCode;
  entry.message = message;
  if (report) {
    entry.version = report->version;
    entry.started = qv::iso8601(report->started);
    entry.ended = qv::iso8601(report->ended);
    entry.items = report->items;
    entry.files = report->files;
    entry.bytes = report->bytes;
    entry.leftOutCount = report->leftOut.size();
    for (std::size_t i = 0; i < report->leftOut.size() && i < leftOutLimit; ++i)
      entry.leftOut.push_back(report->leftOut[i]);
    entry.missingItems = report->missingItems;
    entry.failedItems = report->failedItems;
    entry.versionsUnreadable = report->versionsUnreadable;
    entry.passedOver = report->passedOver;
    entry.notes = report->notes;
  } else {
    entry.started = entry.ended = qv::iso8601(std::chrono::system_clock::now());
  }
  return entry;
}

namespace qv {

void passOverOwnFolders(const QVBackupAgent& agent) {
  std::vector<std::string> folders{QVUserDefaults::configDirectory(), QVRunJournal::defaultDirectory()};
  for (const auto& target : agent.targets())
    if (target->type == "local" && !target->path.empty() && target->path.front() == '/')
      folders.push_back(target->path);
  setFoldersPassedOver(std::move(folders));
}

std::string missingDestinationText(const QVTarget& target) {
  if (target.type != "local" || fileExistsAtPath(target.path)) return "";
  return "the destination folder \"" + target.path + "\" does not exist (is its volume mounted?)";
}

}  // namespace qv

std::shared_ptr<QVRunMonitor> QVRunMonitor::make(QVBackupAgent& agent, QVHostApp& host) {
  std::shared_ptr<QVRunMonitor> monitor(new QVRunMonitor(agent, host, QVRunJournal(QVRunJournal::defaultDirectory())));
  std::weak_ptr<QVRunMonitor> weak = monitor;
  // The agent starts the icon animation before the run is filed: look once the start is done.
  monitor->m_hostSubscriptions.push_back(host.addAnimationListener([weak](bool started, int) {
    if (!started) return;
    // Before the run's thread starts: its copies read the list as it stands then.
    if (auto self = weak.lock()) qv::passOverOwnFolders(self->m_agent);
    qv::postToMainThread([weak] {
      if (auto self = weak.lock()) self->findStartedRuns();
    });
  }));
  monitor->m_hostSubscriptions.push_back(
      host.addTemplateListener([weak](const QVNCTemplate& nctemplate, const QVNCTemplateItem& item) {
        if (auto self = weak.lock()) self->templateDidShowItem(nctemplate, item);
      }));
  return monitor;
}

QVRunMonitor::QVRunMonitor(QVBackupAgent& agent, QVHostApp& host, QVRunJournal journal)
    : m_agent(agent), m_host(host), m_journal(std::move(journal)) {}

QVRunMonitor::~QVRunMonitor() {
  for (auto& [id, thread] : m_settlers) thread.join();
}

void QVRunMonitor::followRun(const std::string& groupID) {
  if (m_runs.count(groupID)) return;
  m_runs[groupID] = Run{};
  if (QVGroupRef group = m_agent.groupWithIdentifier(groupID); group) m_starts.notify(*group);
}

std::vector<std::string> QVRunMonitor::runningGroupIDs() const {
  std::vector<std::string> ids;
  for (const auto& [groupID, run] : m_runs)
    if (!run.ending) ids.push_back(groupID);
  return ids;
}

bool QVRunMonitor::isIdle() const {
  return m_runs.empty() && m_pendingOutcomes == 0 && m_settling == 0 && m_agent.numberOfRunningBackups() == 0;
}

void QVRunMonitor::findStartedRuns() {
  for (const auto& group : m_agent.groups())
    if (m_agent.isBackingUpGroupWithID(group->identifier) && !m_runs.count(group->identifier))
      followRun(group->identifier);
}

void QVRunMonitor::templateDidShowItem(const QVNCTemplate& nctemplate, const QVNCTemplateItem& item) {
  auto it = m_runs.find(item.userInfo);
  if (it == m_runs.end()) return;
  if (&nctemplate == m_agent.ncTemplate())
    it->second.failureText = item.name;
  else if (&nctemplate == m_agent.ncWarningTemplate())
    it->second.warned = true;
}

void QVRunMonitor::backupProgress(double, const std::string& forGroupID, std::size_t item, QVBackupAgent& inAgent) {
  if (m_progress.empty()) return;
  QVGroupRef group = inAgent.groupWithIdentifier(forGroupID);
  if (!group) return;
  // The record goes once the last item is done.
  const std::int64_t percent = group->progressInfo ? QVBackupAgent::totalProgressForGroup(*group->progressInfo) : 100;
  m_progress.notify(forGroupID, percent, item < group->items.size() ? group->items[item] : std::string());
}

void QVRunMonitor::backupDidEndForGroup(const QVGroupRef& group, QVBackupAgent&) {
  if (!group) return;
  const std::string groupID = group->identifier;
  auto it = m_runs.find(groupID);
  // The agent tells of a run's end before it shows the run's notification: the outcome waits for it.
  ++m_pendingOutcomes;
  std::weak_ptr<QVRunMonitor> weak = weak_from_this();
  if (it != m_runs.end()) {
    it->second.ending = true;
    qv::postToMainThread([weak, groupID] {
      if (auto self = weak.lock()) self->finishRun(groupID);
    });
  } else {
    // A run that never started: a group that its timer found empty.
    qv::postToMainThread([weak, groupID] {
      if (auto self = weak.lock()) self->emptyGroupEnded(groupID);
    });
  }
}

void QVRunMonitor::backupFailedForGroup(const QVGroupRef& group, const std::optional<QVError>& withError,
                                        QVBackupAgent&) {
  if (!group) return;
  auto it = m_runs.find(group->identifier);
  if (it != m_runs.end()) it->second.error = withError;
}

void QVRunMonitor::showGroupsWithIDs(const std::vector<std::string>& groupIDs) { m_host.showGroupsWithIDs(groupIDs); }

void QVRunMonitor::finishRun(const std::string& groupID) {
  if (m_pendingOutcomes > 0) --m_pendingOutcomes;
  auto it = m_runs.find(groupID);
  if (it == m_runs.end()) return;
  const Run run = it->second;
  m_runs.erase(it);

  QVRunOutcome outcome;
  outcome.groupID = groupID;
  QVGroupRef group = m_agent.groupWithIdentifier(groupID);
  outcome.title = group ? group->title : groupID;
  const std::int64_t code = group && group->statusCode ? *group->statusCode : 1;
  outcome.statusCode = code;
  // An FTP upload refused by a reachable server fails the run with the status 0 that the destination
  // gives every such error: the failure shown to the user is what tells it from a complete run.
  const bool failedWithoutCode = code == 0 && run.failureText.has_value();
  if (failedWithoutCode) outcome.statusCode = std::nullopt;
  if (code == 0 && !failedWithoutCode) {
    outcome.kind = run.warned ? QVRunOutcome::Kind::completeWithMissingItems : QVRunOutcome::Kind::complete;
  } else if (code == -128) {
    outcome.kind = QVRunOutcome::Kind::cancelled;
  } else {
    outcome.kind = QVRunOutcome::Kind::failed;
    const QVTargetRef target = group && group->target ? m_agent.targetWithIdentifier(*group->target) : nullptr;
    // The failure notification's item reads "<title> - <message>".
    const std::string prefix = outcome.title + " - ";
    if (run.error && run.error->recoverySuggestion) {
      outcome.message = *run.error->recoverySuggestion;
    } else if (run.failureText && run.failureText->rfind(prefix, 0) == 0) {
      outcome.message = run.failureText->substr(prefix.size());
    } else if (run.failureText) {
      outcome.message = *run.failureText;
    }
    if (outcome.message.empty() || outcome.message == "(null)")
      outcome.message = qv::statusCommentStringForDestination(target ? target->type : "", code);
    // The destination's own message cannot say which folder is missing.
    if (std::string missing = target ? qv::missingDestinationText(*target) : ""; !missing.empty() && code == -120)
      outcome.message += " T" + missing.substr(1);
    outcome.message = qv::redactedString(outcome.message);  // a server's address may carry a password
  }
  if (const QVRunReport* report = m_agent.runReportForGroupWithID(groupID)) {
    outcome.report = *report;
    for (auto& item : outcome.report->failedItems) item = qv::redactedString(item);  // the reasons name servers
    if (group)
      for (const auto& item : group->items)
        for (auto& folder : qv::foldersPassedOverInside(item)) outcome.report->passedOver.push_back(std::move(folder));
  }
  if (group)
    settleVersionsThenHandOut(*group, std::move(outcome));
  else
    handOut(outcome);
}

void QVRunMonitor::handOut(const QVRunOutcome& outcome) {
  if (std::string error; !m_journal.append(outcome.journalEntry(), &error))
    m_host.writeMessage("warning: the run was not recorded in the journal: " + error);
  m_outcomes.notify(outcome);
}

void QVRunMonitor::settleVersionsThenHandOut(const QVGroup& group, QVRunOutcome outcome) {
  std::shared_ptr<QVBackupTarget> target;
  if (outcome.report && !outcome.report->version.empty() && group.target)
    target = m_agent.backupTargetWithIdentifier(*group.target);
  if (!target) return handOut(outcome);
  ++m_settling;
  std::weak_ptr<QVRunMonitor> weak = weak_from_this();
  const unsigned id = m_nextSettler++;
  // Joined once its outcome is back on the main thread (or when the monitor goes), so that the destination
  // it used is gone before the outcome counts as handed out.
  m_settlers[id] = std::thread([weak, id, target = std::move(target), group, outcome = std::move(outcome)]() mutable {
    settleVersions(*target, group, outcome);
    target.reset();
    qv::postToMainThread([weak, id, outcome = std::move(outcome)] {
      if (auto self = weak.lock()) {
        if (auto it = self->m_settlers.find(id); it != self->m_settlers.end()) {
          it->second.join();
          self->m_settlers.erase(it);
        }
        --self->m_settling;
        self->handOut(outcome);
      }
    });
  });
}

void QVRunMonitor::settleVersions(QVBackupTarget& target, const QVGroup& group, QVRunOutcome& outcome) {
  const bool partial = outcome.kind == QVRunOutcome::Kind::cancelled || outcome.kind == QVRunOutcome::Kind::failed;
  if (!partial && !outcome.isSuccess()) return;
  const std::vector<std::string> entries = target.entriesForReading(group).value_or(std::vector<std::string>{});
  const std::string version = outcome.report->version;
  if (std::find(entries.begin(), entries.end(), version) == entries.end()) return;  // removed, or never made
  if (partial) {
    // Out of the names the agent's pruning counts: a partial version never pushes out a complete one.
    const std::string renamed = qv::partialVersionName(version);
    if (target.renameEntry(version, renamed, group))
      outcome.report->version = renamed;
    else
      qv::debugLog("host",
                   "QVRunMonitor could not mark the version " + version + " of \"" + group.title + "\" as partial");
    return;
  }
  // A complete version now stands: the partial ones before it hold nothing that it lacks (also those
  // the journal knows as partial under their first name, where a destination could not rename them).
  for (const auto& entry : qv::versionsInListing(entries, qv::partialVersionsInJournal(group.identifier))) {
    const std::string& name = entry.name;
    if (!entry.partial || name >= version) continue;
    if (!target.removeEntry(name, group))
      qv::debugLog("host", "QVRunMonitor could not remove the partial version " + name + " of \"" + group.title + "\"");
  }
}

void QVRunMonitor::emptyGroupEnded(const std::string& groupID) {
  if (m_pendingOutcomes > 0) --m_pendingOutcomes;
  QVRunOutcome outcome;
  outcome.groupID = groupID;
  QVGroupRef group = m_agent.groupWithIdentifier(groupID);
  outcome.title = group ? group->title : groupID;
  outcome.kind = QVRunOutcome::Kind::empty;
  outcome.message = "the group is empty; nothing to back up";
  m_outcomes.notify(outcome);
}
