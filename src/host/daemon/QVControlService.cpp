#include "host/daemon/QVControlService.h"

#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <ostream>
#include <sstream>

#include "agent/QVBackupAgent.h"
#include "host/cli/QVBackupCommand.h"
#include "host/cli/QVCommandLine.h"
#include "host/cli/QVDestinationChecks.h"
#include "host/cli/QVHostArguments.h"
#include "host/cli/QVRegistryCommands.h"
#include "host/control/QVControlConnection.h"
#include "host/control/QVControlProtocol.h"
#include "host/run/QVHostApp.h"
#include "host/run/QVRecords.h"
#include "host/run/QVRunMonitor.h"
#include "platform/QVRunLoop.h"

namespace {

constexpr const char* kProgram = "stellwin-backup";

bool changesPreferences(const QVCommandOptions& options) {
  switch (options.command) {
    case QVCommand::groupAdd:
    case QVCommand::groupSet:
    case QVCommand::groupRemove:
    case QVCommand::groupRemoveItems:
    case QVCommand::targetAdd:
    case QVCommand::targetSet:
    case QVCommand::targetRemove:
    case QVCommand::backup:
      return true;
    case QVCommand::menu:
      return !options.menuEntry.empty();
    default:
      return false;
  }
}

bool contains(const std::vector<std::string>& list, const std::string& value) {
  return std::find(list.begin(), list.end(), value) != list.end();
}

}  // namespace

QVControlService::QVControlService(QVBackupAgent& agent, QVRunMonitor& monitor, QVHostApp& host, std::ostream& log)
    : m_agent(agent), m_monitor(monitor), m_host(host), m_log(log) {
  // A run of a group that a restore or verify reads waits until it has finished: its timer, a wake or
  // the menu may ask meanwhile.
  m_agent.setRunGate([this](const QVGroup& group) {
    // A dav server whose listings the dav kind cannot read: the run would never prune, and a failed one
    // would remove the group's folder. Nothing is sent or removed.
    if (QVTargetRef target = group.target ? m_agent.targetWithIdentifier(*group.target) : nullptr) {
      if (qv::QVDAVListingVerdict verdict = qv::checkDAVListing(*target); verdict.unreadable) {
        m_log << qv::quoted(group.title) << ": not backed up: " << verdict.message << std::endl;
        return false;
      }
    }
    if (!isHeld(group.identifier)) return true;
    if (!contains(m_waitingRuns, group.identifier)) {
      m_log << qv::quoted(group.title) << ": the run waits until the restore or verify reading the group has finished"
            << std::endl;
      m_waitingRuns.push_back(group.identifier);
    }
    return false;
  });
}

QVControlService::~QVControlService() {
  m_agent.setRunGate(nullptr);
  stopListening();
  m_clients.clear();
}

bool QVControlService::listen(const std::string& socketPath, std::string& error) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  if (socketPath.size() >= sizeof address.sun_path) {
    error = "the socket path " + socketPath + " is too long";
    return false;
  }
  std::memcpy(address.sun_path, socketPath.c_str(), socketPath.size() + 1);
  const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
  if (fd < 0) {
    error = std::string("cannot make a socket: ") + std::strerror(errno);
    return false;
  }
  unlink(socketPath.c_str());  // left by a daemon that was killed
  // Made private from the start: nobody else may connect even for a moment.
  const mode_t previous = umask(0177);
  const bool bound = bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0;
  umask(previous);
  if (!bound || ::listen(fd, 16) != 0) {
    error = "cannot listen at " + socketPath + ": " + std::strerror(errno);
    close(fd);
    return false;
  }
  m_listener = fd;
  m_socketPath = socketPath;
  m_listenWatch = qv::addFileDescriptorWatch(fd, true, false, [this] { return acceptConnections(); });
  return true;
}

void QVControlService::stopListening() {
  m_acceptPause.reset();
  if (m_listener < 0) return;
  qv::removeFileDescriptorWatch(m_listenWatch);
  m_listenWatch = 0;
  close(m_listener);
  m_listener = -1;
  unlink(m_socketPath.c_str());
}

void QVControlService::setChangeHooks(std::function<bool()> mayChange, std::function<void()> didChange) {
  m_mayChange = std::move(mayChange);
  m_didChange = std::move(didChange);
}

