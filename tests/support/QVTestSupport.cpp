#include "support/QVTestSupport.h"

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <optional>
#include <sstream>
#include <stdexcept>
#include <vector>

#include "platform/QVKeychain.h"
#include "platform/QVUserDefaults.h"

namespace fs = std::filesystem;

namespace qvtest {

TemporaryDirectory::TemporaryDirectory() {
  std::string pattern = (fs::temp_directory_path() / "stellwin-test-XXXXXX").string();
  std::vector<char> buffer(pattern.begin(), pattern.end());
  buffer.push_back('\0');
  if (!mkdtemp(buffer.data())) throw std::runtime_error("mkdtemp failed");
  m_path = buffer.data();
}

TemporaryDirectory::~TemporaryDirectory() {
  std::error_code ec;
  // Folders a test made unreadable or read-only must still go.
  for (auto it = fs::recursive_directory_iterator(m_path, fs::directory_options::skip_permission_denied, ec);
       !ec && it != fs::recursive_directory_iterator(); it.increment(ec)) {
    if (it->is_directory(ec) && !it->is_symlink(ec)) fs::permissions(it->path(), fs::perms::owner_all, fs::perm_options::add, ec);
  }
  fs::permissions(m_path, fs::perms::owner_all, fs::perm_options::add, ec);
  fs::remove_all(m_path, ec);
}

namespace {
const char* const kVariables[] = {"HOME", "XDG_CONFIG_HOME", "XDG_RUNTIME_DIR", "XDG_DOCUMENTS_DIR",
                                  "DBUS_SESSION_BUS_ADDRESS"};
}

struct IsolatedEnvironment::Saved {
  std::vector<std::pair<std::string, std::optional<std::string>>> values;
};

IsolatedEnvironment::IsolatedEnvironment() : m_saved(new Saved) {
  for (const char* name : kVariables) {
    const char* value = std::getenv(name);
    m_saved->values.emplace_back(name, value ? std::optional<std::string>(value) : std::nullopt);
  }
  const std::string root = m_dir.path();
  for (const char* sub : {"/home", "/home/Documents", "/config", "/runtime"}) fs::create_directories(root + sub);
  fs::permissions(root + "/runtime", fs::perms::owner_all, fs::perm_options::replace);
  setenv("HOME", (root + "/home").c_str(), 1);
  setenv("XDG_CONFIG_HOME", (root + "/config").c_str(), 1);
  setenv("XDG_RUNTIME_DIR", (root + "/runtime").c_str(), 1);
  setenv("XDG_DOCUMENTS_DIR", (root + "/home/Documents").c_str(), 1);
  unsetenv("DBUS_SESSION_BUS_ADDRESS");
  QVUserDefaults::resetStandardUserDefaults();
  QVKeychain::setSharedProxy(nullptr);
}

IsolatedEnvironment::~IsolatedEnvironment() {
  QVUserDefaults::resetStandardUserDefaults();
  QVKeychain::setSharedProxy(nullptr);
  for (const auto& [name, value] : m_saved->values) {
    if (value) setenv(name.c_str(), value->c_str(), 1);
    else unsetenv(name.c_str());
  }
  delete m_saved;
}

void writeFile(const std::string& path, const std::string& text) {
  fs::create_directories(fs::path(path).parent_path());
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  out << text;
}

std::string readFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::stringstream ss;
  ss << in.rdbuf();
  return ss.str();
}

}  // namespace qvtest
