#include "targets/QVDAVBackupTarget.h"

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <system_error>

#include "platform/QVFoundation.h"
#include "platform/QVLocalization.h"
#include "platform/QVLog.h"
#include "platform/QVStatusTexts.h"
#include "platform/QVXMLDocument.h"
#include "targets/QVDAVMultistatus.h"

namespace fs = std::filesystem;

namespace {
constexpr long kListingCheckTimeout = 5;  // seconds
}

QVDAVBackupTarget::QVDAVBackupTarget(const QVTarget& options)
    : QVBackupTarget(options), m_session(std::make_unique<QVURLSession>()) {
  const std::string user = username().value_or("");
  const std::string pass = password().value_or("");
  const std::string server = m_options.server.value_or("");
  m_urlString = "http://";
  m_requestURLString = "http://";
  if (!user.empty() && !pass.empty()) {
    // Written into the URL without escaping, as the destination always has; the request sends them apart.
    m_urlString += qv::stringWithFormat("%@:%@@", {user, pass});
    m_session->setCredentials(user, pass);
    qv::addRedaction("://" + user + ":" + pass + "@" + server, "://" + user + ":***@" + server);
  }
  const std::string hostAndPort = qv::stringWithFormat("%@:%@", {server, m_options.portString()});
  m_urlString += hostAndPort;
  m_requestURLString += hostAndPort;
  const std::string path = qv::stringWithFormat("/%@", {pathWithReplacingInvalidCharactersInPath(m_options.path)});
  m_urlString += path;
  m_requestURLString += path;
  m_session->setCancellationCheck([this] { return isCancelled(); });
}

QVDAVBackupTarget::~QVDAVBackupTarget() = default;

std::string QVDAVBackupTarget::errorString() const {
  std::lock_guard<std::mutex> lock(m_errorStringMutex);
  return m_errorString;
}

void QVDAVBackupTarget::setErrorString(const std::string& errorString) {
  std::lock_guard<std::mutex> lock(m_errorStringMutex);
  m_errorString = errorString;
}

bool QVDAVBackupTarget::isAvailable() { return m_errorCode == 0; }

std::string QVDAVBackupTarget::groupURL(const QVGroup& group) const {
  return qv::stringWithFormat("%@/%@/", {m_urlString, pathWithReplacingInvalidCharactersInPath(group.title)});
}

std::string QVDAVBackupTarget::requestURL(const std::string& url) const {
  if (url.compare(0, m_urlString.size(), m_urlString) == 0) return m_requestURLString + url.substr(m_urlString.size());
  return url;
}

bool QVDAVBackupTarget::validateResponseStatusCode(std::int64_t statusCode, bool allowDuplicatesDirectory) {
  if (statusCode >= 200 && statusCode <= 299) return true;
  if (allowDuplicatesDirectory && statusCode == 405) return true;
  if (statusCode == 0) {
    setErrorString(qv::stringWithFormat(QVLocalizedString("Could not connect to server %@", this), {m_urlString}));
  } else {
    setErrorString(qv::stringWithFormat(QVLocalizedString("The remote server returned an error - (%ld) %@", this),
                                        {statusCode, qv::localizedStringForStatusCode(statusCode)}));
  }
  return false;
}

std::optional<std::vector<QVVersionEntry>> QVDAVBackupTarget::entriesInReply(const std::string& reply) {
  auto document = QVXMLDocument::documentWithData(reply);
  if (!document) return std::nullopt;
  std::vector<QVXMLElement> responses = document->rootElement().elementsForName("D:response");
  std::vector<QVVersionEntry> entries;
  // The first response describes the requested collection itself.
  for (std::size_t i = 1; i < responses.size(); ++i) {
    std::vector<QVXMLElement> hrefs = responses[i].elementsForName("D:href");
    auto name = qv::stringByReplacingPercentEscapes(
        qv::lastPathComponent(hrefs.empty() ? std::string() : hrefs.front().stringValue()));
    if (!name) continue;
    QVVersionEntry entry;
    entry.name = *name;
    // Only the first propstat is looked at.
    std::vector<QVXMLElement> propstats = responses[i].elementsForName("D:propstat");
    std::vector<QVXMLElement> props = propstats.empty() ? propstats : propstats.front().elementsForName("D:prop");
    if (!props.empty()) {
      std::vector<QVXMLElement> types = props.front().elementsForName("D:resourcetype");
      entry.isDirectory = !types.empty() && !types.front().elementsForName("D:collection").empty();
      std::vector<QVXMLElement> lengths = props.front().elementsForName("D:getcontentlength");
      if (!lengths.empty()) entry.size = std::strtoull(lengths.front().stringValue().c_str(), nullptr, 10);
    }
    entries.push_back(std::move(entry));
  }
  return entries;
}

