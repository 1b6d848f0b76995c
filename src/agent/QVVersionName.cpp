// Version names: the run's start time, "yyyyMMddHHmmss.backup" in local time.
#include "agent/QVVersionName.h"

#include <algorithm>
#include <cstdio>
#include <ctime>

#include "platform/QVFoundation.h"
#include "platform/QVLocalization.h"

namespace qv {

std::string versionNameForDate(QVDate date) {
  std::time_t t = std::chrono::system_clock::to_time_t(date);
  std::tm tm{};
  localtime_r(&t, &tm);
  char buffer[32];
  std::strftime(buffer, sizeof buffer, "%Y%m%d%H%M%S", &tm);
  return std::string(buffer) + ".backup";
}

std::optional<QVDate> dateOfVersionName(const std::string& name) {
  static const std::string kExtension = ".backup";
  if (name.size() != 14 + kExtension.size() || name.compare(14, std::string::npos, kExtension) != 0)
    return std::nullopt;
  for (std::size_t i = 0; i < 14; ++i)
    if (name[i] < '0' || name[i] > '9') return std::nullopt;
  std::tm tm{};
  tm.tm_year = std::stoi(name.substr(0, 4)) - 1900;
  tm.tm_mon = std::stoi(name.substr(4, 2)) - 1;
  tm.tm_mday = std::stoi(name.substr(6, 2));
  tm.tm_hour = std::stoi(name.substr(8, 2));
  tm.tm_min = std::stoi(name.substr(10, 2));
  tm.tm_sec = std::stoi(name.substr(12, 2));
  tm.tm_isdst = -1;
  std::time_t t = std::mktime(&tm);
  if (t == static_cast<std::time_t>(-1)) return std::nullopt;
  // mktime normalises impossible dates (month 13, 30 February); a real version formats back the same.
  const QVDate date = std::chrono::system_clock::from_time_t(t);
  if (versionNameForDate(date) != name) return std::nullopt;
  return date;
}

bool isVersionName(const std::string& name) { return dateOfVersionName(name).has_value(); }

std::string uniqueItemName(const std::string& path, std::vector<std::string>& used) {
  const std::string name = lastPathComponent(path);
  auto isUsed = [&](const std::string& candidate) {
    return std::find(used.begin(), used.end(), candidate) != used.end();
  };
  std::string chosen = name;
  if (isUsed(chosen)) {
    const std::string base = stringByDeletingPathExtension(name);
    const std::string extension = pathExtension(name);
    for (unsigned long n = 1;; ++n) {
      chosen = stringWithFormat("%@-%lu", {base, static_cast<std::uint64_t>(n)});
      if (!extension.empty()) chosen = stringByAppendingPathExtension(chosen, extension);
      if (!isUsed(chosen)) break;
    }
  }
  used.push_back(chosen);
  return chosen;
}

}  // namespace qv
