#include "host/cli/QVBackupCommand.h"

#include <algorithm>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <ostream>
#include <thread>

#include "agent/QVBackupAgent.h"
#include "agent/QVVersionName.h"
#include "host/cli/QVDestinationChecks.h"
#include "host/cli/QVHostArguments.h"
#include "host/cli/QVRunPresenter.h"
#include "host/run/QVHostApp.h"
#include "host/run/QVRecords.h"
#include "platform/QVRunLoop.h"

namespace {

constexpr const char* kProgram = "stellwin-backup";

}  // namespace

namespace qv {

void waitForANewVersionName(const QVGroup& group) {
  // A version is named after the second its run starts in. A run that starts in the second the last one
  // ended in would take that run's version for its own and keep every copy already in it: the user's
  // latest changes would not be backed up, and the run would still say it completed.
  if (!group.lastBackupAttemptDate) return;
  const auto now = std::chrono::system_clock::now();
  if (versionNameForDate(now) != versionNameForDate(*group.lastBackupAttemptDate)) return;
  std::this_thread::sleep_until(std::chrono::floor<std::chrono::seconds>(now) + std::chrono::milliseconds(1005));
}

std::string outcomesJSON(const std::vector<QVRunOutcome>& outcomes) {
  QVArray records;
  records.reserve(outcomes.size());
  for (const auto& outcome : outcomes) records.emplace_back(outcomeRecord(outcome));
  return recordJSON(QVValue(std::move(records)));
}

}  // namespace qv

QVBackupCommand::QVBackupCommand(QVBackupAgent& agent, QVRunMonitor& monitor, QVHostApp& host, std::ostream& out,
                                 std::ostream& err)
    : m_agent(agent), m_monitor(monitor), m_host(host), m_out(out), m_err(err) {}

int QVBackupCommand::findGroups(const QVBackupAgent& agent, const QVCommandOptions& options, std::ostream& err,
                                std::vector<QVGroupRef>& groups) {
  // Every argument is found before any run starts.
  for (const auto& argument : options.groups) {
    auto found = qv::findGroup(agent, argument);
    if (!found.record) {
      err << kProgram << ": " << found.error << std::endl;
      return 2;
    }
    if (std::none_of(groups.begin(), groups.end(), [&](const QVGroupRef& g) { return g == found.record; }))
      groups.push_back(found.record);
  }
  // Titles from older preferences (or edited by hand) that would write outside the group's own folder,
  // or into another group's, whose versions the run would then remove.
  for (const auto& group : groups) {
    std::string problem = qv::groupTitleProblem(group->title);
    if (QVGroupRef other = qv::otherGroupTitled(agent, group->title, group->identifier); problem.empty() && other)
      problem = "group " + other->identifier + " has the same title, so the two would remove each other's versions";
    if (!problem.empty()) {
      err << kProgram << ": group " << group->identifier << " is not backed up: " << problem
          << "; give it a new title with \"" << kProgram << " group set " << group->identifier << " --title NEW\""
          << std::endl;
      return 2;
    }
  }
  for (const auto& group : groups) {
    if (group->hasUnreadableVersions() || (group->versions && *group->versions != 0)) continue;
    err << kProgram << ": warning: group " << qv::quoted(group->title)
        << (group->versions ? " keeps 0 versions" : " has no stored \"versions\"")
        << ": its backup is removed right after it is made" << std::endl;
  }
  return 0;
}

std::optional<QVRunOutcome> QVBackupCommand::startRun(QVBackupAgent& agent, QVRunMonitor& monitor, const QVGroup& group,
                                                      std::string& say) {
  QVRunOutcome refused;
  refused.groupID = group.identifier;
  refused.title = group.title;
  if (group.items.empty()) {
    // The agent says nothing when asked for an empty group: the host does.
    say = "group " + qv::quoted(group.title) + " is empty; nothing to back up";
    refused.kind = QVRunOutcome::Kind::empty;
    refused.message = "the group is empty; nothing to back up";
    return refused;
  }
  if (agent.isBackingUpGroupWithID(group.identifier)) {
    monitor.followRun(group.identifier);  // already running: its outcome is this request's
    return std::nullopt;
  }
  // A dav server whose listings the dav kind cannot read would keep every version, or lose them all
  // after a failed run: the run fails before anything is sent or removed.
  if (QVTargetRef target = group.target ? agent.targetWithIdentifier(*group.target) : nullptr) {
    if (qv::QVDAVListingVerdict verdict = qv::checkDAVListing(*target); verdict.unreadable) {
      say = "group " + qv::quoted(group.title) + " was not backed up: " + verdict.message;
      refused.kind = QVRunOutcome::Kind::failed;
      refused.message = verdict.message;
      return refused;
    }
  }
  qv::waitForANewVersionName(group);
  agent.backupGroupWithID(group.identifier);
  if (agent.isBackingUpGroupWithID(group.identifier)) {
    monitor.followRun(group.identifier);
    return std::nullopt;
  }
  say = "group " + qv::quoted(group.title) + " has no usable destination";
  refused.kind = QVRunOutcome::Kind::failed;
  refused.message = "no usable destination";
  return refused;
}

int QVBackupCommand::run(const QVCommandOptions& options) {
  std::vector<QVGroupRef> groups;
  if (findGroups(m_agent, options, m_err, groups) != 0) return 2;

  std::vector<std::string> requested;
  for (const auto& group : groups) requested.push_back(group->identifier);
  return waitForRuns(requested, options.json, [&](QVRunPresenter& presenter) {
    for (const auto& group : groups) {
      std::string line;
      if (auto refused = startRun(m_agent, m_monitor, *group, line)) {
        presenter.say(line);
        presenter.report(*refused);
      }
    }
  });
}

int QVBackupCommand::waitForRuns(const std::vector<std::string>& requested, bool json,
                                 const std::function<void(QVRunPresenter&)>& start) {
  QVRunPresenter presenter(requested, json, m_out);
  presenter.setBusyQuery([this] { return m_host.animationDepth() > 0; });
  m_host.setMessageWriter([&](const std::string& line) { presenter.say(line); });
  m_host.setNotificationsPrintedElsewhere(true);
  const QVSubscription starts =
      m_monitor.addStartListener([&](const QVGroup& group) { presenter.begin(group.identifier, group.title); });
  const QVSubscription progress =
      m_monitor.addProgressListener([&](const std::string& groupID, std::int64_t percent, const std::string& item) {
        presenter.update(groupID, percent, item);
      });
  const QVSubscription outcomes =
      m_monitor.addOutcomeListener([&](const QVRunOutcome& outcome) { presenter.report(outcome); });

  bool interrupted = false;
  auto cancelAll = [&] {
    if (!interrupted) presenter.say("cancelling the running backups...");
    interrupted = true;
    presenter.setNote("cancelling...");
    for (const auto& group : m_agent.groups())
      if (m_agent.isBackingUpGroupWithID(group->identifier)) m_agent.cancelBackupGroupWithID(group->identifier);
  };
  const unsigned sigint = qv::addSignalHandler(SIGINT, cancelAll);
  const unsigned sigterm = qv::addSignalHandler(SIGTERM, cancelAll);

  start(presenter);
  while (!m_monitor.isIdle()) qv::runMainLoopUntil([&] { return m_monitor.isIdle(); }, std::chrono::hours(1));

  qv::removeSignalHandler(sigint);
  qv::removeSignalHandler(sigterm);
  m_host.setMessageWriter(nullptr);
  m_host.setNotificationsPrintedElsewhere(false);
  return presenter.finish(interrupted);
}
