#include "host/restore/QVRestoreCommand.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <map>
#include <mutex>
#include <nlohmann/json.hpp>
#include <ostream>
#include <set>
#include <thread>

#include "agent/QVBackupAgent.h"
#include "agent/QVVersionName.h"
#include "host/cli/QVHostArguments.h"
#include "host/cli/QVProgressDisplay.h"
#include "host/run/QVReadableText.h"
#include "host/run/QVVersionNames.h"
#include "platform/QVFoundation.h"
#include "platform/QVLog.h"
#include "platform/QVRunLoop.h"

namespace fs = std::filesystem;

namespace {

constexpr const char* kProgram = "stellwin-backup";

// One thing in a version: its path inside the version and what the destination says of it.
struct Member {
  std::string path;
  QVVersionEntry entry;
  bool isLink() const { return entry.symbolicLinkTarget.has_value(); }
};

// What a reading found wrong with one path.
struct Problem {
  std::string path;
  std::string text;
};

std::string joined(const std::string& folder, const std::string& name) {
  return folder.empty() ? name : folder + "/" + name;
}

std::string describe(const QVError& error) { return qv::redactedString(error.message()); }

// Whether a name from a destination names one thing inside its folder, and nothing outside it.
bool isPlainName(const std::string& name) {
  return !name.empty() && name != "." && name != ".." && name.find('/') == std::string::npos &&
         name.find('\0') == std::string::npos;
}

// Reads one version of a group back, on the worker thread. Requires: the destination is used by this
// reader alone.
class VersionReader {
 public:
  VersionReader(QVBackupTarget& target, const QVGroup& group, std::string version)
      : m_target(target), m_group(group), m_version(std::move(version)) {}

  // Everything below folder, parents before their content, names in order. A name that could lead
  // out of the folder it stands in is never followed; it goes to *refused.
  bool walk(const std::string& folder, std::vector<Member>& out, std::vector<Problem>& refused, QVError* error) {
    auto entries = m_target.contentsOfVersion(m_group, m_version, folder, error);
    if (!entries) return false;
    std::sort(entries->begin(), entries->end(), [](const auto& a, const auto& b) { return a.name < b.name; });
    for (auto& entry : *entries) {
      if (m_target.isCancelled()) return true;
      if (!isPlainName(entry.name)) {
        refused.push_back({joined(folder, entry.name), "a name the destination gave that is not a plain file name"});
        continue;
      }
      Member member{joined(folder, entry.name), std::move(entry)};
      const bool descend = member.entry.isDirectory && !member.isLink();
      out.push_back(member);
      if (descend && !walk(member.path, out, refused, error)) return false;
    }
    return true;
  }

  // The member at path, found in its folder's listing.
  std::optional<Member> find(const std::string& path, QVError* error) {
    const std::size_t slash = path.rfind('/');
    const std::string folder = slash == std::string::npos ? "" : path.substr(0, slash);
    auto entries = m_target.contentsOfVersion(m_group, m_version, folder, error);
    if (!entries) return std::nullopt;
    for (auto& entry : *entries)
      if (entry.name == qv::lastPathComponent(path)) return Member{path, std::move(entry)};
    return std::nullopt;
  }

  bool read(const std::string& path, const QVDataSink& sink, QVError* error) {
    return m_target.readFileOfVersion(m_group, m_version, path, sink, error);
  }

