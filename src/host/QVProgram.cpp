#include "host/QVProgram.h"

#include <cstdlib>
#include <iostream>
#include <thread>

#include "agent/QVBackupAgent.h"
#include "host/cli/QVBackupCommand.h"
#include "host/cli/QVDestinationChecks.h"
#include "host/cli/QVPasswordInput.h"
#include "host/cli/QVRecordPrinter.h"
#include "host/cli/QVRegistryCommands.h"
#include "host/control/QVAgentLock.h"
#include "host/control/QVControlClient.h"
#include "host/control/QVControlConnection.h"
#include "host/daemon/QVDaemonCommand.h"
#include "host/restore/QVRestoreCommand.h"
#include "host/run/QVHostApp.h"
#include "host/run/QVRunMonitor.h"
#include "platform/QVLog.h"
#include "platform/QVRunLoop.h"

namespace {

constexpr const char* kProgram = "stellwin-backup";

// Whether the stored preferences hold any destination (the agent makes a default one when not).
bool hasStoredTargets(const QVBackupAgent& agent) {
  auto defaults = agent.userDefaults();
  if (!defaults) return false;
  const QVValue* targets = qv::valueForKey(*defaults, "targets");
  return targets && targets->array() && !targets->array()->empty();
}

// The daemon's socket: in this process's runtime folder, else where the lock's holder says it serves
// (a command started without the daemon's $XDG_RUNTIME_DIR still finds it).
std::string daemonSocket(const std::string& socketPath) {
  if (QVControlConnection::connectTo(socketPath)) return socketPath;
  const std::string served = QVAgentLock::servedSocket();
  if (!served.empty() && served != socketPath && QVControlConnection::connectTo(served)) return served;
  return "";
}

bool daemonAnswers(const std::string& socketPath) { return !daemonSocket(socketPath).empty(); }

// Commands that only read the preferences: they never wait for another process that holds them.
bool onlyReads(const QVCommandOptions& options) {
  switch (options.command) {
    case QVCommand::summary:
    case QVCommand::groupList:
    case QVCommand::groupShow:
    case QVCommand::targetList:
    case QVCommand::versions:
    case QVCommand::files:
    case QVCommand::log:
    case QVCommand::status:
      return true;
    case QVCommand::menu:
      return options.menuEntry.empty();
    default:
      return false;
  }
}

// The password that target add / set would read, read here once before the command leaves this process.
// false when standard input could not be read.
bool readPasswordFirst(QVCommandOptions& options) {
  if (options.suppliedPassword) return true;
  if (options.command != QVCommand::targetAdd && options.command != QVCommand::targetSet) return true;
  if (options.passwordStdin) {
    if (!options.user) return true;  // refused for want of --user
    options.suppliedPassword = qv::readPasswordLine(stdin);
    return options.suppliedPassword.has_value();
  }
  if (options.user && !options.user->empty() && qv::canPromptForPassword())
    options.suppliedPassword =
        qv::promptForPassword("Password for " + *options.user + " at " + options.server.value_or("the server") + ": ")
            .value_or("");
  return true;
}

}  // namespace

QVProgram::QVProgram(std::vector<std::string> arguments) : m_arguments(std::move(arguments)) {}

