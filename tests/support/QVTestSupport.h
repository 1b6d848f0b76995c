// Shared test helpers: a temporary folder that removes itself, an environment whose HOME and XDG folders
// live in one, so that no test touches the real user's preferences, secrets or documents, and the log
// lines written meanwhile.
#pragma once

#include <mutex>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "platform/QVLog.h"

namespace qvtest {

class TemporaryDirectory {
 public:
  TemporaryDirectory();
  ~TemporaryDirectory();
  TemporaryDirectory(const TemporaryDirectory&) = delete;
  TemporaryDirectory& operator=(const TemporaryDirectory&) = delete;
  const std::string& path() const { return m_path; }
  std::string operator/(const std::string& name) const { return m_path + "/" + name; }

 private:
  std::string m_path;
};

// Points HOME, XDG_CONFIG_HOME, XDG_RUNTIME_DIR, XDG_STATE_HOME and XDG_DOCUMENTS_DIR into a fresh temporary folder,
// unsets DBUS_SESSION_BUS_ADDRESS (so the file keychain is used), resets the standard user-defaults
// store and the shared keychain, and undoes all of it when destroyed.
class IsolatedEnvironment {
 public:
  IsolatedEnvironment();
  ~IsolatedEnvironment();
  const std::string& root() const { return m_dir.path(); }
  std::string configDirectory() const { return root() + "/config/stellwin"; }
  std::string preferencesPath() const { return configDirectory() + "/preferences.json"; }
  std::string home() const { return root() + "/home"; }
  std::string journalPath() const { return root() + "/state/stellwin/runs.jsonl"; }

 private:
  TemporaryDirectory m_dir;
  std::vector<std::pair<std::string, std::optional<std::string>>> m_saved;
};

// Collects the log lines written, from any thread, while it lives.
class LogCapture {
 public:
  LogCapture();
  ~LogCapture() { qv::setLogSink(m_previous); }
  std::vector<std::string> lines(bool clear = false);

 private:
  std::mutex m_mutex;
  std::vector<std::string> m_lines;
  qv::QVLogSink m_previous;
};

// Writes text to a file (creating parent folders); reads a whole file ("" when missing).
void writeFile(const std::string& path, const std::string& text);
std::string readFile(const std::string& path);
// The names in a folder, sorted (none when it cannot be read).
std::vector<std::string> namesIn(const std::string& folder);

}  // namespace qvtest
