#include "targets/QVFTPBackupTarget.h"

#include <curl/curl.h>
#include <cxxabi.h>
#include <fcntl.h>
#include <glib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <system_error>
#include <typeinfo>
#include <utility>

#include "platform/QVFoundation.h"
#include "platform/QVLocalization.h"
#include "platform/QVLog.h"

namespace fs = std::filesystem;

namespace {

// What libcurl hands back to the read callback during one upload: the destination and the open file.
struct UploadContext {
  QVFTPBackupTarget* target = nullptr;
  FILE* file = nullptr;
};

}  // namespace

struct QVFTPBackupTarget::Curl {
  CURL* handle = nullptr;
  // Lives as long as the handle that points at it; its file is open only during one upload.
  UploadContext upload;
  // The handle is driven through this multi handle (made on first use): see perform().
  CURLM* multi = nullptr;
  Curl() : handle(curl_easy_init()) {}
  ~Curl() {
    if (multi) curl_multi_cleanup(multi);
    if (handle) curl_easy_cleanup(handle);
  }
  Curl(const Curl&) = delete;
  Curl& operator=(const Curl&) = delete;
};

namespace {

size_t readCallback(char* buffer, size_t size, size_t count, void* userData) {
  auto* context = static_cast<UploadContext*>(userData);
  // Returning 0 ends the upload at once: what was sent so far stays on the server.
  if (context->target->isCancelled()) return 0;
  if (!context->file) return CURL_READFUNC_ABORT;
  const size_t read = std::fread(buffer, 1, size * count, context->file);
  context->target->setProgressSize(context->target->progressSize() + read);
  return read;
}

// A listing larger than this is refused (the transfer fails), not held: even a group folder with the
// most versions a group may keep lists in a small part of it.
constexpr std::size_t kMaxListingSize = 64u << 20;

size_t writeCallback(char* data, size_t size, size_t count, void* userData) {
  auto* buffer = static_cast<std::string*>(userData);
  if (buffer->size() + size * count > kMaxListingSize) return 0;
  buffer->append(data, size * count);
  return size * count;
}

double absoluteTime() {
  using namespace std::chrono;
  return duration<double>(system_clock::now().time_since_epoch()).count();
}

// Plain ASCII, every character below 128: such a title can name a folder on any server.
bool isASCII(const std::string& text) {
  for (unsigned char c : text)
    if (c >= 0x80) return false;
  return true;
}

// Reading back: a transfer that the destination cancelled ends at once.
int cancelCheck(void* target, curl_off_t, curl_off_t, curl_off_t, curl_off_t) {
  return static_cast<QVFTPBackupTarget*>(target)->isCancelled() ? 1 : 0;
}

size_t sinkCallback(char* data, size_t size, size_t count, void* sink) {
  return (*static_cast<const QVDataSink*>(sink))(data, size * count) ? size * count : 0;
}

// The size field (the fifth) of a long-listing line; 0 when there is none.
std::uint64_t sizeInListingLine(const std::string& line) {
  std::size_t at = 0;
  for (int field = 0; field < 4; ++field) {
    at = line.find_first_not_of(' ', line.find(' ', line.find_first_not_of(' ', at)));
    if (at == std::string::npos) return 0;
  }
  return std::strtoull(line.c_str() + at, nullptr, 10);
}

}  // namespace

QVFTPBackupTarget::QVFTPBackupTarget(const QVTarget& options) : QVBackupTarget(options) {
  curl_global_init(CURL_GLOBAL_ALL);
  m_curl = std::make_unique<Curl>();
  CURL* curl = m_curl->handle;
  if (!curl) {
    // Nothing can be sent without a handle: the destination is unusable from the start.
    m_curlCodeError = CURLE_FAILED_INIT;
    return;
  }
  // No user name means no credentials at all: libcurl then logs in anonymously.
  if (std::optional<std::string> user = username()) {
    const std::string credentials = *user + ":" + password().value_or("");
    curl_easy_setopt(curl, CURLOPT_USERPWD, credentials.c_str());  // libcurl keeps its own copy
  }
  curl_easy_setopt(curl, CURLOPT_READFUNCTION, readCallback);
  curl_easy_setopt(curl, CURLOPT_WRITEFUNCTION, writeCallback);
  curl_easy_setopt(curl, CURLOPT_DIRLISTONLY, 1L);
  curl_easy_setopt(curl, CURLOPT_FTP_CREATE_MISSING_DIRS, 1L);
  // 0, when no port is given, is the scheme's own port.
  curl_easy_setopt(curl, CURLOPT_PORT, static_cast<long>(m_options.port.value_or(0)));
  curl_easy_setopt(curl, CURLOPT_WRITEDATA, &m_buffer);
}