 private:
  QVBackupTarget& m_target;
  const QVGroup& m_group;
  std::string m_version;
};

// The time a version was made, from its name (local time, whole seconds).
std::time_t versionTime(const std::string& name) {
  std::tm tm{};
  tm.tm_isdst = -1;
  std::sscanf(name.c_str(), "%4d%2d%2d%2d%2d%2d", &tm.tm_year, &tm.tm_mon, &tm.tm_mday, &tm.tm_hour, &tm.tm_min,
              &tm.tm_sec);
  tm.tm_year -= 1900;
  tm.tm_mon -= 1;
  return std::mktime(&tm);
}

// A path as given for a version, without leading, trailing or doubled slashes; "" when it names nothing
// inside the version ("", ".", "..").
std::string normalised(const std::string& path) {
  std::string result;
  for (std::size_t start = 0; start <= path.size();) {
    std::size_t end = path.find('/', start);
    if (end == std::string::npos) end = path.size();
    const std::string piece = path.substr(start, end - start);
    if (piece == "." || piece == "..") return "";
    if (!piece.empty()) result = joined(result, piece);
    start = end + 1;
  }
  return result;
}

// A path as the user gave it for a version: a file's or folder's own absolute path, inside one of the
// group's items, becomes its path inside the version (under the name the run gave the item); any
// other path is read as a path inside the version.
std::string pathInVersion(const QVGroup& group, const std::string& given) {
  if (!given.empty() && given.front() == '/') {
    std::vector<std::string> used;
    for (const auto& item : group.items) {
      const std::string name = qv::uniqueItemName(item, used);
      if (given == item) return name;
      if (given.size() > item.size() && given.compare(0, item.size(), item) == 0 && given[item.size()] == '/')
        return normalised(name + given.substr(item.size()));
    }
  }
  return normalised(given);
}

// "2026-11-25 12:33:05", local time, from nanoseconds since the epoch.
std::string localTime(std::int64_t nanoseconds) {
  const std::time_t seconds = static_cast<std::time_t>(nanoseconds / 1000000000);
  std::tm tm{};
  ::localtime_r(&seconds, &tm);
  char text[32];
  std::strftime(text, sizeof text, "%Y-%m-%d %H:%M:%S", &tm);
  return text;
}

// Sets a restored file's or folder's mode and time where the destination kept them.
void applyAttributes(int fd, const std::string& path, const QVVersionEntry& entry) {
  if (entry.mode) fd >= 0 ? ::fchmod(fd, *entry.mode) : ::chmod(path.c_str(), *entry.mode);
  if (entry.modificationTimeNanoseconds) {
    const std::int64_t ns = *entry.modificationTimeNanoseconds;
    const timespec times[2] = {{0, UTIME_OMIT},
                               {static_cast<time_t>(ns / 1000000000), static_cast<long>(ns % 1000000000)}};
    fd >= 0 ? ::futimens(fd, times) : ::utimensat(AT_FDCWD, path.c_str(), times, AT_SYMLINK_NOFOLLOW);
  }
}

}  // namespace

// One reading of a version, shared by the worker that reads and the main thread that shows progress:
// the counters are atomic, the file being read is guarded by currentMutex, and everything else is
// written by the worker only and read after it has ended.
struct QVRestoreCommand::Reading {
  Reading(QVBackupTarget& target, const QVGroup& group, std::string version, std::string restoreFolder)
      : target(target), group(group), version(std::move(version)), restoreFolder(std::move(restoreFolder)) {}

  QVBackupTarget& target;
  const QVGroup& group;
  std::string version;
  std::string restoreFolder;  // restore: where the files go

  std::atomic<std::uint64_t> bytesDone{0}, bytesTotal{0};
  std::vector<Problem> errors;
  std::map<std::string, std::vector<std::string>> reported;  // verify: changed, added, gone
  std::uint64_t filesHandled = 0;
  std::uint64_t bytesKept = 0;  // restore: the bytes of the files it wrote whole, and left in place
  std::mutex currentMutex;
  std::string current;  // the file being read; guarded by currentMutex

  void setCurrent(const std::string& path) {
    std::lock_guard<std::mutex> lock(currentMutex);
    current = path;
  }
  std::string currentFile() {
    std::lock_guard<std::mutex> lock(currentMutex);
    return current;
  }

  // Writes the given paths of the version (all of it when none) into restoreFolder.
  void restore(VersionReader& reader, const std::vector<std::string>& paths);
  // Writes one file; false when it was not restored (its error noted, nothing of it left).
  bool restoreFile(VersionReader& reader, const Member& member, const std::string& local);
  // Compares the version with the group's sources as they are now.
  void verify(VersionReader& reader);
  // One file of the version against its source.
  void verifyFile(VersionReader& reader, const Member& member, const std::string& source);
  // Sources the version should hold: missing when unchanged since it was made, added when newer.
  void findSourcesNotInVersion(const std::map<std::string, std::string>& sourceOfItem,
                               const std::set<std::string>& inVersion, std::time_t madeAt);
};

