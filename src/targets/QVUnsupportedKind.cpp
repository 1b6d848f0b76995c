#include "targets/QVUnsupportedKind.h"

namespace qv {

bool failUnsupportedItem(QVBackupTarget& target, const std::string& kindName, const std::string& path,
                         const QVGroup& group, const std::string& name, const std::string& entry, QVError* error) {
  if (!target.QVBackupTarget::backupItem(path, group, name, entry, error)) return false;
  if (error)
    *error = target.errorWithStatusCode(-4, kindName + " destinations cannot be written to by this version", path);
  return false;
}

}  // namespace qv
