#include "targets/QVFTPSBackupTarget.h"

std::string QVFTPSBackupTarget::urlScheme() const { return "ftps"; }
