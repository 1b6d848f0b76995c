#include "host/daemon/QVDaemonCommand.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <ostream>

#include "agent/QVBackupAgent.h"
#include "host/cli/QVHostArguments.h"
#include "host/control/QVAgentLock.h"
#include "host/daemon/QVControlService.h"
#include "host/daemon/QVDaemonTray.h"
#include "host/run/QVHostApp.h"
#include "host/run/QVReadableText.h"
#include "host/run/QVRunMonitor.h"
#include "platform/QVConstants.h"
#include "platform/QVFoundation.h"
#include "platform/QVRunLoop.h"
#include "platform/QVUserDefaults.h"
#include "platform/QVValue.h"

namespace {

constexpr auto kFileCheckInterval = std::chrono::seconds(3);

}  // namespace

// What the preferences file was when this process last read or wrote it. A save replaces the file
// (a new inode), so any write by another process shows here.
struct QVDaemonCommand::FileState {
  bool exists = false;
  dev_t device = 0;
  ino_t inode = 0;
  off_t size = 0;
  long long modifiedNs = 0;

  static FileState of(const std::string& path) {
    FileState state;
    struct stat st {};
    if (stat(path.c_str(), &st) != 0) return state;
    state.exists = true;
    state.device = st.st_dev;
    state.inode = st.st_ino;
    state.size = st.st_size;
    state.modifiedNs = static_cast<long long>(st.st_mtim.tv_sec) * 1'000'000'000LL + st.st_mtim.tv_nsec;
    return state;
  }
  bool operator==(const FileState& other) const {
    return exists == other.exists && device == other.device && inode == other.inode && size == other.size &&
           modifiedNs == other.modifiedNs;
  }
};

QVDaemonCommand::QVDaemonCommand(QVBackupAgent& agent, QVRunMonitor& monitor, QVHostApp& host, std::ostream& log,
                                 std::vector<std::string> arguments, QVAgentLock& lock, std::string socketPath)
    : m_agent(agent),
      m_monitor(monitor),
      m_host(host),
      m_log(log),
      m_arguments(std::move(arguments)),
      m_lock(lock),
      m_socketPath(std::move(socketPath)) {}

QVDaemonCommand::~QVDaemonCommand() = default;

std::string QVDaemonCommand::nextRunText(const std::string& groupID) const {
  auto date = m_agent.nextRunDateForGroupWithID(groupID, std::chrono::system_clock::now());
  if (!date) return "";
  // The readable date has no seconds; the exact one after it is for tools that read the log.
  const std::string when = *date <= std::chrono::system_clock::now() ? "now" : qv::tableDateText(*date);
  return "next run: " + when + ", " + qv::iso8601(*date);
}

