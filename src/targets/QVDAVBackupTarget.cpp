#include "targets/QVDAVBackupTarget.h"

#include "targets/QVUnsupportedKind.h"

QVDAVBackupTarget::QVDAVBackupTarget(const QVTarget& options) : QVBackupTarget(options) {}

bool QVDAVBackupTarget::backupItem(const std::string& path, const QVGroup& ofGroup, const std::string& withName,
                                   const std::string& toEntry, QVError* error) {
  return qv::failUnsupportedItem(*this, "WebDAV", path, ofGroup, withName, toEntry, error);
}
