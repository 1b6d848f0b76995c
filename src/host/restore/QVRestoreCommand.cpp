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
#include <nlohmann/json.hpp>
#include <ostream>
#include <set>
#include <thread>

#include "agent/QVBackupAgent.h"
#include "agent/QVBackupAgentRun.h"
#include "host/cli/QVHostArguments.h"
#include "host/cli/QVProgressDisplay.h"
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

// Sets a restored file's or folder's mode and time where the destination kept them.
void applyAttributes(int fd, const std::string& path, const QVVersionEntry& entry) {
  if (entry.mode) fd >= 0 ? ::fchmod(fd, *entry.mode) : ::chmod(path.c_str(), *entry.mode);
  if (entry.modificationTimeNanoseconds) {
    const std::int64_t ns = *entry.modificationTimeNanoseconds;
    const timespec times[2] = {{0, UTIME_OMIT}, {static_cast<time_t>(ns / 1000000000), static_cast<long>(ns % 1000000000)}};
    fd >= 0 ? ::futimens(fd, times) : ::utimensat(AT_FDCWD, path.c_str(), times, AT_SYMLINK_NOFOLLOW);
  }
}

}  // namespace

QVRestoreCommand::QVRestoreCommand(QVBackupAgent& agent, std::ostream& out, std::ostream& err)
    : m_agent(agent), m_out(out), m_err(err) {}

