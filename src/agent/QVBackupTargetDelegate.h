// QVBackupTargetDelegate is a run's progress adapter: the destination reports the progress of the
// current item to it, and it passes that on to the agent with the group and the item's index. It lives
// on the run's thread for the length of the run; it owns nothing.
#pragma once

#include <cstddef>
#include <cstdint>

#include "targets/QVBackupTarget.h"
#include "targets/QVGroup.h"

class QVBackupAgent;

class QVBackupTargetDelegate : public QVTargetProgressDelegate {
 public:
  std::size_t index() const { return m_index; }
  void setIndex(std::size_t index) { m_index = index; }
  const QVGroupRef& group() const { return m_group; }
  void setGroup(QVGroupRef group) { m_group = std::move(group); }  // passed on, never read here
  QVBackupAgent* agent() const { return m_agent; }
  void setAgent(QVBackupAgent* agent) { m_agent = agent; }  // not owned

  void backupProgress(double fraction) override;
  void backupCalculatedFiles(std::uint64_t files, std::uint64_t size) override;

 private:
  std::size_t m_index = 0;
  QVGroupRef m_group;
  QVBackupAgent* m_agent = nullptr;
};
