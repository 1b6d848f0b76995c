// Checks the host makes of a destination before it is saved or a run of its group starts, where a kind
// would otherwise hurt the user: a dav destination whose server writes listings the dav kind cannot read
// (its versions would never be pruned, and a failed run would remove the group's folder with them).
// Free functions; main thread. They ask the server and may wait for it (the connection's own timeouts).
#pragma once

#include <string>

#include "targets/QVTarget.h"

namespace qv {

struct QVDAVListingVerdict {
  bool unreadable = false;   // the server answered with a listing the dav kind cannot read
  bool unreachable = false;  // no answer came
  std::string message;       // for unreadable: why, and how to switch to the webdav kind
};

// For a dav destination (others pass at once): asks the destination folder's listing the way a run does.
QVDAVListingVerdict checkDAVListing(const QVTarget& target);

}  // namespace qv