int QVRestoreCommand::run(const QVCommandOptions& options) {
  const bool restoring = options.command == QVCommand::restore;
  auto fail = [&](const std::string& line, int status) {
    m_err << kProgram << ": " << qv::singleLine(line) << std::endl;
    return status;
  };
  auto found = qv::findGroup(m_agent, options.group);
  if (!found.record) return fail(found.error, 2);
  const QVGroup group = *found.record;
  std::string restoreFolder;
  if (restoring) {
    restoreFolder = qv::absolutePath(options.restoreFolder);
    std::error_code ec;
    if (fs::exists(fs::symlink_status(restoreFolder, ec)) &&
        (!fs::is_directory(restoreFolder, ec) || !fs::is_empty(restoreFolder, ec)))
      return fail(qv::quoted(restoreFolder) + " is not an empty folder; restore never overwrites anything", 2);
  }
  if (m_agent.isBackingUpGroupWithID(group.identifier))
    return fail("group " + qv::quoted(group.title) + " is being backed up; try again when it has finished", 1);
  std::unique_ptr<QVBackupTarget> target =
      group.target ? m_agent.backupTargetWithIdentifier(*group.target) : nullptr;
  if (!target) return fail("group " + qv::quoted(group.title) + " has no usable destination", 1);

  // The newest version, or the one asked for.
  std::string version = options.version.value_or("");
  if (version.empty()) {
    std::vector<std::string> versions;
    for (const auto& name : target->entriesForReading(group).value_or(std::vector<std::string>{}))
      if (qv::isVersionName(name)) versions.push_back(name);
    if (versions.empty())
      return fail("no version of group " + qv::quoted(group.title) + " could be found at its destination", 1);
    version = *std::max_element(versions.begin(), versions.end());
  } else if (!qv::isVersionName(version)) {
    return fail(qv::quoted(version) + " is not a version name (yyyyMMddHHmmss.backup)", 2);
  }
  if (restoring) {
    std::error_code ec;
    fs::create_directories(restoreFolder, ec);
    if (ec) return fail("cannot make " + qv::quoted(restoreFolder) + ": " + ec.message(), 1);
  }

  // The reading runs on a thread of its own; the main loop shows its progress and hears Ctrl-C.
  QVProgressDisplay display(stderr, !options.json);
  std::atomic<bool> done{false};
  std::atomic<std::uint64_t> bytesDone{0}, bytesTotal{0};
  std::vector<Problem> errors;  // written by the worker, read after it ended
  std::map<std::string, std::vector<std::string>> reported;  // verify: changed, added, gone
  std::uint64_t filesHandled = 0;

  auto restore = [&](VersionReader& reader) {
    std::vector<Member> plan;
    QVError error;
    if (options.paths.empty()) {
      if (!reader.walk("", plan, errors, &error)) errors.push_back({"", describe(error)});
    }
    for (const auto& given : options.paths) {
      const std::string path = normalised(given);
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
      if (target->isCancelled()) break;
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
      int fd = ::open(local.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
      if (fd < 0) {
        errors.push_back({member.path, std::strerror(errno)});
        continue;
      }
      bool written = true;
      int writeError = 0;
      const bool read = reader.read(member.path, [&](const char* bytes, std::size_t length) {
        for (std::size_t at = 0; written && at < length;) {
          ssize_t n = ::write(fd, bytes + at, length - at);
          if (n < 0 && errno == EINTR) continue;
          written = n > 0;
          if (!written) writeError = n < 0 ? errno : ENOSPC;
          at += n > 0 ? static_cast<std::size_t>(n) : 0;
        }
        bytesDone += length;
        return written;
      }, &error);
      if (read && written) applyAttributes(fd, local, member.entry);
      ::close(fd);
      if (!read || !written) {
        ::unlink(local.c_str());  // a file half restored is not restored
        if (!target->isCancelled())
          errors.push_back({member.path, written ? describe(error) : "cannot be written here: " + std::string(std::strerror(writeError))});
        continue;
      }
      ++filesHandled;
    }
    // Folders last, deepest first, so their times are not changed again by what went into them.
    for (auto it = folders.rbegin(); it != folders.rend(); ++it)
      applyAttributes(-1, restoreFolder + "/" + (*it)->path, (*it)->entry);
  };

  auto verify = [&](VersionReader& reader) {
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
      if (target->isCancelled()) break;
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
      int fd = ::open(source.c_str(), O_RDONLY | O_CLOEXEC);
      if (fd < 0) {
        errors.push_back({member.path, "the source cannot be read: " + std::string(std::strerror(errno))});
        continue;
      }
      bool same = true;
      std::vector<char> mine;
      const bool read = reader.read(member.path, [&](const char* bytes, std::size_t length) {
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
      }, &error);
      char extra;
      if (read && same && ::read(fd, &extra, 1) > 0) same = false;  // the source is longer
      ::close(fd);
      if (!read) {
        if (!target->isCancelled()) errors.push_back({member.path, "cannot be read at the destination: " + describe(error)});
      } else if (!same) {
        errors.push_back({member.path, "differs from its source"});
      }
      ++filesHandled;
    }
    // Sources the version should hold: missing when unchanged since, added when newer.
    for (const auto& [name, item] : sourceOfItem) {
      if (target->isCancelled()) break;
      std::vector<std::string> files;
      std::error_code ec;
      if (fs::is_regular_file(fs::symlink_status(item, ec))) files.push_back(item);
      else if (fs::is_directory(fs::symlink_status(item, ec)))
        for (fs::recursive_directory_iterator it(item, fs::directory_options::skip_permission_denied, ec), end;
             !ec && it != end; it.increment(ec))
          if (it->is_regular_file(ec) && !it->is_symlink(ec)) files.push_back(it->path().string());
      for (const auto& file : files) {
        if (inVersion.count(file)) continue;
        const std::string shown = name + file.substr(item.size());
        struct stat info {};
        if (::stat(file.c_str(), &info) == 0 && info.st_mtime < madeAt) errors.push_back({shown, "missing from the version"});
        else reported["added"].push_back(shown);
      }
    }
  };

  // This process only reads back: no schedule may start a backup in it meanwhile.
  m_agent.stopTimers();
  display.begin(group.identifier, group.title);
  std::thread worker([&] {
    VersionReader reader(*target, group, version);
    restoring ? restore(reader) : verify(reader);
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
    const std::uint64_t total = bytesTotal;
    display.update(group.identifier, total ? static_cast<std::int64_t>(bytesDone * 100 / total) : 0);
  }
  worker.join();
  qv::removeSignalHandler(sigint);
  qv::removeSignalHandler(sigterm);
  display.end(group.identifier);

  if (options.json) {
    nlohmann::json result = {{"group", group.title}, {"version", version}, {"bytesRead", bytesDone.load()},
                             {"interrupted", interrupted}};
    result[restoring ? "filesRestored" : "filesChecked"] = filesHandled;
    if (restoring) result["to"] = restoreFolder;
    nlohmann::json problems = nlohmann::json::array();
    for (const auto& problem : errors) problems.push_back({{"path", problem.path}, {"error", problem.text}});
    result["errors"] = problems;
    if (!restoring)
      for (const char* kind : {"changed", "added", "gone"}) result[std::string(kind) + "Since"] = reported[kind];
    m_out << result.dump(2, ' ', false, nlohmann::json::error_handler_t::replace) << "\n";
  } else {
    for (const auto& problem : errors)
      m_err << kProgram << ": " << qv::singleLine(problem.path.empty() ? problem.text : problem.path + ": " + problem.text)
            << std::endl;
    if (restoring) {
      m_out << "restored " << filesHandled << " files (" << bytesDone << " bytes) of version " << version << " into "
            << restoreFolder << "\n";
    } else {
      m_out << "checked " << filesHandled << " files of version " << version << ", " << bytesDone << " bytes read; "
            << errors.size() << (errors.size() == 1 ? " error" : " errors") << "; " << reported["changed"].size()
            << " changed since, " << reported["added"].size() << " added since, " << reported["gone"].size()
            << " no longer in the source\n";
      for (const char* kind : {"changed", "added", "gone"})
        for (const auto& path : reported[kind]) m_out << "  " << kind << ": " << qv::singleLine(path) << "\n";
    }
  }
  if (interrupted) return 130;
  return errors.empty() ? 0 : 1;
}
