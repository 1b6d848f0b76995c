#include "platform/QVLog.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>

namespace {

std::mutex g_mutex;
qv::QVLogSink g_sink;  // guarded by g_mutex

void emit(const std::string& line) {
  std::lock_guard<std::mutex> lock(g_mutex);
  if (g_sink) {
    g_sink(line);
    return;
  }
  std::fprintf(stderr, "%s\n", line.c_str());
  std::fflush(stderr);
}

bool categoryEnabled(const char* category) {
  const char* wanted = std::getenv("STELLWIN_DEBUG");
  if (!wanted || !*wanted) return false;
  if (std::strcmp(wanted, "all") == 0 || std::strcmp(wanted, "1") == 0) return true;
  // A comma-separated list of categories; "targets" enables "targets.dav" and "targets.ftp".
  std::string list = wanted;
  std::string name = category;
  std::size_t start = 0;
  while (start <= list.size()) {
    std::size_t end = list.find(',', start);
    std::string item = list.substr(start, end == std::string::npos ? std::string::npos : end - start);
    if (!item.empty() && (name == item || name.rfind(item + ".", 0) == 0)) return true;
    if (end == std::string::npos) break;
    start = end + 1;
  }
  return false;
}

}  // namespace

void QVLog(const std::string& line) { emit(line); }

namespace qv {

void debugLog(const char* category, const std::string& line) {
  if (categoryEnabled(category)) emit(std::string("[") + category + "] " + line);
}

QVLogSink setLogSink(QVLogSink sink) {
  std::lock_guard<std::mutex> lock(g_mutex);
  QVLogSink previous = std::move(g_sink);
  g_sink = std::move(sink);
  return previous;
}

}  // namespace qv