QVFTPBackupTarget::~QVFTPBackupTarget() = default;

int QVFTPBackupTarget::perform() {
  if (!m_curl->handle) return CURLE_FAILED_INIT;
  // What curl_easy_perform does, with a shorter poll: when libcurl drives a transfer itself, it looks at
  // a new passive data connection only once a second (Debian's 7.88), so many small files would each
  // wait that second. Driven from here, they do not; the connection stays cached in the multi handle.
  if (!m_curl->multi && !(m_curl->multi = curl_multi_init())) return CURLE_FAILED_INIT;
  if (curl_multi_add_handle(m_curl->multi, m_curl->handle) != CURLM_OK) return CURLE_FAILED_INIT;
  CURLcode result = CURLE_OK;
  for (int running = 1; running;) {
    if (curl_multi_perform(m_curl->multi, &running) != CURLM_OK) {
      result = CURLE_FAILED_INIT;
      break;
    }
    if (running) curl_multi_poll(m_curl->multi, nullptr, 0, 10, nullptr);
  }
  int pending = 0;
  while (CURLMsg* message = curl_multi_info_read(m_curl->multi, &pending))
    if (message->msg == CURLMSG_DONE) result = message->data.result;
  curl_multi_remove_handle(m_curl->multi, m_curl->handle);
  return static_cast<int>(result);
}

std::string QVFTPBackupTarget::className() const {
  const char* mangled = typeid(*this).name();
  int status = 0;
  char* demangled = abi::__cxa_demangle(mangled, nullptr, nullptr, &status);
  std::string name = status == 0 && demangled ? demangled : mangled;
  std::free(demangled);
  return name;
}

std::string QVFTPBackupTarget::urlScheme() const { return "ftp"; }

bool QVFTPBackupTarget::isAvailable() { return m_curlCodeError == 0; }

std::string QVFTPBackupTarget::path() const {
  const std::string& base = m_options.path;
  return !base.empty() && base.back() == '/' ? base : base + "/";
}

std::string QVFTPBackupTarget::curlUrlPrefixWithoutPath() const {
  return qv::stringWithFormat("%@://%@/", {urlScheme(), m_options.server.value_or("")});
}

std::string QVFTPBackupTarget::curlUrlPrefix() const { return curlUrlPrefixWithoutPath() + path(); }

std::string QVFTPBackupTarget::nameForGroup(const QVGroup& group) const {
  return isASCII(group.title) ? group.title : group.identifier;
}

std::optional<std::vector<std::string>> QVFTPBackupTarget::directoryListingForPath(const std::string& path,
                                                                                   bool listOnly) {
  std::string url = curlUrlPrefixWithoutPath() + pathWithReplacingInvalidCharactersInPath(path);
  if (url.back() != '/') url += '/';
  m_buffer.clear();
  if (CURL* curl = m_curl->handle) {
    curl_easy_setopt(curl, CURLOPT_URL, url.c_str());
    curl_easy_setopt(curl, CURLOPT_DIRLISTONLY, listOnly ? 1L : 0L);
    curl_easy_setopt(curl, CURLOPT_FTP_CREATE_MISSING_DIRS, 0L);
  }
  const int result = perform();
  if (result != 0) {
    QVLog(qv::stringWithFormat("Curl failed with error: %d", {result}));
    return std::nullopt;
  }
  std::vector<std::string> lines;
  // A listing that cannot be read as UTF-8 holds no names this destination could use.
  if (!g_utf8_validate(m_buffer.data(), static_cast<gssize>(m_buffer.size()), nullptr)) {
    qv::debugLog("targets.ftp", "the listing of " + url + " is not valid UTF-8; taken as empty");
    return lines;
  }
  // Line feeds only: a carriage return before one stays part of its line.
  std::size_t start = 0;
  for (std::size_t end; (end = m_buffer.find('\n', start)) != std::string::npos; start = end + 1)
    lines.push_back(m_buffer.substr(start, end - start));
  lines.push_back(m_buffer.substr(start));
  if (lines.back().empty()) lines.pop_back();
  return lines;
}

std::optional<std::vector<std::string>> QVFTPBackupTarget::entriesInDirectoryForItem(const QVGroup& group) {
  return directoryListingForPath(path() + nameForGroup(group), true);
}

