#include "host/QVBackupCommand.h"

#include <algorithm>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <nlohmann/json.hpp>
#include <ostream>

#include "agent/QVBackupAgent.h"
#include "host/QVHostApp.h"
#include "host/QVHostArguments.h"
#include "host/QVProgressDisplay.h"
#include "platform/QVRunLoop.h"

namespace {

constexpr const char* kProgram = "stellwin-backup";

}  // namespace

namespace qv {

std::string outcomesJSON(const std::vector<QVRunOutcome>& outcomes) {
  nlohmann::json array = nlohmann::json::array();
  for (const auto& outcome : outcomes) {
    nlohmann::json object = nlohmann::json::object();
    object["id"] = outcome.groupID;
    object["title"] = outcome.title;
    object["outcome"] = QVRunOutcome::kindName(outcome.kind);
    object["statusCode"] = outcome.statusCode ? nlohmann::json(*outcome.statusCode) : nlohmann::json(nullptr);
    object["message"] = outcome.message.empty() ? nlohmann::json(nullptr) : nlohmann::json(outcome.message);
    if (const auto& report = outcome.report) {
      object["version"] = report->version;
      object["files"] = report->files;
      object["bytes"] = report->bytes;
      object["leftOut"] = report->leftOut;
      object["missingItems"] = report->missingItems;
      object["versionsUnreadable"] = report->versionsUnreadable;
    }
    array.push_back(std::move(object));
  }
  return array.dump(2, ' ', false, nlohmann::json::error_handler_t::replace) + "\n";
}

}  // namespace qv

QVBackupCommand::QVBackupCommand(QVBackupAgent& agent, QVRunMonitor& monitor, QVHostApp& host, std::ostream& out,
                                 std::ostream& err)
    : m_agent(agent), m_monitor(monitor), m_host(host), m_out(out), m_err(err) {}

int QVBackupCommand::run(const QVCommandOptions& options) {
  // Every argument is found before any run starts.
  std::vector<QVGroupRef> groups;
  for (const auto& argument : options.groups) {
    auto found = qv::findGroup(m_agent, argument);
    if (!found.record) {
      m_err << kProgram << ": " << found.error << std::endl;
      return 2;
    }
    if (std::none_of(groups.begin(), groups.end(), [&](const QVGroupRef& g) { return g == found.record; }))
      groups.push_back(found.record);
  }
  // Titles from older preferences (or edited by hand) that would write outside the group's own folder,
  // or into another group's, whose versions the run would then remove.
  for (const auto& group : groups) {
    std::string problem = qv::groupTitleProblem(group->title);
    if (QVGroupRef other = qv::otherGroupTitled(m_agent, group->title, group->identifier); problem.empty() && other)
      problem = "group " + other->identifier + " has the same title, so the two would remove each other's versions";
    if (!problem.empty()) {
      m_err << kProgram << ": group " << group->identifier << " is not backed up: " << problem
            << "; give it a new title with \"" << kProgram << " group set " << group->identifier << " --title NEW\""
            << std::endl;
      return 2;
    }
  }
  for (const auto& group : groups) {
    if (group->hasUnreadableVersions() || (group->versions && *group->versions != 0)) continue;
    m_err << kProgram << ": warning: group " << qv::quoted(group->title)
          << (group->versions ? " keeps 0 versions" : " has no stored \"versions\"")
          << ": its backup is removed right after it is made" << std::endl;
  }

  m_out.flush();
  QVProgressDisplay display(stderr, true);
  display.setBusyQuery([this] { return m_host.animationDepth() > 0; });
  auto say = [&](const std::string& line) { display.printLine(stderr, std::string(kProgram) + ": " + line); };
  m_host.setMessageWriter(say);

  std::vector<std::string> requested;
  for (const auto& group : groups) requested.push_back(group->identifier);
  std::vector<QVRunOutcome> outcomes;
  auto isRequested = [&](const std::string& groupID) {
    return std::find(requested.begin(), requested.end(), groupID) != requested.end();
  };
  auto report = [&](const QVRunOutcome& outcome) {
    display.end(outcome.groupID);
    if (isRequested(outcome.groupID)) {
      outcomes.push_back(outcome);
      if (!options.json) {
        display.printLine(stdout, outcome.line());
        for (const auto& line : outcome.detailLines()) display.printLine(stdout, "  " + line);
      }
    } else {
      say("(started by its schedule) " + outcome.line());
      for (const auto& line : outcome.detailLines()) say("  " + line);
    }
  };

  m_monitor.setStartHandler([&](const QVGroup& group) { display.begin(group.identifier, group.title); });
  m_monitor.setProgressHandler([&](const std::string& groupID, std::int64_t percent) { display.update(groupID, percent); });
  m_monitor.setOutcomeHandler(report);

  bool interrupted = false;
  auto cancelAll = [&] {
    if (!interrupted) say("cancelling the running backups...");
    interrupted = true;
    display.setNote("cancelling...");
    for (const auto& group : m_agent.groups())
      if (m_agent.isBackingUpGroupWithID(group->identifier)) m_agent.cancelBackupGroupWithID(group->identifier);
  };
  const unsigned sigint = qv::addSignalHandler(SIGINT, cancelAll);
  const unsigned sigterm = qv::addSignalHandler(SIGTERM, cancelAll);

  for (const auto& group : groups) {
    QVRunOutcome refused;
    refused.groupID = group->identifier;
    refused.title = group->title;
    if (group->items.empty()) {
      // The agent says nothing when asked for an empty group: the host does.
      say("group " + qv::quoted(group->title) + " is empty; nothing to back up");
      refused.kind = QVRunOutcome::Kind::empty;
      refused.message = "the group is empty; nothing to back up";
      report(refused);
      continue;
    }
    if (m_agent.isBackingUpGroupWithID(group->identifier)) {
      m_monitor.followRun(group->identifier);  // already running: its outcome is this request's
      continue;
    }
    m_agent.backupGroupWithID(group->identifier);
    if (m_agent.isBackingUpGroupWithID(group->identifier)) {
      m_monitor.followRun(group->identifier);
    } else {
      say("group " + qv::quoted(group->title) + " has no usable destination");
      refused.kind = QVRunOutcome::Kind::failed;
      refused.message = "no usable destination";
      report(refused);
    }
  }

  while (!m_monitor.isIdle()) qv::runMainLoopUntil([&] { return m_monitor.isIdle(); }, std::chrono::hours(1));

  qv::removeSignalHandler(sigint);
  qv::removeSignalHandler(sigterm);
  m_monitor.setStartHandler(nullptr);
  m_monitor.setProgressHandler(nullptr);
  m_monitor.setOutcomeHandler(nullptr);
  m_host.setMessageWriter(nullptr);
  display.setNote("");

  if (options.json) {
    // In the order asked for.
    std::vector<QVRunOutcome> ordered;
    for (const auto& groupID : requested)
      for (const auto& outcome : outcomes)
        if (outcome.groupID == groupID) ordered.push_back(outcome);
    m_out << qv::outcomesJSON(ordered);
    m_out.flush();
  }
  if (interrupted) return 130;
  const bool allComplete = outcomes.size() == requested.size() &&
                           std::all_of(outcomes.begin(), outcomes.end(), [](const QVRunOutcome& o) { return o.isSuccess(); });
  return allComplete ? 0 : 1;
}
