// The table of status texts: the descriptive text of a numeric status, as the destinations put it into
// their error messages. It holds the status numbers that the system raises or passes through, the
// numbers Linux file-system errors are mapped to, and the system's own error numbers; any other
// number has the text "". Any thread.
#pragma once

#include <cstdint>
#include <string>

namespace qv {

// The text for a status number, "" when the table has none.
std::string statusCommentString(std::int32_t status);

// The status number that a Linux error number (errno) is reported as: ENOSPC and EDQUOT -1429,
// EACCES and EPERM -54, ENOENT -43; any other keeps its own number.
std::int32_t statusCodeForErrno(int error);

// The standard reason phrase of an HTTP status, localised ("Not Found" for 404); "" for a status that
// has none.
std::string localizedStringForStatusCode(std::int64_t statusCode);

}  // namespace qv
