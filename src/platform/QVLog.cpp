#include "platform/QVLog.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <utility>
#include <vector>

namespace {

std::mutex g_mutex;
qv::QVLogSink g_sink;  // guarded by g_mutex
std::mutex g_redactionMutex;
std::vector<std::pair<std::string, std::string>> g_redactions;  // guarded by g_redactionMutex

void emit(const std::string& text) {
  const std::string line = qv::redactedString(text);
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

void addRedaction(const std::string& secret, const std::string& shownAs) {
  if (secret.empty() || secret == shownAs) return;
  std::lock_guard<std::mutex> lock(g_redactionMutex);
  for (const auto& [known, _] : g_redactions)
    if (known == secret) return;
  g_redactions.emplace_back(secret, shownAs);
}

std::string redactedString(std::string text) {
  std::lock_guard<std::mutex> lock(g_redactionMutex);
  for (const auto& [secret, shownAs] : g_redactions) {
    for (std::size_t at = text.find(secret); at != std::string::npos; at = text.find(secret, at + shownAs.size()))
      text.replace(at, secret.size(), shownAs);
  }
  return text;
}

}  // namespace qv
