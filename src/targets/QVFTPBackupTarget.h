// QVFTPBackupTarget is the destination kind "ftp": a folder on an FTP server. This version knows the
// kind but cannot write to it yet: every item fails with a message that says so, and the destination
// lists nothing. Run thread (cancel from the main thread).
#pragma once

#include "targets/QVBackupTarget.h"

class QVFTPBackupTarget : public QVBackupTarget {
 public:
  explicit QVFTPBackupTarget(const QVTarget& options);
  // "ftp"; the FTPS kind answers "ftps".
  virtual std::string urlScheme() const;
  bool backupItem(const std::string& path, const QVGroup& ofGroup, const std::string& withName,
                  const std::string& toEntry, QVError* error) override;
};