std::optional<std::vector<std::string>> QVDAVBackupTarget::collectionNamesInReply(const std::string& reply) {
  std::vector<std::string> names;
  for (const QVVersionEntry& entry : entriesInReply(reply).value_or(std::vector<QVVersionEntry>{}))
    if (entry.isDirectory) names.push_back(entry.name);
  if (names.empty()) return std::nullopt;
  return names;
}

std::optional<std::vector<std::string>> QVDAVBackupTarget::entriesInDirectoryForItem(const QVGroup& group) {
  std::string reply;
  // The HTTP status is not looked at: an error page that is not a multistatus lists nothing anyway.
  if (!m_session->sendSynchronousRequest("PROPFIND", requestURL(groupURL(group)),
                                         {{"Depth", "1"}, {"Content-Type", "application/xml"}}, nullptr, &reply,
                                         nullptr) ||
      reply.empty())
    return std::nullopt;
  return collectionNamesInReply(reply);
}

std::optional<std::vector<std::string>> QVDAVBackupTarget::entriesForReading(const QVGroup& group) {
  const std::string url = requestURL(groupURL(group));
  std::int64_t status = 0;
  std::string reply;
  if (!m_session->sendSynchronousRequest("PROPFIND", url, {{"Depth", "1"}, {"Content-Type", "application/xml"}},
                                         &status, &reply, nullptr) ||
      status / 100 != 2)
    return std::nullopt;
  return QVDAVMultistatus::collectionNamesInReply(reply, url);
}

std::string QVDAVBackupTarget::folderURL(const QVTarget& options) {
  std::string url = "http://" + qv::stringWithFormat("%@:%@", {options.server.value_or(""), options.portString()}) +
                    qv::stringWithFormat("/%@", {pathWithReplacingInvalidCharactersInPath(options.path)});
  if (url.back() != '/') url += '/';
  return url;
}

QVDAVBackupTarget::QVListingCheck QVDAVBackupTarget::checkListing(const QVTarget& options) {
  QVURLSession session;
  // A quick question: a server that does not answer within it counts as unreachable.
  session.setIdleTimeout(kListingCheckTimeout);
  if (options.user && options.pass && !options.user->empty() && !options.pass->empty())
    session.setCredentials(*options.user, *options.pass);
  std::string reply;
  if (!session.sendSynchronousRequest("PROPFIND", folderURL(options),
                                      {{"Depth", "1"}, {"Content-Type", "application/xml"}}, nullptr, &reply, nullptr))
    return QVListingCheck::unreachable;
  return QVDAVMultistatus::isReadableOnlyByNamespace(reply) ? QVListingCheck::unreadable : QVListingCheck::readable;
}

bool QVDAVBackupTarget::removeItemWithURL(const std::string& url) {
  // A 404 or 403 answer counts as removed: only a transport error fails.
  return m_session->sendSynchronousRequest("DELETE", requestURL(url), {}, nullptr, nullptr, nullptr);
}

bool QVDAVBackupTarget::removeEntry(const std::string& entry, const QVGroup& forItem) {
  return removeItemWithURL(
      qv::stringWithFormat("%@/%@/%@/", {m_urlString, pathWithReplacingInvalidCharactersInPath(forItem.title),
                                         pathWithReplacingInvalidCharactersInPath(entry)}));
}

bool QVDAVBackupTarget::renameEntry(const std::string& entry, const std::string& toName, const QVGroup& forItem) {
  auto entryURL = [&](const std::string& name) {
    return qv::stringWithFormat("%@/%@/%@/", {m_urlString, pathWithReplacingInvalidCharactersInPath(forItem.title),
                                              pathWithReplacingInvalidCharactersInPath(name)});
  };
  std::int64_t status = 0;
  if (!m_session->sendSynchronousRequest("MOVE", requestURL(entryURL(entry)),
                                         {{"Destination", requestURL(entryURL(toName))}, {"Overwrite", "F"}}, &status,
                                         nullptr, nullptr))
    return false;
  return status >= 200 && status < 300;
}

