#include "host/run/QVReadableText.h"

#include <algorithm>
#include <clocale>
#include <cstdio>
#include <ctime>
#include <iterator>

namespace qv {

std::string sizeText(std::uint64_t bytes) {
  if (bytes < 1024) return countText(bytes, "byte");
  static const char* const kUnits[] = {"KiB", "MiB", "GiB", "TiB"};
  double value = static_cast<double>(bytes) / 1024.0;
  std::size_t unit = 0;
  while (value >= 1024.0 && unit + 1 < std::size(kUnits)) value /= 1024.0, ++unit;
  char text[32];
  // Two significant figures at least; "10.0" never shows, it reads "10".
  if (value < 9.95)
    std::snprintf(text, sizeof text, "%.1f %s", value, kUnits[unit]);
  else
    std::snprintf(text, sizeof text, "%.0f %s", value, kUnits[unit]);
  return text;
}

std::string durationText(std::chrono::duration<double> duration) {
  const double seconds = std::max(0.0, duration.count());
  char text[48];
  if (seconds < 9.95) {
    std::snprintf(text, sizeof text, "%.1f s", seconds);
  } else if (seconds < 59.5) {
    std::snprintf(text, sizeof text, "%.0f s", seconds);
  } else {
    const auto whole = static_cast<long long>(seconds + 0.5);
    if (whole < 3600)
      std::snprintf(text, sizeof text, "%lld min %lld s", whole / 60, whole % 60);
    else
      std::snprintf(text, sizeof text, "%lld h %lld min", whole / 3600, whole % 3600 / 60);
  }
  return text;
}

std::string countText(std::uint64_t count, const std::string& noun) {
  return std::to_string(count) + " " + noun + (count == 1 ? "" : "s");
}

std::string tableDateText(QVDate date) {
  const std::time_t t = std::chrono::system_clock::to_time_t(date);
  std::tm local{};
  localtime_r(&t, &local);
  // The C locale's date ("11/25/26") reads differently across the world: ISO 8601 instead.
  const char* name = std::setlocale(LC_TIME, nullptr);
  const std::string locale = name ? name : "C";
  const bool plain = locale == "C" || locale == "POSIX" || locale.rfind("C.", 0) == 0;
  char text[128];
  if (std::strftime(text, sizeof text, plain ? "%Y-%m-%d %H:%M" : "%x %H:%M", &local) == 0) return iso8601(date);
  return text;
}

}  // namespace qv
