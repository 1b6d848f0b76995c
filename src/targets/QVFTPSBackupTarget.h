// QVFTPSBackupTarget is the destination kind "ftps": the FTP destination over TLS. It differs from the
// FTP kind only in its URL scheme. Run thread (cancel from the main thread).
#pragma once

#include "targets/QVFTPBackupTarget.h"

class QVFTPSBackupTarget : public QVFTPBackupTarget {
 public:
  using QVFTPBackupTarget::QVFTPBackupTarget;
  std::string urlScheme() const override;
};