void QVDAVBackupTarget::removeRootEntryForGroup(const QVGroup& group) {
  const std::string url = groupURL(group);
  if (!removeItemWithURL(url))
    QVLog(qv::stringWithFormat("%@ warning: Could not remove directory -%@", {"QVDAVBackupTarget", url}));
}

bool QVDAVBackupTarget::makeDirectory(const std::string& url, bool allowDuplicates) {
  std::string collection = url;
  if (collection.empty() || collection.back() != '/') collection += '/';
  std::int64_t status = 0;
  QVURLError error;
  if (!m_session->sendSynchronousRequest("MKCOL", requestURL(collection), {}, &status, nullptr, &error)) {
    m_errorCode = error.code;
    status = 0;
  }
  return validateResponseStatusCode(status, allowDuplicates);
}

bool QVDAVBackupTarget::uploadFile(const std::string& path, const std::string& destination) {
  std::unique_ptr<QVInputStream> stream = QVInputStream::inputStreamWithFileAtPath(path);
  m_lastUploadHadStream = stream != nullptr;
  // Without a stream the answer is the status the previous upload left: a file that cannot be opened is
  // judged by this server's last answer.
  if (!stream) return validateResponseStatusCode(m_responseStatusCode, false);

  setIsComplete(false);
  m_responseStatusCode = 0;
  m_session->startUpload("PUT", requestURL(destination), std::move(stream), this);
  while (!isComplete()) {
    if (isCancelled()) break;
    m_session->runOnce();
  }
  if (isCancelled()) m_session->cancelUpload();
  return validateResponseStatusCode(m_responseStatusCode, false);
}

void QVDAVBackupTarget::connectionDidReceiveResponse(std::int64_t statusCode) { m_responseStatusCode = statusCode; }

void QVDAVBackupTarget::connectionDidFailWithError(const QVURLError& error) {
  setIsComplete(true);
  QVLog(qv::stringWithFormat("Upload file is failed! Error - %@ %@",
                             {error.localizedDescription, error.failingURLString}));
}

void QVDAVBackupTarget::connectionDidFinishLoading() { setIsComplete(true); }

void QVDAVBackupTarget::connectionDidSendBodyData(std::int64_t bytesWritten, std::int64_t, std::int64_t) {
  m_progressSize += static_cast<std::uint64_t>(bytesWritten);
  // An item whose size could not be measured (a link given as the item) reports 0.0 until it ends.
  const double fraction =
      m_totalSize == 0 ? 0.0 : std::min(1.0, static_cast<double>(m_progressSize) / static_cast<double>(m_totalSize));
  if (delegate()) delegate()->backupProgress(fraction);
}

