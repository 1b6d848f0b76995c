#include "support/QVTestSupport.h"

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>

#include "platform/QVKeychain.h"
#include "platform/QVUserDefaults.h"

namespace fs = std::filesystem;

namespace qvtest {

TemporaryDirectory::TemporaryDirectory() {
  std::string pattern = (fs::temp_directory_path() / "stellwin-test-XXXXXX").string();
  if (!mkdtemp(pattern.data())) throw std::runtime_error("mkdtemp failed");
  m_path = pattern;
}

TemporaryDirectory::~TemporaryDirectory() {
  std::error_code ec;
  // Folders a test made unreadable or read-only must still go.
  for (auto it = fs::recursive_directory_iterator(m_path, fs::directory_options::skip_permission_denied, ec);
       !ec && it != fs::recursive_directory_iterator(); it.increment(ec))
    if (it->is_directory(ec) && !it->is_symlink(ec))
      fs::permissions(it->path(), fs::perms::owner_all, fs::perm_options::add, ec);
  fs::permissions(m_path, fs::perms::owner_all, fs::perm_options::add, ec);
  fs::remove_all(m_path, ec);
}

IsolatedEnvironment::IsolatedEnvironment() {
  for (const char* name : {"HOME", "XDG_CONFIG_HOME", "XDG_RUNTIME_DIR", "XDG_DOCUMENTS_DIR", "XDG_STATE_HOME",
                           "DBUS_SESSION_BUS_ADDRESS", "NO_COLOR", "TERM"}) {
    const char* value = std::getenv(name);
    m_saved.emplace_back(name, value ? std::optional<std::string>(value) : std::nullopt);
  }
  for (const char* sub : {"/home/Documents", "/config", "/runtime"}) fs::create_directories(root() + sub);
  fs::permissions(root() + "/runtime", fs::perms::owner_all, fs::perm_options::replace);
  setenv("HOME", home().c_str(), 1);
  setenv("XDG_CONFIG_HOME", (root() + "/config").c_str(), 1);
  setenv("XDG_RUNTIME_DIR", (root() + "/runtime").c_str(), 1);
  setenv("XDG_STATE_HOME", (root() + "/state").c_str(), 1);
  setenv("XDG_DOCUMENTS_DIR", (home() + "/Documents").c_str(), 1);
  unsetenv("DBUS_SESSION_BUS_ADDRESS");
  // A terminal that a test opens shows colours, whatever the developer's own shell says.
  unsetenv("NO_COLOR");
  setenv("TERM", "xterm", 1);
  QVUserDefaults::resetStandardUserDefaults();
  QVKeychain::setSharedProxy(nullptr);
}

IsolatedEnvironment::~IsolatedEnvironment() {
  QVUserDefaults::resetStandardUserDefaults();
  QVKeychain::setSharedProxy(nullptr);
  for (const auto& [name, value] : m_saved) {
    if (value)
      setenv(name.c_str(), value->c_str(), 1);
    else
      unsetenv(name.c_str());
  }
}

LogCapture::LogCapture()
    : m_previous(qv::setLogSink([this](const std::string& line) {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_lines.push_back(line);
      })) {}

std::vector<std::string> LogCapture::lines(bool clear) {
  std::lock_guard<std::mutex> lock(m_mutex);
  std::vector<std::string> lines = m_lines;
  if (clear) m_lines.clear();
  return lines;
}

void writeFile(const std::string& path, const std::string& text) {
  fs::create_directories(fs::path(path).parent_path());
  std::ofstream(path, std::ios::binary | std::ios::trunc) << text;
}

std::string readFile(const std::string& path) {
  std::stringstream ss;
  ss << std::ifstream(path, std::ios::binary).rdbuf();
  return ss.str();
}

std::vector<std::string> namesIn(const std::string& folder) {
  std::vector<std::string> names;
  std::error_code ec;
  for (const auto& entry : fs::directory_iterator(folder, ec)) names.push_back(entry.path().filename().string());
  std::sort(names.begin(), names.end());
  return names;
}

}  // namespace qvtest