bool QVControlService::acceptConnections() {
  for (;;) {
    const int fd = accept4(m_listener, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK);
    if (fd < 0) {
      if (errno == EINTR || errno == ECONNABORTED) continue;
      if (errno != EMFILE && errno != ENFILE) return true;  // EAGAIN: all taken
      // Out of descriptors: the waiting connection keeps the socket readable, so watching on would spin.
      // Listening pauses a moment, until some descriptor may be free again.
      m_log << "cannot accept a connection: " << std::strerror(errno) << "; trying again shortly" << std::endl;
      m_listenWatch = 0;
      m_acceptPause = std::make_unique<QVTimer>(std::chrono::system_clock::now() + kAcceptPause, [this](QVTimer&) {
        if (m_listener >= 0)
          m_listenWatch = qv::addFileDescriptorWatch(m_listener, true, false, [this] { return acceptConnections(); });
      });
      return false;
    }
    const std::uint64_t id = m_nextClientID++;
    Client& client = m_clients[id];
    client.connection = std::make_unique<QVControlConnection>(fd);
    client.connection->start([this, id](QVDictionary& message) { onMessage(id, message); },
                             [this](const std::string&) { sweepSoon(); });
    if (client.connection->peerUser() != geteuid()) {
      m_log << "refused a connection from user " << client.connection->peerUser() << std::endl;
      client.connection->refuse("connection refused: this daemon serves only its own user");
      continue;
    }
    client.deadline =
        std::make_unique<QVTimer>(std::chrono::system_clock::now() + kRequestTimeout, [this, id](QVTimer&) {
          auto it = m_clients.find(id);
          if (it != m_clients.end() && !it->second.requested) it->second.connection->close("no request in time");
        });
  }
}

void QVControlService::sweepSoon() {
  if (m_sweepPosted) return;
  m_sweepPosted = true;
  std::weak_ptr<int> alive = m_alive;
  qv::postToMainThread([this, alive] {
    if (alive.expired()) return;
    m_sweepPosted = false;
    std::erase_if(m_clients, [](const auto& entry) { return !entry.second.connection->isOpen(); });
    // Runs that waited for a restore or verify start now, as their request would have started them.
    const std::vector<std::string> waiting = m_waitingRuns;
    for (const std::string& id : waiting) {
      if (isHeld(id)) continue;
      std::erase(m_waitingRuns, id);
      // A daemon that is stopping (it no longer listens) starts no more runs.
      if (m_listener >= 0) m_agent.backupGroupWithID(id, false);
    }
  });
}

void QVControlService::onMessage(std::uint64_t clientID, QVDictionary& message) {
  auto it = m_clients.find(clientID);
  if (it == m_clients.end()) return;
  Client& client = it->second;
  const std::string type = qv::controlString(message, "type");
  if (type == "request" && !client.requested) {
    client.requested = true;
    client.deadline.reset();
    handleRequest(client, message);
  } else if (type == "cancel" && client.requested) {
    for (const auto& groupID : client.following)
      if (m_agent.isBackingUpGroupWithID(groupID)) m_agent.cancelBackupGroupWithID(groupID);
  } else {
    client.connection->refuse("unexpected message \"" + type + "\"");
  }
}

void QVControlService::sendResult(Client& client, int status, const std::string& out, const std::string& err) {
  QVDictionary result = qv::controlMessage("result");
  result["status"] = status;
  result["out"] = out;
  result["err"] = err;
  client.connection->send(result);
}

void QVControlService::handleRequest(Client& client, const QVDictionary& message) {
  const QVValue* fields = qv::valueForKey(message, "options");
  std::string error;
  std::optional<QVCommandOptions> options =
      fields && fields->dictionary() ? qv::optionsFromDictionary(*fields->dictionary(), error) : std::nullopt;
  if (!options) {
    client.connection->refuse(error.empty() ? "malformed request: no \"options\"" : error);
    return;
  }
  options->remote = true;
  if (changesPreferences(*options) && m_mayChange && !m_mayChange()) {
    QVDictionary busy = qv::controlMessage("busy");
    busy["message"] = "the daemon is reading preferences that were changed by hand";
    client.connection->send(busy);
    return;
  }
  if (changesPreferences(*options)) {
    // Who changed what, for the log: the command's name (its fields may hold a password, never logged).
    const QVValue* name = qv::valueForKey(*fields->dictionary(), "command");
    m_log << "serving \"" << (name && name->string() ? *name->string() : "?") << "\" for process "
          << client.connection->peerProcess() << std::endl;
  }
  // Paths in the arguments are the command's, from its own working folder.
  const std::string folder = qv::controlString(message, "folder");
  options->folder = folder.empty() || folder.front() != '/' ? "/" : folder;
  switch (options->command) {
    case QVCommand::backup:
      startBackups(client, *options);
      break;
    case QVCommand::restore:
    case QVCommand::verify:
      holdGroup(client, *options);
      break;
    case QVCommand::daemon:
      sendResult(client, 1, "", std::string(kProgram) + ": a daemon is already running for this user\n");
      break;
    default: {
      const std::size_t waiting = m_waitingRuns.size();
      std::ostringstream out, err;
      m_host.setOutput(out);
      QVRegistryCommands commands(m_agent, out, err);
      const int status = commands.run(*options);
      m_host.setOutput(m_log);
      for (std::size_t i = waiting; i < m_waitingRuns.size(); ++i)
        if (const QVGroupRef group = m_agent.groupWithIdentifier(m_waitingRuns[i]))
          err << kProgram << ": the backup of " << qv::quoted(group->title)
              << " waits until the restore or verify reading it has finished\n";
      // A menu entry that started a run: the command follows it, as it would at home.
      QVArray started;
      for (const auto& id : commands.startedRuns()) started.push_back(id);
      if (status != 0 || started.empty()) {
        sendResult(client, status, out.str(), err.str());
        break;
      }
      for (const auto& id : started) client.following.push_back(*id.string());
      QVDictionary accepted = qv::controlMessage("accepted");
      accepted["groups"] = started;
      accepted["out"] = out.str();
      accepted["err"] = err.str();
      client.connection->send(accepted);
      break;
    }
  }
  if (changesPreferences(*options) && m_didChange) m_didChange();
}