bool QVDAVBackupTarget::backupItem(const std::string& path, const QVGroup& ofGroup, const std::string& withName,
                                   const std::string& toEntry, QVError* error) {
  if (delegate()) delegate()->backupProgress(0.0);
  if (!QVBackupTarget::backupItem(path, ofGroup, withName, toEntry, error)) {
    if (delegate()) delegate()->backupProgress(1.0);
    return false;
  }
  if (!isPathValidForUpload(path)) {
    if (delegate()) delegate()->backupProgress(1.0);
    return true;
  }

  bool result = false;
  std::optional<std::string> errorPath = path;
  const std::string groupCollection = groupURL(ofGroup);
  const std::string versionURL =
      qv::urlStringByAppendingPathComponent(groupCollection, pathWithReplacingInvalidCharactersInPath(toEntry));
  if (makeDirectory(groupCollection, true) && makeDirectory(versionURL, true)) {
    if (delegate()) delegate()->backupProgress(-1.0);
    m_totalSize = qv::sizeOfItemAtPath(path);
    m_progressSize = 0;

    bool isDirectory = false;
    qv::fileExistsAtPath(path, &isDirectory);
    const std::string escapedName = pathWithReplacingInvalidCharactersInPath(withName);
    // Every entry is tried, whatever failed before it; one success makes the item a success.
    auto send = [&](const std::string& localPath, const std::string& url) {
      bool entryIsDirectory = false;
      if (!qv::fileExistsAtPath(localPath, &entryIsDirectory)) return;  // gone since the walk found it
      const bool done = entryIsDirectory ? makeDirectory(url, false) : uploadFile(localPath, url);
      result = result || done;
      // Counted for the run's report: a file that could not be read here (or is no file at all, such as
      // a pipe) is left out, whatever answer its upload gave.
      if (!entryIsDirectory && !m_lastUploadHadStream)
        noteLeftOut({localPath});
      else if (!entryIsDirectory && done)
        noteWritten(1, qv::sizeOfItemAtPath(localPath));
    };
    if (!isDirectory) {
      if (!isCancelled()) send(path, qv::urlStringByAppendingPathComponent(versionURL, escapedName));
      // A single file that failed after its collections were made carries no path.
      errorPath.reset();
    } else {
      // A plain path join: the item's name is escaped already and is joined as it stands.
      const std::string itemURL = qv::stringByAppendingPathComponent(versionURL, escapedName);
      if (makeDirectory(itemURL, false)) {
        // Depth first, parents before their content, one entry at a time so a large tree costs no memory;
        // a folder that cannot be read is left out and the rest goes on.
        qv::walkDirectory(
            path,
            [&](const std::string& relative, bool) {
              if (isCancelled()) return false;
              send(qv::stringByAppendingPathComponent(path, relative),
                   qv::urlStringByAppendingPathComponent(itemURL, pathWithReplacingInvalidCharactersInPath(relative)));
              return true;
            },
            [&](const std::string& relative) { noteLeftOut({qv::stringByAppendingPathComponent(path, relative)}); });
      }
    }
  }

  if (!result && error) *error = errorWithStatusCode(-27, errorString(), errorPath);
  if (delegate()) delegate()->backupProgress(1.0);
  return result;
}

std::string QVDAVBackupTarget::versionURL(const QVGroup& group, const std::string& version,
                                          const std::string& relativePath) const {
  return qv::urlStringByAppendingPathComponent(
      qv::urlStringByAppendingPathComponent(groupURL(group), pathWithReplacingInvalidCharactersInPath(version)),
      pathWithReplacingInvalidCharactersInPath(relativePath));
}

// Reading back takes the same connection, credentials and timeouts as a run; a failure carries -27 and the
// text the status rule gives.
std::optional<std::vector<QVVersionEntry>> QVDAVBackupTarget::contentsOfVersion(const QVGroup& group,
                                                                                const std::string& version,
                                                                                const std::string& relativePath,
                                                                                QVError* error) {
  std::string url = versionURL(group, version, relativePath);
  if (url.back() != '/') url += '/';
  std::int64_t status = 0;
  std::string reply;
  bool sent = m_session->sendSynchronousRequest(
      "PROPFIND", requestURL(url), {{"Depth", "1"}, {"Content-Type", "application/xml"}}, &status, &reply, nullptr);
  std::optional<std::vector<QVVersionEntry>> entries;
  // Without an answer the status is 0, and the rule says that the server could not be reached. Read back
  // by namespace: what a server wrote must be found whatever prefix it chose.
  if (validateResponseStatusCode(sent ? status : 0, false))
    entries = QVDAVMultistatus::membersInReply(reply, requestURL(url));
  if (!entries && error)
    *error = errorWithStatusCode(-27, sent && status / 100 == 2 ? "The server's listing cannot be read" : errorString(),
                                 relativePath);
  return entries;
}

bool QVDAVBackupTarget::readFileOfVersion(const QVGroup& group, const std::string& version,
                                          const std::string& relativePath, const QVDataSink& sink, QVError* error) {
  std::int64_t status = 0;
  std::string errorPage;
  const bool sent = m_session->sendSynchronousRequest("GET", requestURL(versionURL(group, version, relativePath)), {},
                                                      &status, sink, &errorPage, nullptr);
  if (validateResponseStatusCode(sent ? status : 0, false)) return true;
  if (error) *error = errorWithStatusCode(isCancelled() ? -128 : -27, isCancelled() ? "" : errorString(), relativePath);
  return false;
}
