#include "host/QVProgram.h"

#include <iostream>

#include "agent/QVBackupAgent.h"
#include "host/QVBackupCommand.h"
#include "host/QVDaemonCommand.h"
#include "host/QVHostApp.h"
#include "host/QVRegistryCommands.h"
#include "host/QVRestoreCommand.h"
#include "host/QVRunMonitor.h"

namespace {

// Whether the stored preferences hold any destination (the agent makes a default one when not).
bool hasStoredTargets(const QVBackupAgent& agent) {
  auto defaults = agent.userDefaults();
  if (!defaults) return false;
  const QVValue* targets = qv::valueForKey(*defaults, "targets");
  return targets && targets->array() && !targets->array()->empty();
}

}  // namespace

QVProgram::QVProgram(std::vector<std::string> arguments) : m_arguments(std::move(arguments)) {}

int QVProgram::run(const QVCommandOptions& options) {
  QVHostApp host(std::cout);
  int status = 0;
  {
    QVBackupAgent agent(&host);
    host.setAgent(&agent);
    std::shared_ptr<QVRunMonitor> monitor = QVRunMonitor::make(agent, host);
    agent.setDelegate(monitor);
    // The default destination that the agent made in memory; written only with the command's changes.
    if (!hasStoredTargets(agent) && !agent.targets().empty()) agent.savePrefs();

    switch (options.command) {
      case QVCommand::backup:
        status = QVBackupCommand(agent, *monitor, host, std::cout, std::cerr).run(options);
        break;
      case QVCommand::restore:
      case QVCommand::verify:
        status = QVRestoreCommand(agent, std::cout, std::cerr).run(options);
        break;
      case QVCommand::daemon:
        status = QVDaemonCommand(agent, *monitor, host, std::cerr, m_arguments).run();
        break;
      default:
        status = QVRegistryCommands(agent, std::cout, std::cerr).run(options);
        break;
    }

    // The daemon writes for itself: other commands may have changed the file while it ran.
    if (status != 2 && options.command != QVCommand::daemon) {
      if (!agent.syncUserDefaults()) {
        std::cerr << "stellwin-backup: the preferences could not be saved" << std::endl;
        if (status == 0) status = 1;
      }
    }
    std::cout.flush();
    host.setAgent(nullptr);
  }
  return status;
}
