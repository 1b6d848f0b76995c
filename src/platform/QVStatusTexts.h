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

// The text of a status that a destination of the given type ("local", "dav", "ftp", "ftps") recorded: the
// networked kinds record libcurl's result codes as positive numbers, which libcurl's own text describes
// (7 is "Couldn't connect to server", not the system's error number 7); anything else as statusCommentString.
std::string statusCommentStringForDestination(const std::string& type, std::int64_t status);

// The status number that a Linux error number (errno) is reported as: ENOSPC and EDQUOT -1429,
// EACCES and EPERM -54, ENOENT -43; any other keeps its own number.
std::int32_t statusCodeForErrno(int error);

// The standard reason phrase of an HTTP status, localised ("Not Found" for 404); "" for a status that
// has none.
std::string localizedStringForStatusCode(std::int64_t statusCode);

}  // namespace qv