int QVDaemonCommand::run() {
  // A log reader that went away must not end the daemon.
  std::signal(SIGPIPE, SIG_IGN);
  m_service = std::make_unique<QVControlService>(m_agent, m_monitor, m_host, m_log);
  std::string error;
  if (!m_service->listen(m_socketPath, error)) {
    m_log << "stellwin-backup: " << error << std::endl;
    return 1;
  }
  m_lock.setServedSocket(m_socketPath);
  auto mayChange = [this] {
    checkPreferencesFile();
    return !m_reloading && !m_stopping;
  };
  auto didChange = [this] {
    m_agent.syncUserDefaults();
    rememberPreferencesFile();
  };
  // The status menu in the desktop's tray, where a session bus is known.
  m_tray = std::make_unique<QVDaemonTray>(m_agent, m_host, m_log, mayChange, didChange);
  m_host.setGroupsPresenter([this](const std::vector<std::string>& groupIDs) { m_tray->showGroupsWithIDs(groupIDs); });
  m_service->setChangeHooks(mayChange, [this, didChange] {
    didChange();
    m_tray->groupsDidChange();
  });
  std::vector<QVSubscription> subscriptions;
  subscriptions.push_back(m_monitor.addStartListener([this](const QVGroup& group) {
    if (m_stopping) m_agent.cancelBackupGroupWithID(group.identifier);  // started as the daemon stops
    runStarted(group);
    m_service->runStarted(group);
    m_tray->runStarted(group);
  }));
  subscriptions.push_back(
      m_monitor.addProgressListener([this](const std::string& groupID, std::int64_t percent, const std::string& item) {
        m_service->runProgress(groupID, percent, item);
        m_tray->runProgress(groupID, percent);
      }));
  subscriptions.push_back(m_monitor.addOutcomeListener([this](const QVRunOutcome& outcome) {
    runEnded(outcome);
    m_service->runEnded(outcome);
    m_tray->runEnded(outcome);
  }));

  auto stop = [this] {
    if (!m_stopping)
      m_log << (m_monitor.isIdle() ? "stopping" : "stopping: cancelling the running backups") << std::endl;
    m_stopping = true;
    m_service->stopListening();  // new commands wait for the lock, then run on their own
    m_agent.stopTimers();        // and no scheduled run starts while the others end
    for (const auto& groupID : m_monitor.runningGroupIDs()) m_agent.cancelBackupGroupWithID(groupID);
    for (const auto& group : m_agent.groups())
      if (m_agent.isBackingUpGroupWithID(group->identifier)) m_agent.cancelBackupGroupWithID(group->identifier);
  };
  std::vector<unsigned> handlers;
  handlers.push_back(qv::addSignalHandler(SIGTERM, stop));
  handlers.push_back(qv::addSignalHandler(SIGINT, stop));
  handlers.push_back(qv::addSignalHandler(SIGUSR1, [this] {
    m_agent.systemDidWake();
    const std::size_t armed = m_agent.numberOfArmedTimers();
    m_log << "wake: re-armed " << armed << (armed == 1 ? " timer" : " timers") << std::endl;
  }));
  handlers.push_back(qv::addSignalHandler(SIGHUP, [this] {
    m_log << "reloading the preferences" << std::endl;
    m_reloading = true;
  }));

  m_agent.syncUserDefaults();
  rememberPreferencesFile();
  armFileCheck();

  std::size_t scheduled = 0;
  for (const auto& group : m_agent.groups()) {
    const std::string next = nextRunText(group->identifier);
    if (next.empty()) continue;
    ++scheduled;
    m_log << qv::quoted(group->title) << " " << next << std::endl;
  }
  for (const auto& group : m_agent.groups()) {
    // Its scheduled runs go ahead, as the agent defines them; the user is told what they will do.
    std::string problem = qv::groupTitleProblem(group->title);
    if (problem.empty() && qv::otherGroupTitled(m_agent, group->title, group->identifier))
      problem = "another group has the same title, so the two remove each other's versions";
    if (!problem.empty()) m_log << "warning: group " << group->identifier << ": " << problem << std::endl;
  }
  m_log << "started with " << m_agent.groups().size() << (m_agent.groups().size() == 1 ? " group, " : " groups, ")
        << scheduled << " scheduled" << std::endl;

  for (;;) {
    auto done = [this] {
      return m_monitor.isIdle() &&
             (m_stopping || (m_reloading && !m_service->hasHolds() && !m_service->hasWaitingRuns()));
    };
    while (!done()) qv::runMainLoopUntil(done, std::chrono::hours(1));
    if (m_stopping) break;
    restartSelf();  // returns only when starting anew failed
    m_reloading = false;
  }

  for (unsigned id : handlers) qv::removeSignalHandler(id);
  m_fileCheck.reset();
  subscriptions.clear();
  m_host.setGroupsPresenter(nullptr);
  m_tray.reset();
  m_service.reset();
  if (!m_fileState || FileState::of(QVUserDefaults::standardUserDefaults().filePath()) == *m_fileState)
    m_agent.syncUserDefaults();
  m_log << "stopped" << std::endl;
  return 0;
}

void QVDaemonCommand::runStarted(const QVGroup& group) { m_log << "started " << qv::quoted(group.title) << std::endl; }

