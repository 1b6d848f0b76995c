#include "support/QVRecordingHost.h"

#include <cstdio>

namespace qvtest {

std::string joined(const std::vector<std::string>& list) {
  std::string s;
  for (const auto& item : list) s += (s.empty() ? "" : ",") + item;
  return s;
}

std::vector<std::string> RecordingHost::linesStartingWith(const std::string& prefix) const {
  std::vector<std::string> lines;
  for (const auto& line : *journal)
    if (line.rfind(prefix, 0) == 0) lines.push_back(line);
  return lines;
}

void RecordingDelegate::backupProgress(double progress, const std::string& groupID, std::size_t item, QVBackupAgent&) {
  char text[32];
  std::snprintf(text, sizeof text, "%.2f", progress);
  add("backupProgress:" + std::string(text) + "|" + groupID + "|" + std::to_string(item));
}

}  // namespace qvtest