void QVRestoreCommand::Reading::restore(VersionReader& reader, const std::vector<std::string>& paths) {
  std::vector<Member> plan;
  QVError error;
  if (paths.empty()) {
    if (!reader.walk("", plan, errors, &error)) errors.push_back({"", describe(error)});
  }
  for (const auto& given : paths) {
    const std::string path = pathInVersion(group, given);
    auto member = path.empty() ? std::nullopt : reader.find(path, &error);
    if (!member) {
      errors.push_back({given, path.empty() || error.domain.empty() ? "not in the version" : describe(error)});
      error = QVError();
      continue;
    }
    plan.push_back(*member);
    if (member->entry.isDirectory && !member->isLink() && !reader.walk(path, plan, errors, &error))
      errors.push_back({path, describe(error)});
  }
  for (const auto& member : plan) bytesTotal += member.entry.size;
  std::vector<const Member*> folders;
  for (const auto& member : plan) {
    if (target.isCancelled()) break;
    const std::string local = restoreFolder + "/" + member.path;
    std::error_code ec;
    fs::create_directories(fs::path(local).parent_path(), ec);
    if (member.isLink()) {
      if (::symlink(member.entry.symbolicLinkTarget->c_str(), local.c_str()) != 0)
        errors.push_back({member.path, std::strerror(errno)});
      continue;
    }
    if (member.entry.isDirectory) {
      fs::create_directories(local, ec);
      folders.push_back(&member);
      continue;
    }
    if (restoreFile(reader, member, local)) ++filesHandled;
  }
  // Folders last, deepest first, so their times are not changed again by what went into them.
  for (auto it = folders.rbegin(); it != folders.rend(); ++it)
    applyAttributes(-1, restoreFolder + "/" + (*it)->path, (*it)->entry);
}