std::vector<QVFTPListingEntry> QVFTPBackupTarget::parseDirectoryListing(const std::vector<std::string>& lines) {
  std::vector<QVFTPListingEntry> entries;
  entries.reserve(lines.size());
  for (const std::string& line : lines) {
    bool isDirectory;
    if (line.starts_with("d"))
      isDirectory = true;
    else if (line.starts_with("-"))
      isDirectory = false;
    else
      continue;  // links, "total" lines and anything else
    // permissions, links, owner, group, size, month, day, time or year: the name follows the eighth
    // field's end, with everything after it, spaces included.
    std::string name;
    int fieldEnds = 0;
    for (std::size_t i = 1; i < line.size(); ++i) {
      if (line[i] == ' ' && line[i - 1] != ' ' && ++fieldEnds == 8) {
        name = line.substr(i + 1);
        break;
      }
    }
    if (name.empty() || name == "." || name == "..") continue;
    entries.push_back({name, isDirectory});
  }
  return entries;
}

bool QVFTPBackupTarget::performCommands(const std::vector<std::string>& commands) {
  CURL* curl = m_curl->handle;
  if (!curl) return false;
  // Opens or refreshes the connection; its answer does not matter.
  curl_easy_setopt(curl, CURLOPT_URL, curlUrlPrefixWithoutPath().c_str());
  perform();
  curl_slist* list = nullptr;
  for (const std::string& command : commands) list = curl_slist_append(list, command.c_str());
  // libcurl sends the commands, in order, before the transfer of this perform.
  curl_easy_setopt(curl, CURLOPT_QUOTE, list);
  const int result = perform();
  if (result != 0) QVLog(qv::stringWithFormat("Error (%d) removing", {result}));
  curl_easy_setopt(curl, CURLOPT_QUOTE, static_cast<curl_slist*>(nullptr));
  curl_slist_free_all(list);
  return result == 0;
}

bool QVFTPBackupTarget::removeItemWithPath(const std::string& path) {
  // A listing that fails reads as an empty folder.
  const std::vector<QVFTPListingEntry> entries =
      parseDirectoryListing(directoryListingForPath(path, false).value_or(std::vector<std::string>{}));
  std::vector<std::string> commands;
  for (const QVFTPListingEntry& entry : entries) {
    if (entry.isDirectory) {
      // A folder that could not be emptied is left standing, and the others still go.
      if (removeItemWithPath(qv::stringWithFormat("%@%@/", {path, entry.name})))
        commands.push_back("RMD " + path + entry.name);
    } else {
      commands.push_back("DELE " + path + entry.name);
    }
  }
  // The commands name the path as it is: only listing URLs are escaped.
  return commands.empty() || performCommands(commands);
}

bool QVFTPBackupTarget::removeDirectoryWithPath(const std::string& path) { return performCommands({"RMD " + path}); }

bool QVFTPBackupTarget::removeEntry(const std::string& entry, const QVGroup& forItem) {
  const std::string entryPath = qv::stringWithFormat("%@%@/%@/", {path(), nameForGroup(forItem), entry});
  if (!removeItemWithPath(entryPath)) return false;
  return removeDirectoryWithPath(entryPath);
}

bool QVFTPBackupTarget::renameEntry(const std::string& entry, const std::string& toName, const QVGroup& forItem) {
  const std::string group = path() + nameForGroup(forItem) + "/";
  // RNTO onto an existing folder fails on the servers that keep folders apart from files; a listing
  // first keeps the rule everywhere.
  auto names = entriesInDirectoryForItem(forItem);
  if (!names || std::find(names->begin(), names->end(), toName) != names->end()) return false;
  return performCommands({"RNFR " + group + entry, "RNTO " + group + toName});
}

void QVFTPBackupTarget::removeRootEntryForGroup(const QVGroup& group) {
  // Never emptied first: a folder that still holds other versions stays.
  const std::string groupPath = qv::stringWithFormat("%@%@/", {path(), nameForGroup(group)});
  if (!removeDirectoryWithPath(groupPath))
    QVLog(qv::stringWithFormat("%@ warning: Could not remove directory -%@", {className(), groupPath}));
}

