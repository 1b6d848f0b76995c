// A running backup as the agent keeps it: the destination object (shared with the run's thread), the
// copy of the group that the thread works on, the shared record that outcomes are posted for, and the
// thread itself. Private to the agent.
#pragma once

#include <memory>
#include <thread>

#include "agent/QVBackupAgent.h"

struct QVBackupAgent::Run {
  std::shared_ptr<QVBackupTarget> target;
  QVGroup snapshot;  // read by the run's thread only
  QVGroupRef group;  // touched on the main thread only
  std::thread thread;
};