void QVControlService::startBackups(Client& client, const QVCommandOptions& options) {
  std::ostringstream err;
  std::vector<QVGroupRef> groups;
  if (QVBackupCommand::findGroups(m_agent, options, err, groups) != 0) {
    sendResult(client, 2, "", err.str());
    return;
  }
  for (const auto& group : groups) {
    if (!isHeld(group->identifier)) continue;
    sendResult(client, 1, "",
               std::string(kProgram) + ": group " + qv::quoted(group->title) +
                   " is being restored or verified; try again when that has finished\n");
    return;
  }
  QVArray ids;
  for (const auto& group : groups) {
    ids.push_back(group->identifier);
    client.following.push_back(group->identifier);
  }
  QVDictionary accepted = qv::controlMessage("accepted");
  accepted["groups"] = ids;
  accepted["err"] = err.str();
  client.connection->send(accepted);
  for (const auto& group : groups) {
    std::string line;
    auto refused = QVBackupCommand::startRun(m_agent, m_monitor, *group, line);
    if (!refused) continue;
    QVDictionary said = qv::controlMessage("message");
    said["text"] = line;
    client.connection->send(said);
    runEnded(*refused);
  }
}

void QVControlService::holdGroup(Client& client, const QVCommandOptions& options) {
  auto found = qv::findGroup(m_agent, options.group);
  if (!found.record) {
    sendResult(client, 2, "", std::string(kProgram) + ": " + found.error + "\n");
    return;
  }
  const QVGroupRef group = found.record;
  std::string refusal;
  if (m_agent.isBackingUpGroupWithID(group->identifier))
    refusal = "group " + qv::quoted(group->title) + " is being backed up; try again when it has finished";
  else if (isHeld(group->identifier))
    refusal = "group " + qv::quoted(group->title) + " is being restored or verified; try again when that has finished";
  if (!refusal.empty()) {
    sendResult(client, 1, "", std::string(kProgram) + ": " + refusal + "\n");
    return;
  }
  client.held.push_back(group->identifier);
  QVDictionary held = qv::controlMessage("held");
  held["group"] = group->identifier;
  client.connection->send(held);
}

bool QVControlService::isHeld(const std::string& groupID) const {
  return std::any_of(m_clients.begin(), m_clients.end(), [&](const auto& entry) {
    return entry.second.connection->isOpen() && contains(entry.second.held, groupID);
  });
}

bool QVControlService::hasHolds() const {
  return std::any_of(m_clients.begin(), m_clients.end(),
                     [](const auto& entry) { return entry.second.connection->isOpen() && !entry.second.held.empty(); });
}

void QVControlService::runStarted(const QVGroup& group) {
  QVDictionary started = qv::controlMessage("started");
  started["group"] = group.identifier;
  started["title"] = group.title;
  for (auto& [id, client] : m_clients)
    if (client.connection->isOpen() && contains(client.following, group.identifier)) client.connection->send(started);
}

void QVControlService::runProgress(const std::string& groupID, std::int64_t percent, const std::string& item) {
  QVDictionary progress = qv::controlMessage("progress");
  progress["group"] = groupID;
  progress["percent"] = percent;
  progress["item"] = item;
  for (auto& [id, client] : m_clients)
    if (client.connection->isOpen() && contains(client.following, groupID)) client.connection->send(progress);
}

void QVControlService::runEnded(const QVRunOutcome& outcome) {
  QVDictionary message = qv::controlMessage("outcome");
  message["outcome"] = qv::outcomeRecord(outcome);
  for (auto& [id, client] : m_clients) {
    if (!client.connection->isOpen() || !contains(client.following, outcome.groupID)) continue;
    client.connection->send(message);
    std::erase(client.following, outcome.groupID);
  }
}
