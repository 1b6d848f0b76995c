// QVFTPSBackupTarget is the destination kind "ftps": the FTP destination over TLS. It differs from the
// FTP kind only in its URL scheme: "ftps" is TLS from the first byte (implicit TLS), on the control and
// the data connections, and the server's certificate is checked against the system's trust store as
// libcurl does by default; no TLS option is ever set. Run thread (cancel from the main thread).
#pragma once

#include "targets/QVFTPBackupTarget.h"

class QVFTPSBackupTarget : public QVFTPBackupTarget {
 public:
  using QVFTPBackupTarget::QVFTPBackupTarget;
  std::string urlScheme() const override;
};
