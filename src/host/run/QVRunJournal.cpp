#include "host/run/QVRunJournal.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <nlohmann/json.hpp>

using nlohmann::json;

namespace {

std::string environment(const char* name) {
  const char* value = std::getenv(name);
  return value ? value : "";
}

// Makes path and its missing parents, each new one private to the user.
bool makeFolder(const std::string& path, std::string* error) {
  for (std::size_t at = 1; at <= path.size(); ++at) {
    if (at < path.size() && path[at] != '/') continue;
    const std::string prefix = path.substr(0, at);
    if (::mkdir(prefix.c_str(), 0700) != 0 && errno != EEXIST) {
      if (error) *error = "cannot make the folder " + prefix + ": " + std::strerror(errno);
      return false;
    }
  }
  return true;
}

template <typename T>
bool read(const json& object, const char* key, T& value) {
  auto it = object.find(key);
  if (it == object.end()) return false;
  try {
    value = it->get<T>();
  } catch (const json::exception&) {
    return false;
  }
  return true;
}

json entryObject(const QVJournalEntry& entry) {
  json object = json::object();
  object["group"] = entry.groupID;
  object["title"] = entry.title;
  object["version"] = entry.version;
  object["started"] = entry.started;
  object["ended"] = entry.ended;
  object["outcome"] = entry.outcome;
  object["statusCode"] = entry.statusCode ? json(*entry.statusCode) : json(nullptr);
  object["items"] = entry.items;
  object["files"] = entry.files;
  object["bytes"] = entry.bytes;
  object["leftOutCount"] = entry.leftOutCount;
  object["leftOut"] = entry.leftOut;
  object["missingItems"] = entry.missingItems;
  object["failedItems"] = entry.failedItems;
  object["versionsUnreadable"] = entry.versionsUnreadable;
  object["notes"] = entry.notes;
  return object;
}

void readFileEntries(const std::string& path, std::vector<QVJournalEntry>& entries) {
  std::ifstream in(path, std::ios::binary);
  for (std::string line; std::getline(in, line);)
    if (auto entry = qv::journalEntryFromLine(line)) entries.push_back(std::move(*entry));
}

}  // namespace

namespace qv {

std::string journalLine(const QVJournalEntry& entry) {
  // Paths need not be valid UTF-8: such a byte is written as U+FFFD rather than losing the line.
  return entryObject(entry).dump(-1, ' ', false, json::error_handler_t::replace);
}

std::optional<QVJournalEntry> journalEntryFromLine(const std::string& line) {
  json object = json::parse(line, nullptr, false);
  if (object.is_discarded() || !object.is_object()) return std::nullopt;
  QVJournalEntry entry;
  // The keys that make an entry; the others may be absent in a line an older version wrote.
  if (!read(object, "group", entry.groupID) || !read(object, "outcome", entry.outcome) ||
      !read(object, "ended", entry.ended))
    return std::nullopt;
  read(object, "title", entry.title);
  read(object, "version", entry.version);
  read(object, "started", entry.started);
  if (std::int64_t code = 0; read(object, "statusCode", code)) entry.statusCode = code;
  read(object, "items", entry.items);
  read(object, "files", entry.files);
  read(object, "bytes", entry.bytes);
  read(object, "leftOutCount", entry.leftOutCount);
  read(object, "leftOut", entry.leftOut);
  read(object, "missingItems", entry.missingItems);
  read(object, "failedItems", entry.failedItems);
  read(object, "versionsUnreadable", entry.versionsUnreadable);
  read(object, "notes", entry.notes);
  return entry;
}

std::string journalJSON(const std::vector<QVJournalEntry>& entries) {
  json array = json::array();
  for (const auto& entry : entries) array.push_back(entryObject(entry));
  return array.dump(2, ' ', false, json::error_handler_t::replace) + "\n";
}

}  // namespace qv

QVRunJournal::QVRunJournal(std::string directory, std::uintmax_t maxBytes)
    : m_directory(std::move(directory)), m_maxBytes(maxBytes) {}

std::string QVRunJournal::defaultDirectory() {
  // A relative XDG_STATE_HOME is invalid by the XDG rules and is ignored.
  const std::string state = environment("XDG_STATE_HOME");
  if (!state.empty() && state.front() == '/') return state + "/stellwin";
  return environment("HOME") + "/.local/state/stellwin";
}

bool QVRunJournal::append(const QVJournalEntry& entry, std::string* error) const {
  if (!makeFolder(m_directory, error)) return false;
  ::chmod(m_directory.c_str(), 0700);  // ours alone, also when made by hand
  const std::string path = filePath();
  struct stat st;
  if (::stat(path.c_str(), &st) == 0 && static_cast<std::uintmax_t>(st.st_size) >= m_maxBytes) {
    const std::string older = path + ".1";
    if (::rename(path.c_str(), older.c_str()) != 0) {
      if (error) *error = "cannot rotate " + path + ": " + std::strerror(errno);
      return false;
    }
  }
  const int fd = ::open(path.c_str(), O_RDWR | O_APPEND | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0600);
  if (fd < 0) {
    if (error) *error = "cannot open " + path + ": " + std::strerror(errno);
    return false;
  }
  ::fchmod(fd, 0600);
  // A line that an earlier writer left without its end would swallow this one: start a fresh line.
  std::string line = qv::journalLine(entry) + "\n";
  if (::fstat(fd, &st) == 0 && st.st_size > 0) {
    char last = '\n';
    if (::pread(fd, &last, 1, st.st_size - 1) == 1 && last != '\n') line.insert(line.begin(), '\n');
  }
  const ssize_t written = ::write(fd, line.data(), line.size());
  const int writeErrno = errno;
  const bool closed = ::close(fd) == 0;
  if (written != static_cast<ssize_t>(line.size()) || !closed) {
    if (error) *error = "cannot write " + path + ": " + std::strerror(written < 0 ? writeErrno : EIO);
    return false;
  }
  return true;
}

std::vector<QVJournalEntry> QVRunJournal::entries() const {
  std::vector<QVJournalEntry> entries;
  readFileEntries(filePath() + ".1", entries);
  readFileEntries(filePath(), entries);
  return entries;
}
