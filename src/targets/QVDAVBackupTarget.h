// QVDAVBackupTarget is the destination kind "dav": a folder on a WebDAV server. This version knows the
// kind but cannot write to it yet: every item fails with a message that says so, and the destination
// lists nothing. Run thread (cancel from the main thread).
#pragma once

#include "targets/QVBackupTarget.h"

class QVDAVBackupTarget : public QVBackupTarget {
 public:
  explicit QVDAVBackupTarget(const QVTarget& options);
  bool backupItem(const std::string& path, const QVGroup& ofGroup, const std::string& withName,
                  const std::string& toEntry, QVError* error) override;
};