int QVFTPBackupTarget::uploadFile(const std::string& path, std::uint64_t size, const std::string& url) {
  // A file that cannot be opened is not sent at all: no transfer starts, so nothing is created on the
  // server, and the result is libcurl's own code for local data that cannot be read.
  // Only a regular file is opened, without waiting: a pipe would block the run.
  const int fd = qv::openRegularFileForReading(path);
  FILE* file = fd >= 0 ? ::fdopen(fd, "r") : nullptr;
  if (!file) {
    if (fd >= 0) ::close(fd);
    qv::debugLog("targets.ftp", "cannot open " + path + " for upload");
    return CURLE_READ_ERROR;
  }
  UploadContext& context = m_curl->upload;
  context = {this, file};
  if (CURL* curl = m_curl->handle) {
    curl_easy_setopt(curl, CURLOPT_READDATA, &context);
    curl_easy_setopt(curl, CURLOPT_INFILESIZE_LARGE, static_cast<curl_off_t>(size));
    curl_easy_setopt(curl, CURLOPT_URL, pathWithReplacingInvalidCharactersInPath(url).c_str());
  }
  // Missing folders on the server are made by libcurl while the handle still asks it to.
  const int result = perform();
  std::fclose(file);
  context.file = nullptr;
  return result;
}

std::string QVFTPBackupTarget::errorStringForCode(int code) const {
  if (code == CURLE_OPERATION_TIMEDOUT)
    return qv::stringWithFormat(QVLocalizedString("Could not connect to server %@", this),
                                {curlUrlPrefixWithoutPath()});
  return curl_easy_strerror(static_cast<CURLcode>(code));
}

void QVFTPBackupTarget::setProgressSize(std::uint64_t progressSize) {
  m_progressSize = progressSize;
  const double now = absoluteTime();
  if (now - m_lastProgressDate > 2.0) {
    // An item of no bytes has nothing to measure: it reports 0.0 until it ends with 1.0.
    const double fraction =
        m_totalSize == 0 ? 0.0 : static_cast<double>(m_progressSize) / static_cast<double>(m_totalSize);
    if (delegate()) delegate()->backupProgress(fraction);
    m_lastProgressDate = now;
  }
}

bool QVFTPBackupTarget::backupItem(const std::string& path, const QVGroup& ofGroup, const std::string& withName,
                                   const std::string& toEntry, QVError* error) {
  auto report = [this](double fraction) {
    if (delegate()) delegate()->backupProgress(fraction);
  };
  report(0.0);
  if (!QVBackupTarget::backupItem(path, ofGroup, withName, toEntry, error)) {
    report(1.0);
    return false;
  }
  // An item with nothing to upload is skipped and counts as done.
  if (!isPathValidForUpload(path)) {
    report(1.0);
    return true;
  }

  // The connection check. Upload mode is on and the URL names no file, so a reachable server lets
  // libcurl connect and log in and then refuses the transfer with CURLE_URL_MALFORMAT (3): results up
  // to 3 pass. The timeout set here stays on the handle and bounds every later transfer, uploads
  // included: a server that stops answering ends the run instead of holding it.
  if (CURL* curl = m_curl->handle) {
    curl_easy_setopt(curl, CURLOPT_URL, curlUrlPrefixWithoutPath().c_str());
    curl_easy_setopt(curl, CURLOPT_TIMEOUT, 20L);
  }
  int lastCode = perform();
  bool succeeded = false;
  bool isDirectory = false;
  bool reportPath = true;
  if (lastCode > CURLE_URL_MALFORMAT) {
    m_curlCodeError = lastCode;
    qv::debugLog("targets.ftp",
                 "connection check of " + curlUrlPrefixWithoutPath() + " failed: " + std::to_string(lastCode));
  } else {
    std::string url = curlUrlPrefix();
    url = qv::urlStringByAppendingPathComponent(url, nameForGroup(ofGroup));
    url = qv::urlStringByAppendingPathComponent(url, toEntry);
    m_totalSize = qv::sizeOfItemAtPath(path);
    m_progressSize = 0;
    if (qv::fileExistsAtPath(path, &isDirectory)) {
      lastCode = 0;
      m_lastProgressDate = absoluteTime();
      if (isDirectory) url = qv::urlStringByAppendingPathComponent(url, withName);
      // One walked path: a file is uploaded; folders send nothing of their own, the uploads of their
      // files make them on the server. Answers false once the run is cancelled.
      auto handle = [&](const std::string& relative) {
        if (isCancelled()) return false;
        const std::string local = isDirectory ? qv::stringByAppendingPathComponent(path, relative) : path;
        bool localIsDirectory = false;
        if (!qv::fileExistsAtPath(local, &localIsDirectory) || localIsDirectory) return true;
        struct stat info {};
        const std::uint64_t size = ::stat(local.c_str(), &info) == 0 ? static_cast<std::uint64_t>(info.st_size) : 0;
        const std::string uploadURL = qv::urlStringByAppendingPathComponent(url, isDirectory ? relative : withName);
        lastCode = uploadFile(local, size, uploadURL);
        if (lastCode != 0) {
          qv::debugLog("targets.ftp", "upload of " + local + " failed: " + std::to_string(lastCode));
          if (lastCode == CURLE_READ_ERROR) noteLeftOut({local});  // for the run's report
        } else {
          noteWritten(1, size);
          // One file that arrived makes the item a success, whatever fails after it (deliberately lenient).
          succeeded = true;
        }
        return true;
      };
      // A directory's descendants depth first, parents before their contents; a folder that cannot be
      // read is left out and the walk goes on. A file is a walk of itself alone.
      if (isDirectory) {
        qv::walkDirectory(
            path, [&](const std::string& relative, bool) { return handle(relative); },
            [&](const std::string& relative) { noteLeftOut({qv::stringByAppendingPathComponent(path, relative)}); });
      } else {
        handle("");
      }
      reportPath = isDirectory;
    }
  }

  if (!succeeded && error)
    *error = errorWithStatusCode(m_curlCodeError, errorStringForCode(lastCode),
                                 reportPath ? std::optional<std::string>(path) : std::nullopt);
  report(1.0);
  return succeeded;
}