int QVProgram::run(const QVCommandOptions& given) {
  // Diagnostics (the agent's and the destinations' log lines) stay off the terminal unless asked for;
  // the daemon writes them to its log, and STELLWIN_DEBUG asks for them as well.
  if (!given.verbose && given.command != QVCommand::daemon && !std::getenv("STELLWIN_DEBUG"))
    qv::setLogSink([](const std::string&) {});
  std::string error;
  const std::string folder = QVAgentLock::runtimeFolder(error);
  // Only the daemon needs the folder (for its socket); another command still finds a daemon through the
  // lock and takes turns with it.
  if (folder.empty() && given.command == QVCommand::daemon) {
    std::cerr << kProgram << ": " << error << std::endl;
    return 1;
  }
  const std::string socketPath = folder.empty() ? "" : QVAgentLock::socketPath(folder);
  // Who this is, for a command that has to wait for it (arguments never hold a password).
  std::string description = kProgram;
  for (std::size_t i = 1; i < m_arguments.size(); ++i) description += " " + m_arguments[i];

  QVCommandOptions options = given;
  options.colour = qv::colourWanted(stdout);
  const auto deadline = std::chrono::steady_clock::now() + kLockWait;
  for (;;) {
    // A running daemon carries the command out.
    std::unique_ptr<QVControlClient> client;
    if (const std::string served = options.command == QVCommand::daemon ? "" : daemonSocket(socketPath);
        !served.empty()) {
      // A listing may wait on a server for a minute: read here, beside the daemon, so that the daemon
      // never keeps its other commands waiting for it.
      if (options.command == QVCommand::versions || options.command == QVCommand::files)
        return runHere(options, nullptr, socketPath);
      // Read before connecting: the daemon waits only so long for a request.
      if (!readPasswordFirst(options)) {
        std::cerr << kProgram << ": could not read the password from standard input" << std::endl;
        return 2;
      }
      client = QVControlClient::connect(served);
    }
    if (client) {
      QVControlClient::Result result = client->run(options, std::cout, std::cerr);
      if (result.answer == QVControlClient::Answer::done) return result.status;
      if (result.answer == QVControlClient::Answer::held) {
        const int status = runHere(options, nullptr, socketPath);
        // A closed connection shows once the loop has looked at it.
        if (qv::runMainLoopUntil([&] { return client->isClosed(); }, std::chrono::milliseconds(50)))
          std::cerr << kProgram << ": warning: the daemon stopped while this command read the group, so its hold "
                    << "on the group's backups ended early; check what was read with \"stellwin-backup verify\""
                    << std::endl;
        return status;
      }
      if (std::chrono::steady_clock::now() >= deadline) {
        std::cerr << kProgram << ": the daemon is busy reading changed preferences; try again in a moment" << std::endl;
        return 1;
      }
      std::this_thread::sleep_for(std::chrono::milliseconds(200));
      continue;
    }

    // None: this process loads the agent, and no other does meanwhile.
    bool daemonAppeared = false;
    const auto wait = std::chrono::duration_cast<std::chrono::milliseconds>(
        std::max(deadline - std::chrono::steady_clock::now(), std::chrono::steady_clock::duration::zero()));
    const bool reading = onlyReads(options);
    auto lock = QVAgentLock::acquire(
        description, reading ? std::chrono::milliseconds(0) : wait,
        [&] { return daemonAppeared = daemonAnswers(socketPath); }, error);
    if (lock) return runHere(options, lock.get(), socketPath);
    const bool heldByAnother = error.rfind("process ", 0) == 0 || error == "another process";
    if (reading && heldByAnother && !daemonAppeared && !daemonAnswers(socketPath)) {
      // Read beside the other process, from the preferences as it last saved them.
      if (!options.json)
        std::cerr << kProgram << ": note: " << error << " is at work; what it is doing now is not shown here"
                  << std::endl;
      return runHere(options, nullptr, socketPath);
    }
    if (options.command == QVCommand::daemon && (daemonAppeared || daemonAnswers(socketPath))) {
      std::cerr << kProgram << ": another daemon is already running for this user (" << error << ")" << std::endl;
      return 1;
    }
    if (daemonAppeared && std::chrono::steady_clock::now() < deadline) continue;
    std::cerr << kProgram << ": the preferences are in use by " << error << "; try again when it has finished"
              << std::endl;
    return 1;
  }
}

int QVProgram::runHere(const QVCommandOptions& options, QVAgentLock* lock, const std::string& socketPath) {
  const bool readOnly = lock == nullptr;
  QVHostApp host(std::cout);
  int status = 0;
  {
    QVBackupAgent agent(&host);
    host.setAgent(&agent);
    std::shared_ptr<QVRunMonitor> monitor = QVRunMonitor::make(agent, host);
    agent.setDelegate(monitor);
    // The default destination that the agent made in memory; written only with the command's changes.
    if (!readOnly && !hasStoredTargets(agent) && !agent.targets().empty()) agent.savePrefs();
    // Reading beside the process that holds the lock: that one runs the schedules, never this process
    // (not even after a wake during a long restore). A listing of the groups, which ends at once, keeps
    // the timers so that it shows when they would fire.
    if (readOnly) {
      if (!onlyReads(options) || options.command == QVCommand::versions || options.command == QVCommand::files)
        agent.stopTimers();
      agent.setRunGate([](const QVGroup&) { return false; });
    } else {
      // A run that a menu entry or a timer starts here meets the same check as "backup": a dav server
      // whose listings the dav kind cannot read is not written to.
      agent.setRunGate([&agent](const QVGroup& group) {
        QVTargetRef target = group.target ? agent.targetWithIdentifier(*group.target) : nullptr;
        if (!target) return true;
        qv::QVDAVListingVerdict verdict = qv::checkDAVListing(*target);
        if (verdict.unreadable)
          std::cerr << kProgram << ": " << group.title << " was not backed up: " << verdict.message << std::endl;
        return !verdict.unreadable;
      });
    }

    switch (options.command) {
      case QVCommand::backup:
        status = QVBackupCommand(agent, *monitor, host, std::cout, std::cerr).run(options);
        break;
      case QVCommand::restore:
      case QVCommand::verify:
      case QVCommand::files:
        status = QVRestoreCommand(agent, std::cout, std::cerr).run(options);
        break;
      case QVCommand::daemon:
        status = QVDaemonCommand(agent, *monitor, host, std::cerr, m_arguments, *lock, socketPath).run();
        break;
      default: {
        QVRegistryCommands commands(agent, std::cout, std::cerr);
        status = commands.run(options);
        // A menu entry may have started a run: it is followed here, as a click on the menu would be.
        const std::vector<std::string> started = commands.startedRuns();
        if (status == 0 && !started.empty())
          status = QVBackupCommand(agent, *monitor, host, std::cout, std::cerr)
                       .waitForRuns(started, false, [&](QVRunPresenter&) {
                         for (const auto& groupID : started) monitor->followRun(groupID);
                       });
        break;
      }
    }

    // The daemon writes for itself: other commands may have changed the file while it ran.
    if (!readOnly && status != 2 && options.command != QVCommand::daemon) {
      if (!agent.syncUserDefaults()) {
        std::cerr << kProgram << ": the preferences could not be saved" << std::endl;
        if (status == 0) status = 1;
      }
    }
    std::cout.flush();
    host.setAgent(nullptr);
  }
  return status;
}
