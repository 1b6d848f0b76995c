#include "host/run/QVRunMonitor.h"

#include "agent/QVBackupAgent.h"
#include "host/run/QVHostApp.h"
#include "platform/QVLog.h"
#include "platform/QVNCTemplate.h"
#include "platform/QVRunLoop.h"
#include "platform/QVStatusTexts.h"

std::string QVRunOutcome::kindName(Kind kind) {
  switch (kind) {
    case Kind::complete: return "complete";
    case Kind::completeWithMissingItems: return "complete with missing items";
    case Kind::failed: return "failed";
    case Kind::cancelled: return "cancelled";
    case Kind::empty: return "empty";
  }
  return "failed";
}

std::string QVRunOutcome::line() const {
  if (kind == Kind::empty) return title + ": empty, nothing to back up";
  std::string text = title + ": " + kindName(kind);
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
  for (const auto& note : report->notes) lines.push_back(note);
  if (report->versionsUnreadable)
    lines.push_back("the group's stored \"versions\" cannot be read, so no old version was removed; set it with "
                    "\"stellwin-backup group set " + groupID + " --versions N\"");
  return lines;
}

QVJournalEntry QVRunOutcome::journalEntry() const {
  QVJournalEntry entry;
  entry.groupID = groupID;
  entry.title = title;
  entry.outcome = kindName(kind);
  entry.statusCode = statusCode;
  if (report) {
    entry.version = report->version;
    entry.started = qv::iso8601(report->started);
    entry.ended = qv::iso8601(report->ended);
    entry.items = report->items;
    entry.files = report->files;
    entry.bytes = report->bytes;
    entry.leftOutCount = report->leftOut.size();
    for (std::size_t i = 0; i < report->leftOut.size() && i < kQVJournalLeftOutPaths; ++i)
      entry.leftOut.push_back(report->leftOut[i]);
    entry.missingItems = report->missingItems;
    entry.failedItems = report->failedItems;
    entry.versionsUnreadable = report->versionsUnreadable;
    entry.notes = report->notes;
  } else {
    entry.started = entry.ended = qv::iso8601(std::chrono::system_clock::now());
  }
  return entry;
}

std::shared_ptr<QVRunMonitor> QVRunMonitor::make(QVBackupAgent& agent, QVHostApp& host) {
  std::shared_ptr<QVRunMonitor> monitor(new QVRunMonitor(agent, host, QVRunJournal(QVRunJournal::defaultDirectory())));
  std::weak_ptr<QVRunMonitor> weak = monitor;
  // The agent starts the icon animation before the run is filed: look once the start is done.
  host.setRunStartObserver([weak] {
    qv::postToMainThread([weak] {
      if (auto self = weak.lock()) self->findStartedRuns();
    });
  });
  host.setTemplateObserver([weak](const QVNCTemplate& nctemplate, const QVNCTemplateItem& item) {
    if (auto self = weak.lock()) self->templateDidShowItem(nctemplate, item);
  });
  return monitor;
}

QVRunMonitor::QVRunMonitor(QVBackupAgent& agent, QVHostApp& host, QVRunJournal journal)
    : m_agent(agent), m_host(host), m_journal(std::move(journal)) {}

QVRunMonitor::~QVRunMonitor() {
  m_host.setRunStartObserver(nullptr);
  m_host.setTemplateObserver(nullptr);
}

void QVRunMonitor::followRun(const std::string& groupID) {
  if (m_runs.count(groupID)) return;
  m_runs[groupID] = Run{};
  if (QVGroupRef group = m_agent.groupWithIdentifier(groupID); group && m_onStart) m_onStart(*group);
}

std::vector<std::string> QVRunMonitor::runningGroupIDs() const {
  std::vector<std::string> ids;
  for (const auto& [groupID, run] : m_runs)
    if (!run.ending) ids.push_back(groupID);
  return ids;
}

bool QVRunMonitor::isIdle() const {
  return m_runs.empty() && m_pendingOutcomes == 0 && m_agent.numberOfRunningBackups() == 0;
}

void QVRunMonitor::findStartedRuns() {
  for (const auto& group : m_agent.groups())
    if (m_agent.isBackingUpGroupWithID(group->identifier) && !m_runs.count(group->identifier))
      followRun(group->identifier);
}

void QVRunMonitor::templateDidShowItem(const QVNCTemplate& nctemplate, const QVNCTemplateItem& item) {
  auto it = m_runs.find(item.userInfo);
  if (it == m_runs.end()) return;
  if (&nctemplate == m_agent.ncTemplate()) it->second.failureText = item.name;
  else if (&nctemplate == m_agent.ncWarningTemplate()) it->second.warned = true;
}

void QVRunMonitor::backupProgress(double, const std::string& forGroupID, std::size_t, QVBackupAgent& inAgent) {
  if (!m_onProgress) return;
  QVGroupRef group = inAgent.groupWithIdentifier(forGroupID);
  if (!group) return;
  // The record goes once the last item is done.
  const std::int64_t percent = group->progressInfo ? QVBackupAgent::totalProgressForGroup(*group->progressInfo) : 100;
  m_onProgress(forGroupID, percent);
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
      outcome.message = qv::statusCommentString(static_cast<std::int32_t>(code));
    outcome.message = qv::redactedString(outcome.message);  // a server's address may carry a password
  }
  if (const QVRunReport* report = m_agent.runReportForGroupWithID(groupID)) {
    outcome.report = *report;
    for (auto& item : outcome.report->failedItems) item = qv::redactedString(item);  // the reasons name servers
  }
  if (std::string error; !m_journal.append(outcome.journalEntry(), &error))
    m_host.writeMessage("warning: the run was not recorded in the journal: " + error);
  if (m_onOutcome) m_onOutcome(outcome);
}

void QVRunMonitor::emptyGroupEnded(const std::string& groupID) {
  if (m_pendingOutcomes > 0) --m_pendingOutcomes;
  QVRunOutcome outcome;
  outcome.groupID = groupID;
  QVGroupRef group = m_agent.groupWithIdentifier(groupID);
  outcome.title = group ? group->title : groupID;
  outcome.kind = QVRunOutcome::Kind::empty;
  outcome.message = "the group is empty; nothing to back up";
  if (m_onOutcome) m_onOutcome(outcome);
}