void QVFTPBackupTarget::backupWillStart() {
  if (m_curl->handle) curl_easy_setopt(m_curl->handle, CURLOPT_UPLOAD, 1L);
}

void QVFTPBackupTarget::backupDidEnd() {
  if (m_curl->handle) curl_easy_setopt(m_curl->handle, CURLOPT_UPLOAD, 0L);
}

std::string QVFTPBackupTarget::versionPath(const QVGroup& group, const std::string& version,
                                           const std::string& relativePath) const {
  std::string result = path() + nameForGroup(group) + "/" + version;
  return relativePath.empty() ? result : result + "/" + relativePath;
}

void QVFTPBackupTarget::setReadingBack(bool on) {
  CURL* curl = m_curl->handle;
  if (!curl) return;
  curl_easy_setopt(curl, CURLOPT_LOW_SPEED_LIMIT, on ? 1L : 0L);
  curl_easy_setopt(curl, CURLOPT_LOW_SPEED_TIME, on ? 60L : 0L);
  curl_easy_setopt(curl, CURLOPT_XFERINFOFUNCTION, on ? cancelCheck : nullptr);
  curl_easy_setopt(curl, CURLOPT_XFERINFODATA, on ? this : nullptr);
  curl_easy_setopt(curl, CURLOPT_NOPROGRESS, on ? 0L : 1L);
}

std::optional<std::vector<QVVersionEntry>> QVFTPBackupTarget::contentsOfVersion(const QVGroup& group,
                                                                                const std::string& version,
                                                                                const std::string& relativePath,
                                                                                QVError* error) {
  setReadingBack(true);
  auto lines = directoryListingForPath(versionPath(group, version, relativePath), false);
  setReadingBack(false);
  if (!lines) {
    if (error) *error = errorWithStatusCode(-36, "The folder cannot be listed on the server", relativePath);
    return std::nullopt;
  }
  std::vector<QVVersionEntry> entries;
  for (const std::string& line : *lines) {
    // One line at a time, so each entry keeps the size that its own line gives.
    for (const QVFTPListingEntry& listed : parseDirectoryListing({line})) {
      QVVersionEntry entry;
      entry.name = listed.name;
      entry.isDirectory = listed.isDirectory;
      entry.size = listed.isDirectory ? 0 : sizeInListingLine(line);
      entries.push_back(std::move(entry));
    }
  }
  return entries;
}

bool QVFTPBackupTarget::readFileOfVersion(const QVGroup& group, const std::string& version,
                                          const std::string& relativePath, const QVDataSink& sink, QVError* error) {
  CURL* curl = m_curl->handle;
  int result = CURLE_FAILED_INIT;
  if (curl) {
    const std::string url = curlUrlPrefixWithoutPath() +
                            pathWithReplacingInvalidCharactersInPath(versionPath(group, version, relativePath));
    setReadingBack(true);
    curl_easy_setopt(curl, CURLOPT_URL, url.c_str());
    curl_easy_setopt(curl, CURLOPT_WRITEFUNCTION, sinkCallback);
    curl_easy_setopt(curl, CURLOPT_WRITEDATA, &sink);
    result = perform();
    curl_easy_setopt(curl, CURLOPT_WRITEFUNCTION, writeCallback);
    curl_easy_setopt(curl, CURLOPT_WRITEDATA, &m_buffer);
    setReadingBack(false);
  }
  if (result == CURLE_OK) return true;
  if (error)
    *error = isCancelled() ? errorWithStatusCode(-128, std::nullopt, relativePath)
                           : errorWithStatusCode(result, errorStringForCode(result), relativePath);
  return false;
}
