#include "platform/QVFoundation.h"

#include <dirent.h>
#include <fcntl.h>
#include <glib.h>
#include <langinfo.h>
#include <sys/stat.h>
#include <unistd.h>
#include <uuid/uuid.h>

#include <algorithm>
#include <cstdlib>
#include <ctime>
#include <vector>

#include "platform/QVPassedOverFolders.h"

namespace {

// The path without its trailing slashes; the root stays "/".
std::string withoutTrailingSlashes(const std::string& path) {
  std::size_t end = path.find_last_not_of('/');
  if (end == std::string::npos) return path.empty() ? path : "/";
  return path.substr(0, end + 1);
}

// Drops the seconds from the locale's time format: a status line shows hours and minutes.
std::string shortTimeFormat(std::string format) {
  auto replaceAll = [&format](const std::string& from, const std::string& to) {
    for (std::size_t at = format.find(from); at != std::string::npos; at = format.find(from, at + to.size())) {
      format.replace(at, from.size(), to);
    }
  };
  replaceAll("%T", "%H:%M");
  replaceAll("%r", "%I:%M %p");
  replaceAll(":%S", "");
  replaceAll(".%S", "");
  return format.empty() ? "%H:%M" : format;
}

// Sums the sizes of the regular files below an open folder. Links are never followed, and a folder
// that cannot be read adds nothing.
std::uint64_t sizeOfFolder(int folder) {
  DIR* stream = ::fdopendir(folder);
  if (!stream) {
    ::close(folder);
    return 0;
  }
  std::uint64_t total = 0;
  while (dirent* entry = ::readdir(stream)) {
    std::string name = entry->d_name;
    if (name == "." || name == "..") continue;
    struct stat info {};
    if (::fstatat(::dirfd(stream), entry->d_name, &info, AT_SYMLINK_NOFOLLOW) != 0) continue;
    if (S_ISREG(info.st_mode)) {
      total += static_cast<std::uint64_t>(info.st_size);
    } else if (S_ISDIR(info.st_mode)) {
      int child = ::openat(::dirfd(stream), entry->d_name, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
      if (child >= 0) total += sizeOfFolder(child);
    }
  }
  ::closedir(stream);
  return total;
}

std::string environment(const char* name) {
  const char* value = std::getenv(name);
  return value ? value : "";
}

std::string homeDirectory() {
  std::string home = environment("HOME");
  return home.empty() ? g_get_home_dir() : home;
}

}  // namespace

namespace qv {

std::string stringWithUUID() {
  uuid_t uuid;
  uuid_generate_random(uuid);
  char text[37];
  uuid_unparse_upper(uuid, text);
  return text;
}

std::string lastPathComponent(const std::string& path) {
  std::string trimmed = withoutTrailingSlashes(path);
  if (trimmed == "/") return trimmed;
  std::size_t slash = trimmed.rfind('/');
  return slash == std::string::npos ? trimmed : trimmed.substr(slash + 1);
}

std::string stringByDeletingLastPathComponent(const std::string& path) {
  std::string trimmed = withoutTrailingSlashes(path);
  if (trimmed == "/") return trimmed;
  std::size_t slash = trimmed.rfind('/');
  if (slash == std::string::npos) return "";
  // "/a" and "//a" leave the root; "a//b" leaves "a".
  std::size_t end = trimmed.find_last_not_of('/', slash);
  return end == std::string::npos ? "/" : trimmed.substr(0, end + 1);
}

std::string stringByAppendingPathComponent(const std::string& path, const std::string& component) {
  std::size_t start = component.find_first_not_of('/');
  std::string tail = start == std::string::npos ? "" : withoutTrailingSlashes(component.substr(start));
  if (path.empty()) return withoutTrailingSlashes(component);
  std::string head = withoutTrailingSlashes(path);
  if (tail.empty()) return head;
  return head == "/" ? head + tail : head + "/" + tail;
}

std::string pathExtension(const std::string& name) {
  std::string last = lastPathComponent(name);
  std::size_t dot = last.rfind('.');
  // A leading dot names a hidden file, not an extension.
  if (dot == std::string::npos || dot == 0 || last == "/") return "";
  return last.substr(dot + 1);
}

std::string stringByDeletingPathExtension(const std::string& name) {
  std::string trimmed = withoutTrailingSlashes(name);
  std::string extension = pathExtension(trimmed);
  if (extension.empty()) return trimmed;
  return trimmed.substr(0, trimmed.size() - extension.size() - 1);
}

std::string stringByAppendingPathExtension(const std::string& name, const std::string& extension) {
  std::string trimmed = withoutTrailingSlashes(name);
  if (extension.empty() || trimmed.empty() || trimmed == "/") return trimmed;
  return trimmed + "." + extension;
}

std::string urlStringByAppendingPathComponent(const std::string& url, const std::string& component) {
  // Only the slashes at the seam merge: whatever the URL holds before it ("scheme://", a "//" that
  // means the server's root) and the component's own trailing slash stay as given.
  std::size_t start = component.find_first_not_of('/');
  if (start == std::string::npos) return url;
  if (url.empty()) return component.substr(start);
  std::string tail = component.substr(start);
  return url.back() == '/' ? url + tail : url + "/" + tail;
}

std::optional<std::string> stringByReplacingPercentEscapes(const std::string& text) {
  auto hex = [](char c) -> int {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    return -1;
  };
  std::string result;
  result.reserve(text.size());
  for (std::size_t i = 0; i < text.size(); ++i) {
    if (text[i] != '%') {
      result += text[i];
      continue;
    }
    if (i + 2 >= text.size() || hex(text[i + 1]) < 0 || hex(text[i + 2]) < 0) return std::nullopt;
    result += static_cast<char>(hex(text[i + 1]) * 16 + hex(text[i + 2]));
    i += 2;
  }
  if (!g_utf8_validate(result.data(), static_cast<gssize>(result.size()), nullptr)) return std::nullopt;
  return result;
}

bool walkDirectory(const std::string& folder,
                   const std::function<bool(const std::string& relative, bool isFolder)>& visit,
                   const std::function<void(const std::string& relative)>& unreadable) {
  // One open folder per level, so a folder that vanishes or cannot be read costs only itself.
  struct Level {
    DIR* stream;
    std::string relative;
  };
  DIR* top = ::opendir(folder.c_str());
  if (!top) return false;
  const std::vector<QVFolderIdentity> passedOver = passedOverFolderIdentities();
  auto isPassedOver = [&](const struct stat& info) {
    const QVFolderIdentity identity{static_cast<std::uint64_t>(info.st_dev), static_cast<std::uint64_t>(info.st_ino)};
    return std::find(passedOver.begin(), passedOver.end(), identity) != passedOver.end();
  };
  if (struct stat info{}; !passedOver.empty() && ::fstat(::dirfd(top), &info) == 0 && isPassedOver(info)) {
    ::closedir(top);
    return true;
  }
  std::vector<Level> levels{{top, ""}};
  bool stopped = false;
  while (!levels.empty() && !stopped) {
    Level& level = levels.back();
    dirent* entry = ::readdir(level.stream);
    if (!entry) {
      ::closedir(level.stream);
      levels.pop_back();
      continue;
    }
    const std::string name = entry->d_name;
    if (name == "." || name == "..") continue;
    const std::string relative = level.relative.empty() ? name : level.relative + "/" + name;
    struct stat info {};
    if (::fstatat(::dirfd(level.stream), entry->d_name, &info, AT_SYMLINK_NOFOLLOW) != 0) continue;  // gone
    const bool isFolder = S_ISDIR(info.st_mode);
    if (isFolder && isPassedOver(info)) continue;  // a destination or the program's own folder
    if (!visit(relative, isFolder)) {
      stopped = true;
    } else if (isFolder) {
      int child = ::openat(::dirfd(level.stream), entry->d_name, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
      DIR* stream = child >= 0 ? ::fdopendir(child) : nullptr;
      if (!stream) {
        if (child >= 0) ::close(child);
        if (unreadable) unreadable(relative);
      } else {
        levels.push_back({stream, relative});
      }
    }
  }
  for (Level& level : levels) ::closedir(level.stream);
  return true;
}

int openRegularFileForReading(const std::string& path) {
  int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK);
  struct stat info {};
  if (fd >= 0 && (::fstat(fd, &info) != 0 || !S_ISREG(info.st_mode))) {
    ::close(fd);
    return -1;
  }
  if (fd >= 0) ::fcntl(fd, F_SETFL, ::fcntl(fd, F_GETFL) & ~O_NONBLOCK);
  return fd;
}

bool fileExistsAtPath(const std::string& path, bool* isDirectory) {
  struct stat info {};
  if (path.empty() || ::stat(path.c_str(), &info) != 0) {
    if (isDirectory) *isDirectory = false;
    return false;
  }
  if (isDirectory) *isDirectory = S_ISDIR(info.st_mode);
  return true;
}

bool isReadableFileAtPath(const std::string& path) { return !path.empty() && ::access(path.c_str(), R_OK) == 0; }

std::uint64_t sizeOfItemAtPath(const std::string& path) {
  struct stat info {};
  if (path.empty() || ::lstat(path.c_str(), &info) != 0) return 0;
  if (S_ISREG(info.st_mode)) return static_cast<std::uint64_t>(info.st_size);
  if (!S_ISDIR(info.st_mode)) return 0;
  int folder = ::open(path.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
  return folder < 0 ? 0 : sizeOfFolder(folder);
}

std::string documentsDirectory() {
  std::string documents = environment("XDG_DOCUMENTS_DIR");
  if (!documents.empty()) {
    if (documents == "~" || documents.rfind("~/", 0) == 0) documents = homeDirectory() + documents.substr(1);
    return documents;
  }
  // GLib reads user-dirs.dirs; a documents folder that is the home folder itself means "not set up".
  const gchar* special = g_get_user_special_dir(G_USER_DIRECTORY_DOCUMENTS);
  std::string home = homeDirectory();
  if (special && *special && withoutTrailingSlashes(special) != withoutTrailingSlashes(home)) return special;
  return stringByAppendingPathComponent(home, "Documents");
}

std::string stringFromDate(QVDate date) {
  // The locale's own numeric date and its time of day without seconds (LC_TIME), in local time.
  // POSIX locales carry no "medium" date style; the numeric one is what every locale defines.
  std::time_t seconds = std::chrono::system_clock::to_time_t(date);
  std::tm local{};
  if (!::localtime_r(&seconds, &local)) return "";
  std::string dateFormat = ::nl_langinfo(D_FMT);
  std::string format = (dateFormat.empty() ? "%x" : dateFormat) + " " + shortTimeFormat(::nl_langinfo(T_FMT));
  char buffer[256];
  std::size_t length = std::strftime(buffer, sizeof buffer, format.c_str(), &local);
  return std::string(buffer, length);
}

}  // namespace qv