void QVDaemonCommand::runEnded(const QVRunOutcome& outcome) {
  std::string line = qv::quoted(outcome.title) + " " + QVRunOutcome::kindName(outcome.kind);
  if (outcome.kind == QVRunOutcome::Kind::failed) {
    if (outcome.statusCode) line += " (" + std::to_string(*outcome.statusCode) + ")";
    if (!outcome.message.empty()) line += ": " + outcome.message;
  } else if (outcome.kind == QVRunOutcome::Kind::empty) {
    line += "; nothing to back up";
  }
  const std::string next = nextRunText(outcome.groupID);
  if (!next.empty()) line += " (" + next + ")";
  for (const auto& detail : outcome.detailLines()) line += "\n  " + detail;

  // Written before it is told, so that a daemon that is killed loses nothing; into the changed file when
  // another command wrote it meanwhile.
  checkPreferencesFile();
  if (m_reloading) {
    mergeOutcomeIntoFile(outcome.groupID);
  } else {
    m_agent.syncUserDefaults();
    rememberPreferencesFile();
  }
  m_log << line << std::endl;
}

void QVDaemonCommand::rememberPreferencesFile() {
  m_fileState = std::make_unique<FileState>(FileState::of(QVUserDefaults::standardUserDefaults().filePath()));
}

void QVDaemonCommand::checkPreferencesFile() {
  if (m_reloading || !m_fileState) return;
  if (FileState::of(QVUserDefaults::standardUserDefaults().filePath()) == *m_fileState) return;
  m_log << "the preferences were changed; reloading" << (m_monitor.isIdle() ? "" : " once the running backups end")
        << std::endl;
  m_reloading = true;
}

void QVDaemonCommand::armFileCheck() {
  // Re-armed from its own action: the timer that fired is let go, which its action allows.
  m_fileCheck = std::make_unique<QVTimer>(std::chrono::system_clock::now() + kFileCheckInterval, [this](QVTimer&) {
    checkPreferencesFile();
    armFileCheck();
  });
}

void QVDaemonCommand::mergeOutcomeIntoFile(const std::string& groupID) {
  QVGroupRef group = m_agent.groupWithIdentifier(groupID);
  if (!group) return;
  QVUserDefaults current(QVUserDefaults::standardUserDefaults().filePath());
  std::optional<QVDictionary> preferences = current.dictionaryForKey(kQVBackupAgentDefaultsKey);
  if (!preferences) return;
  auto groups = preferences->find("groups");
  if (groups == preferences->end() || !groups->second.array()) return;
  bool found = false;
  for (QVValue& stored : *groups->second.array()) {
    QVDictionary* record = stored.dictionary();
    const QVValue* id = record ? qv::valueForKey(*record, kQVIdentifierKey) : nullptr;
    if (!id || !id->string() || *id->string() != groupID) continue;
    // What a run changes of the group, in its stored form.
    const QVDictionary fresh = group->dictionary();
    for (const char* key : {"statusCode", "lastBackupDate", "lastBackupAttemptDate"})
      if (auto it = fresh.find(key); it != fresh.end()) (*record)[key] = it->second;
    found = true;
  }
  if (!found) return;  // removed meanwhile
  current.setObject(*preferences, kQVBackupAgentDefaultsKey);
  current.synchronize();
}

void QVDaemonCommand::restartSelf() {
  m_log << "starting anew to read the changed preferences" << std::endl;
  std::vector<char*> argv;
  for (auto& argument : m_arguments) argv.push_back(argument.data());
  argv.push_back(nullptr);
  std::fflush(nullptr);
  m_log.flush();
  m_service->stopListening();
  m_lock.keepAcrossExec();
  execv("/proc/self/exe", argv.data());
  m_log << "could not start anew (" << std::strerror(errno) << "); going on with the preferences read at start"
        << std::endl;
  std::string error;
  if (!m_service->listen(m_socketPath, error)) m_log << "stellwin-backup: " << error << std::endl;
  rememberPreferencesFile();
}
