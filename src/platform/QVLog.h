// Logging. QVLog writes one of the system's own log lines, always. qv::debugLog writes our additional
// diagnostics under a category ("agent", "targets.dav", "targets.ftp", "platform"); they are quiet
// unless STELLWIN_DEBUG names the category or is "all". Lines go to stderr, or to the sink that a test
// or the host installs. Any thread. Never pass a password.
#pragma once

#include <functional>
#include <string>

void QVLog(const std::string& line);

namespace qv {

void debugLog(const char* category, const std::string& line);

// Replaces where log lines go; an empty function restores stderr. Returns the previous sink.
using QVLogSink = std::function<void(const std::string& line)>;
QVLogSink setLogSink(QVLogSink sink);

// Credentials that must never be shown: from now on, wherever secret stands in a log line, the line shows
// shownAs instead ("ann:***@" for "ann:pw@"). redactedString applies the same to any text the host shows.
void addRedaction(const std::string& secret, const std::string& shownAs);
std::string redactedString(std::string text);

}  // namespace qv
