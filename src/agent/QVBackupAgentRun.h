// A running backup as the agent keeps it: the destination object (shared with the run's thread), the
// copy of the group that the thread works on, the shared record that outcomes are posted for, and the
// thread itself. Private to the agent.
#pragma once

#include <memory>
#include <thread>

#include "agent/QVBackupAgent.h"

struct QVBackupAgent::Run {
  std::shared_ptr<QVBackupTarget> target;
  QVGroup snapshot;   // read by the run's thread only
  QVGroupRef group;   // touched on the main thread only
  std::thread thread;
};

namespace qv {

// The version name of a run started at date: "yyyyMMddHHmmss.backup" in local time.
std::string versionNameForDate(QVDate date);
// True only for a name that is 14 digits and ".backup", whose digits are a valid local date and time
// that formats back to the same digits.
bool isVersionName(const std::string& name);
// The name of an item within a run: its last path component, made unique against used names with
// "-1", "-2", ... before the extension. Adds the chosen name to used.
std::string uniqueItemName(const std::string& path, std::vector<std::string>& used);

}  // namespace qv
