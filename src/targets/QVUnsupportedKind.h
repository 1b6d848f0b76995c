// The answer of a destination kind that this version knows but cannot write to yet.
#pragma once

#include <string>

#include "targets/QVBackupTarget.h"

namespace qv {

// Fails the item with status -4 and a message naming the kind, after the common source check.
bool failUnsupportedItem(QVBackupTarget& target, const std::string& kindName, const std::string& path,
                         const QVGroup& group, const std::string& name, const std::string& entry, QVError* error);

}  // namespace qv
