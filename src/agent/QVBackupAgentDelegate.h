// QVBackupAgentDelegate is the host side of the agent: told of progress, of ended and failed runs, of
// changed groups and destinations, and asked to show groups. The agent refers to it without owning it
// (QVWeakProxy); every message arrives on the main thread.
#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <vector>

#include "platform/QVError.h"
#include "platform/QVValue.h"
#include "targets/QVGroup.h"
#include "targets/QVTarget.h"

class QVBackupAgent;

class QVBackupAgentDelegate {
 public:
  virtual ~QVBackupAgentDelegate() = default;

  virtual void backupProgress(double progress, const std::string& forGroupID, std::size_t item,
                              QVBackupAgent& inAgent) = 0;
  virtual void backupDidEndForGroup(const QVGroupRef& group, QVBackupAgent& inAgent) = 0;
  virtual void backupFailedForGroup(const QVGroupRef& group, const std::optional<QVError>& withError,
                                    QVBackupAgent& inAgent) = 0;
  virtual void groupsAndTargetsDidChangeInAgent(const std::vector<QVGroupRef>& groups,
                                                const std::vector<QVTargetRef>& targets, QVBackupAgent& inAgent) = 0;
  // group is null when the change named no stored group.
  virtual void groupDidChangeInAgent(const QVGroupRef& group, QVBackupAgent& inAgent) = 0;
  virtual void groupWithIDDidRemovedInAgent(const std::string& groupID, QVBackupAgent& inAgent) = 0;
  virtual void targetDidChangeInAgent(const QVTargetRef& target, QVBackupAgent& inAgent) = 0;
  virtual void showGroupsWithIDs(const std::vector<std::string>& groupIDs) = 0;
  virtual void setLastBackupDate(const std::optional<QVDate>& date) = 0;
};
