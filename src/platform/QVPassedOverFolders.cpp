#include "platform/QVPassedOverFolders.h"

#include <stdlib.h>
#include <sys/stat.h>

#include <algorithm>
#include <memory>
#include <mutex>

namespace qv {
namespace {

std::mutex& listMutex() {
  static std::mutex mutex;
  return mutex;
}

std::vector<std::string>& storedList() {  // guarded by listMutex()
  static std::vector<std::string> paths;
  return paths;
}

std::string realPath(const std::string& path) {
  std::unique_ptr<char, decltype(&::free)> resolved(::realpath(path.c_str(), nullptr), &::free);
  return resolved ? std::string(resolved.get()) : std::string();
}

}  // namespace

void setFoldersPassedOver(std::vector<std::string> paths) {
  paths.erase(std::remove(paths.begin(), paths.end(), std::string()), paths.end());
  std::sort(paths.begin(), paths.end());
  paths.erase(std::unique(paths.begin(), paths.end()), paths.end());
  std::lock_guard<std::mutex> lock(listMutex());
  storedList() = std::move(paths);
}

std::vector<std::string> foldersPassedOver() {
  std::lock_guard<std::mutex> lock(listMutex());
  return storedList();
}

std::vector<QVFolderIdentity> passedOverFolderIdentities() {
  std::vector<QVFolderIdentity> identities;
  for (const auto& path : foldersPassedOver()) {
    struct stat st;
    if (::stat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode))
      identities.emplace_back(static_cast<std::uint64_t>(st.st_dev), static_cast<std::uint64_t>(st.st_ino));
  }
  return identities;
}

std::vector<std::string> foldersPassedOverInside(const std::string& itemPath) {
  std::vector<std::string> inside;
  const std::string item = realPath(itemPath);
  if (item.empty()) return inside;
  for (const auto& path : foldersPassedOver()) {
    const std::string folder = realPath(path);
    if (folder.empty()) continue;
    const bool below = folder == item || (folder.size() > item.size() && folder.compare(0, item.size(), item) == 0 &&
                                          (item == "/" || folder[item.size()] == '/'));
    if (below) inside.push_back(path);
  }
  return inside;
}

}  // namespace qv
