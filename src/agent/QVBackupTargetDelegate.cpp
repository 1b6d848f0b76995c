#include "agent/QVBackupTargetDelegate.h"

#include "agent/QVBackupAgent.h"

void QVBackupTargetDelegate::backupProgress(double fraction) {
  if (m_agent) m_agent->backupProgress(fraction, m_group, m_index);
}

void QVBackupTargetDelegate::backupCalculatedFiles(std::uint64_t files, std::uint64_t size) {
  if (m_agent) m_agent->backupCalculatedFiles(files, size, m_group, m_index);
}