bool QVRestoreCommand::Reading::restoreFile(VersionReader& reader, const Member& member, const std::string& local) {
  QVError error;
  int fd = ::open(local.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
  if (fd < 0) {
    errors.push_back({member.path, std::strerror(errno)});
    return false;
  }
  setCurrent(member.path);
  bool written = true;
  int writeError = 0;
  std::uint64_t fileBytes = 0;
  const bool read = reader.read(
      member.path,
      [&](const char* bytes, std::size_t length) {
        for (std::size_t at = 0; written && at < length;) {
          ssize_t n = ::write(fd, bytes + at, length - at);
          if (n < 0 && errno == EINTR) continue;
          written = n > 0;
          if (!written) writeError = n < 0 ? errno : ENOSPC;
          at += n > 0 ? static_cast<std::size_t>(n) : 0;
          fileBytes += n > 0 ? static_cast<std::uint64_t>(n) : 0;
        }
        bytesDone += length;
        return written;
      },
      &error);
  if (read && written) applyAttributes(fd, local, member.entry);
  ::close(fd);
  if (!read || !written) {
    ::unlink(local.c_str());  // a file half restored is not restored
    if (!target.isCancelled())
      errors.push_back({member.path, written ? describe(error)
                                             : "cannot be written here: " + std::string(std::strerror(writeError))});
    return false;
  }
  bytesKept += fileBytes;
  return true;
}

void QVRestoreCommand::Reading::verify(VersionReader& reader) {
  const std::time_t madeAt = versionTime(version);
  // The name each item was given in the version, as the run gives them.
  std::map<std::string, std::string> sourceOfItem;
  std::vector<std::string> used;
  for (const auto& item : group.items) sourceOfItem[qv::uniqueItemName(item, used)] = item;
  std::vector<Member> plan;
  QVError error;
  if (!reader.walk("", plan, errors, &error)) errors.push_back({"", describe(error)});
  for (const auto& member : plan) bytesTotal += member.isLink() || member.entry.isDirectory ? 0 : member.entry.size;
  std::set<std::string> inVersion;
  for (const auto& member : plan) {
    if (target.isCancelled()) break;
    if (member.isLink() || member.entry.isDirectory) continue;
    const std::size_t slash = member.path.find('/');
    auto item = sourceOfItem.find(member.path.substr(0, slash));
    if (item == sourceOfItem.end()) {
      reported["gone"].push_back(member.path);
      continue;
    }
    const std::string source = slash == std::string::npos ? item->second : item->second + member.path.substr(slash);
    inVersion.insert(source);
    struct stat info {};
    if (::stat(source.c_str(), &info) != 0) {
      reported["gone"].push_back(member.path);
      continue;
    }
    if (info.st_mtime >= madeAt) {
      reported["changed"].push_back(member.path);
      continue;
    }
    verifyFile(reader, member, source);
  }
  findSourcesNotInVersion(sourceOfItem, inVersion, madeAt);
}

void QVRestoreCommand::Reading::verifyFile(VersionReader& reader, const Member& member, const std::string& source) {
  QVError error;
  int fd = ::open(source.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) {
    errors.push_back({member.path, "the source cannot be read: " + std::string(std::strerror(errno))});
    return;
  }
  setCurrent(member.path);
  bool same = true;
  std::vector<char> mine;
  const bool read = reader.read(
      member.path,
      [&](const char* bytes, std::size_t length) {
        mine.resize(length);
        std::size_t got = 0;
        while (same && got < length) {
          ssize_t n = ::read(fd, mine.data() + got, length - got);
          if (n < 0 && errno == EINTR) continue;
          if (n <= 0) break;
          got += static_cast<std::size_t>(n);
        }
        same = same && got == length && std::memcmp(mine.data(), bytes, length) == 0;
        bytesDone += length;
        return true;
      },
      &error);
  char extra;
  if (read && same && ::read(fd, &extra, 1) > 0) same = false;  // the source is longer
  ::close(fd);
  if (!read) {
    if (!target.isCancelled()) errors.push_back({member.path, "cannot be read at the destination: " + describe(error)});
  } else if (!same) {
    errors.push_back({member.path, "differs from its source"});
  }
  ++filesHandled;
}

void QVRestoreCommand::Reading::findSourcesNotInVersion(const std::map<std::string, std::string>& sourceOfItem,
                                                        const std::set<std::string>& inVersion, std::time_t madeAt) {
  for (const auto& [name, item] : sourceOfItem) {
    if (target.isCancelled()) break;
    std::vector<std::string> files;
    std::error_code ec;
    if (fs::is_regular_file(fs::symlink_status(item, ec)))
      files.push_back(item);
    else if (fs::is_directory(fs::symlink_status(item, ec)))
      for (fs::recursive_directory_iterator it(item, fs::directory_options::skip_permission_denied, ec), end;
           !ec && it != end; it.increment(ec))
        if (it->is_regular_file(ec) && !it->is_symlink(ec)) files.push_back(it->path().string());
    for (const auto& file : files) {
      if (inVersion.count(file)) continue;
      const std::string shown = name + file.substr(item.size());
      struct stat info {};
      if (::stat(file.c_str(), &info) == 0 && info.st_mtime < madeAt)
        errors.push_back({shown, "missing from the version"});
      else
        reported["added"].push_back(shown);
    }
  }
}

QVRestoreCommand::QVRestoreCommand(QVBackupAgent& agent, std::ostream& out, std::ostream& err)
    : m_agent(agent), m_out(out), m_err(err) {}

int QVRestoreCommand::run(const QVCommandOptions& options) {
  const bool restoring = options.command == QVCommand::restore;
  auto found = qv::findGroup(m_agent, options.group);
  if (!found.record) return fail(found.error, 2);
  const QVGroup group = *found.record;
  std::string restoreFolder;
  if (restoring) {
    restoreFolder = qv::absolutePath(options.restoreFolder, options.folder);
    std::error_code ec;
    if (fs::exists(fs::symlink_status(restoreFolder, ec)) &&
        (!fs::is_directory(restoreFolder, ec) || !fs::is_empty(restoreFolder, ec)))
      return fail(qv::quoted(restoreFolder) + " is not an empty folder; restore never overwrites anything", 2);
  }
  if (m_agent.isBackingUpGroupWithID(group.identifier))
    return fail("group " + qv::quoted(group.title) + " is being backed up; try again when it has finished", 1);
  std::unique_ptr<QVBackupTarget> target = group.target ? m_agent.backupTargetWithIdentifier(*group.target) : nullptr;
  if (!target) return fail("group " + qv::quoted(group.title) + " has no usable destination", 1);

  std::string version;
  if (const int status = chooseVersion(*target, group, options, version); status != 0) return status;
  if (options.command == QVCommand::files) return listFiles(*target, group, version, options);
  bool madeFolder = false;
  if (restoring) {
    std::error_code ec;
    madeFolder = !fs::exists(fs::symlink_status(restoreFolder, ec));
    fs::create_directories(restoreFolder, ec);
    if (ec) return fail("cannot make " + qv::quoted(restoreFolder) + ": " + ec.message(), 1);
  }

  // The reading runs on a thread of its own; the main loop shows its progress and hears Ctrl-C.
  Reading reading(*target, group, version, restoreFolder);
  QVProgressDisplay display(stderr, !options.json);
  std::atomic<bool> done{false};
  // This process only reads back: no schedule may start a backup in it meanwhile.
  m_agent.stopTimers();
  display.begin(group.identifier, group.title);
  std::thread worker([&] {
    VersionReader reader(*target, group, version);
    restoring ? reading.restore(reader, options.paths) : reading.verify(reader);
    qv::postToMainThread([&] { done = true; });
  });
  bool interrupted = false;
  auto cancel = [&] {
    interrupted = true;
    target->cancel();
    display.setNote("cancelling...");
  };
  const unsigned sigint = qv::addSignalHandler(SIGINT, cancel);
  const unsigned sigterm = qv::addSignalHandler(SIGTERM, cancel);
  while (!done) {
    qv::runMainLoopUntil([&] { return done.load(); }, std::chrono::milliseconds(200));
    const std::uint64_t total = reading.bytesTotal, doneSoFar = reading.bytesDone;
    display.setBytes(group.identifier, doneSoFar, total);
    display.update(group.identifier, total ? static_cast<std::int64_t>(doneSoFar * 100 / total) : 0,
                   reading.currentFile());
  }
  worker.join();
  qv::removeSignalHandler(sigint);
  qv::removeSignalHandler(sigterm);
  display.end(group.identifier);

  // A refused restore leaves no empty folder of its own behind.
  if (restoring && madeFolder && reading.filesHandled == 0) {
    std::error_code ec;
    if (fs::is_empty(restoreFolder, ec)) fs::remove(restoreFolder, ec);
  }
  report(reading, restoring, interrupted, options.json);
  if (interrupted) return 130;
  return reading.errors.empty() ? 0 : 1;
}

int QVRestoreCommand::chooseVersion(QVBackupTarget& target, const QVGroup& group, const QVCommandOptions& options,
                                    std::string& version) {
  // The newest complete version, or the one asked for; a partial one only when asked for.
  const std::vector<QVVersionName> versions =
      qv::versionsInListing(target.entriesForReading(group).value_or(std::vector<std::string>{}),
                            qv::partialVersionsInJournal(group.identifier));
  std::optional<QVVersionName> chosen;
  if (!options.version) {
    if (versions.empty())
      return fail("no version of group " + qv::quoted(group.title) + " could be found at its destination", 1);
    chosen = qv::newestCompleteVersion(versions);
    if (!chosen)
      return fail("group " + qv::quoted(group.title) +
                      " has no complete version, only partial ones, whose runs were "
                      "cancelled or failed; name one with --version (the newest is " +
                      versions.back().name + ")",
                  1);
  } else {
    std::string why;
    bool usage = false;
    chosen = qv::findVersion(versions, *options.version, &why, &usage);
    // A whole name is read as it is, also where the listing does not show it (a server may list a
    // group's folder in part); reading then tells whether it is there.
    for (const std::string& name : {*options.version, *options.version + ".backup"})
      if (!chosen && !usage && (qv::isVersionName(name) || qv::isPartialVersionName(name)))
        chosen = QVVersionName{name, qv::isPartialVersionName(name)};
    if (!chosen) return fail(why + " of group " + qv::quoted(group.title), usage ? 2 : 1);
  }
  version = chosen->name;
  if (chosen->partial)
    m_err << kProgram << ": warning: version " << version << " is partial: its run was cancelled or failed, so it "
          << "may lack files" << std::endl;
  return 0;
}

void QVRestoreCommand::report(Reading& reading, bool restoring, bool interrupted, bool json) {
  if (json) {
    nlohmann::json result = {{"groupID", reading.group.identifier},
                             {"groupTitle", reading.group.title},
                             {"version", reading.version},
                             {"bytesRead", reading.bytesDone.load()},
                             {"interrupted", interrupted}};
    result[restoring ? "filesRestored" : "filesChecked"] = reading.filesHandled;
    if (restoring) result["to"] = reading.restoreFolder, result["bytesWritten"] = reading.bytesKept;
    nlohmann::json problems = nlohmann::json::array();
    for (const auto& problem : reading.errors) problems.push_back({{"path", problem.path}, {"error", problem.text}});
    result["errors"] = problems;
    if (!restoring)
      for (const char* kind : {"changed", "added", "gone"})
        result[std::string(kind) + "Since"] = reading.reported[kind];
    m_out << result.dump(2, ' ', false, nlohmann::json::error_handler_t::replace) << "\n";
  } else {
    for (const auto& problem : reading.errors)
      m_err << kProgram << ": "
            << qv::singleLine(problem.path.empty() ? problem.text : problem.path + ": " + problem.text) << std::endl;
    if (restoring) {
      m_out << "restored " << qv::countText(reading.filesHandled, "file") << " (" << qv::sizeText(reading.bytesKept)
            << ") of version " << reading.version << " into " << reading.restoreFolder << "\n";
    } else {
      m_out << "checked " << qv::countText(reading.filesHandled, "file") << " of version " << reading.version << ", "
            << qv::sizeText(reading.bytesDone) << " read; " << reading.errors.size()
            << (reading.errors.size() == 1 ? " error" : " errors") << "; " << reading.reported["changed"].size()
            << " changed since, " << reading.reported["added"].size() << " added since, "
            << reading.reported["gone"].size() << " no longer in the source\n";
      for (const char* kind : {"changed", "added", "gone"})
        for (const auto& path : reading.reported[kind]) m_out << "  " << kind << ": " << qv::singleLine(path) << "\n";
    }
  }
}

int QVRestoreCommand::fail(const std::string& line, int status) {
  m_err << kProgram << ": " << qv::singleLine(line) << std::endl;
  return status;
}

int QVRestoreCommand::listFiles(QVBackupTarget& target, const QVGroup& group, const std::string& version,
                                const QVCommandOptions& options) {
  const std::string given = options.paths.empty() ? "" : options.paths.front();
  const std::string folder = given.empty() ? "" : pathInVersion(group, given);
  if (!given.empty() && folder.empty()) return fail(qv::quoted(given) + " is not a path inside version " + version, 2);
  QVError error;
  VersionReader reader(target, group, version);
  std::optional<std::vector<QVVersionEntry>> entries = target.contentsOfVersion(group, version, folder, &error);
  if (!entries && !folder.empty()) {
    // A file: shown by itself.
    QVError notFolder;
    if (auto member = reader.find(folder, &notFolder); member && !member->entry.isDirectory)
      entries = std::vector<QVVersionEntry>{member->entry};
  }
  if (!entries)
    return fail(qv::quoted(given.empty() ? version : given) + " could not be listed in version " + version + ": " +
                    describe(error),
                1);
  std::sort(entries->begin(), entries->end(), [](const auto& a, const auto& b) { return a.name < b.name; });
  if (options.json) {
    nlohmann::json array = nlohmann::json::array();
    for (const auto& entry : *entries) {
      nlohmann::json object = {{"name", entry.name},
                               {"path", joined(folder, entry.name)},
                               {"kind", entry.symbolicLinkTarget ? "link"
                                        : entry.isDirectory      ? "folder"
                                                                 : "file"},
                               {"size", entry.size}};
      object["modified"] = entry.modificationTimeNanoseconds
                               ? nlohmann::json(qv::iso8601(QVDate(std::chrono::duration_cast<QVDate::duration>(
                                     std::chrono::nanoseconds(*entry.modificationTimeNanoseconds)))))
                               : nlohmann::json(nullptr);
      if (entry.symbolicLinkTarget) object["linkTarget"] = *entry.symbolicLinkTarget;
      array.push_back(std::move(object));
    }
    m_out << nlohmann::json({{"group", group.title}, {"version", version}, {"folder", folder}, {"entries", array}})
                 .dump(2, ' ', false, nlohmann::json::error_handler_t::replace)
          << "\n";
    return 0;
  }
  m_out << "version " << version << " of group " << qv::quoted(group.title)
        << (folder.empty() ? std::string() : ", folder " + qv::quoted(folder)) << ":\n";
  if (entries->empty()) m_out << "  (empty)\n";
  for (const auto& entry : *entries) {
    std::string name = qv::singleLine(entry.name);
    if (entry.symbolicLinkTarget)
      name += " -> " + qv::singleLine(*entry.symbolicLinkTarget);
    else if (entry.isDirectory)
      name += "/";
    const std::string size = entry.isDirectory || entry.symbolicLinkTarget ? "" : std::to_string(entry.size);
    const std::string time = entry.modificationTimeNanoseconds ? localTime(*entry.modificationTimeNanoseconds) : "";
    char line[64];
    std::snprintf(line, sizeof line, "  %14s  %-19s  ", size.c_str(), time.c_str());
    m_out << line << name << "\n";
  }
  return 0;
}
