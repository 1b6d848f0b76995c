#include "targets/QVFTPBackupTarget.h"

#include "targets/QVUnsupportedKind.h"

QVFTPBackupTarget::QVFTPBackupTarget(const QVTarget& options) : QVBackupTarget(options) {}

std::string QVFTPBackupTarget::urlScheme() const { return "ftp"; }

bool QVFTPBackupTarget::backupItem(const std::string& path, const QVGroup& ofGroup, const std::string& withName,
                                   const std::string& toEntry, QVError* error) {
  return qv::failUnsupportedItem(*this, urlScheme() == "ftps" ? "FTPS" : "FTP", path, ofGroup, withName, toEntry,
                                 error);
}
