#include "targets/QVWebDAVBackupTarget.h"

#include <algorithm>

#include "platform/QVFoundation.h"
#include "platform/QVLocalization.h"
#include "platform/QVLog.h"
#include "platform/QVStatusTexts.h"
#include "targets/QVDAVMultistatus.h"

namespace {

const QVURLSession::QVHeaders kPropfindHeaders = {{"Depth", "1"}, {"Content-Type", "application/xml"}};

std::string stringOption(const QVTarget& target, const char* key) {
  auto it = target.otherKeys.find(key);
  if (it == target.otherKeys.end() || !it->second.string()) return "";
  return *it->second.string();
}

bool hasScheme(const std::string& url, const char* scheme) { return url.rfind(scheme, 0) == 0; }

}  // namespace

std::string QVWebDAVBackupTarget::urlOfTarget(const QVTarget& target) { return stringOption(target, kQVWebDAVURLKey); }

std::string QVWebDAVBackupTarget::caFileOfTarget(const QVTarget& target) {
  return stringOption(target, kQVWebDAVCAFileKey);
}

bool QVWebDAVBackupTarget::allowsPlainHTTP(const QVTarget& target) {
  auto it = target.otherKeys.find(kQVWebDAVAllowPlainHTTPKey);
  return it != target.otherKeys.end() && it->second.boolValue().value_or(false);
}

std::string QVWebDAVBackupTarget::urlProblem(const std::string& url) {
  if (!hasScheme(url, "https://") && !hasScheme(url, "http://"))
    return "the URL must begin with https:// or http://, not " + url.substr(0, url.find("://") + 3);
  const std::size_t start = url.find("://") + 3;
  const std::size_t end = url.find('/', start);
  const std::string authority = url.substr(start, end == std::string::npos ? std::string::npos : end - start);
  if (authority.find('@') != std::string::npos)
    return "the URL must not hold a user name or password; give them with --user and --password-stdin";
  if (authority.empty() || authority.front() == ':') return "the URL names no server";
  if (url.find_first_of("?#") != std::string::npos) return "the URL must not hold a query (?) or a fragment (#)";
  if (url.find_first_of(" \t\r\n") != std::string::npos)
    return "the URL must not hold spaces; write a space in a path as %20";
  return "";
}

std::string QVWebDAVBackupTarget::serverOfURL(const std::string& url) {
  const std::size_t scheme = url.find("://");
  const std::size_t start = scheme == std::string::npos ? 0 : scheme + 3;
  const std::size_t end = url.find('/', start);
  return url.substr(start, end == std::string::npos ? std::string::npos : end - start);
}

QVWebDAVBackupTarget::QVWebDAVBackupTarget(const QVTarget& options)
    : QVBackupTarget(options), m_session(std::make_unique<QVURLSession>()) {
  m_baseURL = urlOfTarget(options);
  while (!m_baseURL.empty() && m_baseURL.back() == '/') m_baseURL.pop_back();
  m_server = serverOfURL(m_baseURL);
  if (std::string problem = urlProblem(m_baseURL); !problem.empty()) {
    m_refusal = "the destination \"" + options.title + "\" cannot be used: " + problem;
  } else if (std::string error; !m_session->allowHTTPS(caFileOfTarget(options), &error)) {
    m_refusal = "the certificate file of destination \"" + options.title + "\" cannot be used: " + error;
  }
  m_user = username().value_or("");
  const std::string pass = m_user.empty() ? "" : password().value_or("");
  if (!m_user.empty() && !pass.empty()) {
    if (hasScheme(m_baseURL, "http://") && !allowsPlainHTTP(options) && m_refusal.empty())
      m_refusal = "the destination \"" + options.title + "\" would send its password over plain http:// to " +
                  m_server +
                  ", where anyone on the network can read it; use https://, or allow it with "
                  "\"stellwin-backup target set " +
                  options.title + " --allow-plain-http\"";
    else
      m_session->setCredentialsForChallenge(m_user, pass);
  }
  m_session->setCancellationCheck([this] { return isCancelled(); });
  m_errorString = m_refusal;
}

QVWebDAVBackupTarget::~QVWebDAVBackupTarget() = default;

bool QVWebDAVBackupTarget::isAvailable() { return m_refusal.empty() && !m_unavailable; }

std::string QVWebDAVBackupTarget::groupURL(const QVGroup& group) const {
  return m_baseURL + "/" + pathWithReplacingInvalidCharactersInPath(group.title) + "/";
}

std::string QVWebDAVBackupTarget::versionURL(const QVGroup& group, const std::string& version,
                                             const std::string& relativePath) const {
  return qv::urlStringByAppendingPathComponent(
      qv::urlStringByAppendingPathComponent(groupURL(group), pathWithReplacingInvalidCharactersInPath(version)),
      pathWithReplacingInvalidCharactersInPath(relativePath));
}

void QVWebDAVBackupTarget::failTransport(const QVURLError& error) {
  if (isCancelled()) {
    m_errorString = "cancelled";
    return;
  }
  const std::string trust =
      "; if the server uses a certificate of its own (self-signed) or of a private "
      "certificate authority, trust it for this destination alone with \"stellwin-backup "
      "target set " +
      m_options.title + " --ca-file CERTIFICATE.pem\"";
  switch (error.kind) {
    case QVURLError::Kind::untrustedCertificate:
      m_errorString =
          "the certificate of the server " + m_server + " is not trusted (" + error.localizedDescription + ")" + trust;
      break;
    case QVURLError::Kind::wrongHostName:
      m_errorString = "the certificate of the server " + m_server + " is made out for another host name (" +
                      error.localizedDescription + "); give the URL with the name the certificate names";
      break;
    case QVURLError::Kind::expiredCertificate:
      m_errorString = "the certificate of the server " + m_server + " has expired or is not valid yet (" +
                      error.localizedDescription + "); the server's administrator must renew it";
      break;
    case QVURLError::Kind::couldNotConnect:
      m_errorString = "could not connect to the server " + m_server + " (" + error.localizedDescription + ")";
      break;
    case QVURLError::Kind::timedOut:
      m_errorString = "the server " + m_server + " stopped answering (" + error.localizedDescription + ")";
      break;
    default:
      m_errorString = "the connection to the server " + m_server + " failed (" + error.localizedDescription + ")";
      break;
  }
  m_unavailable = true;
  qv::debugLog("targets.dav", m_errorString);
}

std::int64_t QVWebDAVBackupTarget::send(const std::string& method, const std::string& url, std::string* reply,
                                        const QVURLSession::QVBodySink& sink) {
  if (!m_refusal.empty()) return 0;
  std::int64_t status = 0;
  QVURLError error;
  std::string page;
  const bool sent = sink ? m_session->sendSynchronousRequest(
                               method, url, method == "PROPFIND" ? kPropfindHeaders : QVURLSession::QVHeaders{},
                               &status, sink, &page, &error)
                         : m_session->sendSynchronousRequest(
                               method, url, method == "PROPFIND" ? kPropfindHeaders : QVURLSession::QVHeaders{},
                               &status, reply ? reply : &page, &error);
  if (sent) return status;
  failTransport(error);
  return 0;
}

bool QVWebDAVBackupTarget::acceptStatus(std::int64_t status, const std::string& what) {
  if (status >= 200 && status <= 299) return true;
  if (status == 0) return false;  // failTransport said why
  const std::string reason = "(" + std::to_string(status) + " " + qv::localizedStringForStatusCode(status) + ")";
  if (status == 401) {
    m_errorString = m_user.empty() ? "the server " + m_server + " asks for a user name and password " + reason +
                                         "; give them with \"stellwin-backup target set " + m_options.title +
                                         " --user USER --password-stdin\""
                                   : "the server " + m_server + " refused the password of user \"" + m_user + "\" " +
                                         reason + "; give the right one with \"stellwin-backup target set " +
                                         m_options.title + " --user " + m_user + " --password-stdin\"";
    m_unavailable = true;
  } else if (status == 507) {
    m_errorString = "the server " + m_server + " has no room left " + reason;
    m_unavailable = true;
  } else if (status >= 300 && status <= 399) {
    m_errorString = "the server " + m_server + " sends " + what + " elsewhere " + reason +
                    "; give the destination the address it moved to";
  } else {
    m_errorString = "the server " + m_server + " refused " + what + " " + reason;
  }
  return false;
}

bool QVWebDAVBackupTarget::makeCollection(const std::string& url) {
  std::string collection = url;
  if (collection.back() != '/') collection += '/';
  const std::int64_t status = send("MKCOL", collection);
  // 405: the collection is there already.
  return status == 405 || acceptStatus(status, "to make the folder " + collection.substr(m_baseURL.size()));
}

std::optional<std::vector<std::string>> QVWebDAVBackupTarget::entriesInDirectoryForItem(const QVGroup& group) {
  const std::string url = groupURL(group);
  std::string reply;
  const std::int64_t status = send("PROPFIND", url, &reply);
  m_removedEntries.clear();
  m_lastListing.reset();
  std::optional<std::vector<QVVersionEntry>> members;
  // A group folder that is not there yet holds nothing: seen, and empty.
  if (status == 404)
    members.emplace();
  else if (status / 100 == 2)
    members = QVDAVMultistatus::membersInReply(reply, url);
  if (!members) {
    if (status / 100 == 2)
      m_errorString = "the server " + m_server + " answered the listing with a reply that is not a WebDAV listing";
    else
      acceptStatus(status, "the listing");
    noteForRun("the listing of the group's folder on " + m_server + " failed (" + m_errorString +
               "), so no version was removed");
    return std::nullopt;
  }
  std::vector<std::string> all, collections;
  for (const QVVersionEntry& member : *members) {
    all.push_back(member.name);
    if (member.isDirectory) collections.push_back(member.name);
  }
  m_lastListing = std::move(all);
  return collections;
}

bool QVWebDAVBackupTarget::removeEntry(const std::string& entry, const QVGroup& forItem) {
  const std::int64_t status = send("DELETE", groupURL(forItem) + pathWithReplacingInvalidCharactersInPath(entry) + "/");
  const bool removed = (status >= 200 && status <= 299) || status == 404;
  if (removed)
    m_removedEntries.push_back(entry);
  else
    acceptStatus(status, "to remove " + entry);
  return removed;
}

void QVWebDAVBackupTarget::removeRootEntryForGroup(const QVGroup& group) {
  const std::string url = groupURL(group);
  // Only what a listing that worked showed: a folder that held nothing but what was removed since.
  const bool seenEmpty =
      m_lastListing && std::all_of(m_lastListing->begin(), m_lastListing->end(), [&](const std::string& name) {
        return std::find(m_removedEntries.begin(), m_removedEntries.end(), name) != m_removedEntries.end();
      });
  if (!seenEmpty) {
    if (!m_lastListing)
      noteForRun("the group's folder on " + m_server +
                 " was left as it is: no listing of it worked, so what it "
                 "holds is not known");
    return;
  }
  const std::int64_t status = send("DELETE", url);
  if (!(status >= 200 && status <= 299) && status != 404)
    QVLog(qv::stringWithFormat("%@ warning: Could not remove directory -%@", {"QVWebDAVBackupTarget", url}));
}

std::int64_t QVWebDAVBackupTarget::uploadFile(const std::string& path, const std::string& url) {
  std::unique_ptr<QVInputStream> stream = QVInputStream::inputStreamWithFileAtPath(path);
  if (!stream) return -1;
  setIsComplete(false);
  m_responseStatusCode = 0;
  m_session->startUpload("PUT", url, std::move(stream), this);
  while (!isComplete()) {
    if (isCancelled()) break;
    m_session->runOnce();
  }
  if (isCancelled()) {
    m_session->cancelUpload();
    return 0;
  }
  return m_responseStatusCode;
}

void QVWebDAVBackupTarget::connectionDidReceiveResponse(std::int64_t statusCode) { m_responseStatusCode = statusCode; }

void QVWebDAVBackupTarget::connectionDidFailWithError(const QVURLError& error) {
  m_responseStatusCode = 0;
  failTransport(error);
  setIsComplete(true);
}

void QVWebDAVBackupTarget::connectionDidFinishLoading() { setIsComplete(true); }

void QVWebDAVBackupTarget::connectionDidSendBodyData(std::int64_t bytesWritten, std::int64_t, std::int64_t) {
  m_progressSize += static_cast<std::uint64_t>(bytesWritten);
  const double fraction =
      m_totalSize == 0 ? 0.0 : std::min(1.0, static_cast<double>(m_progressSize) / static_cast<double>(m_totalSize));
  if (delegate()) delegate()->backupProgress(fraction);
}

bool QVWebDAVBackupTarget::backupItem(const std::string& path, const QVGroup& ofGroup, const std::string& withName,
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
  const std::string groupCollection = groupURL(ofGroup);
  const std::string version =
      qv::urlStringByAppendingPathComponent(groupCollection, pathWithReplacingInvalidCharactersInPath(toEntry));
  if (isAvailable() && makeCollection(groupCollection) && makeCollection(version)) {
    if (delegate()) delegate()->backupProgress(-1.0);
    m_totalSize = qv::sizeOfItemAtPath(path);
    m_progressSize = 0;
    bool isDirectory = false;
    qv::fileExistsAtPath(path, &isDirectory);
    const std::string itemURL =
        qv::urlStringByAppendingPathComponent(version, pathWithReplacingInvalidCharactersInPath(withName));
    bool failed = false;  // a request failed for another reason than a refused name
    bool anyRefused = false;
    std::vector<std::string> refusedFolders;  // relative paths whose content is not sent
    // One entry: true when it arrived or its name was refused (and noted).
    auto sendEntry = [&](const std::string& localPath, const std::string& relative, const std::string& url) {
      bool entryIsDirectory = false;
      if (!qv::fileExistsAtPath(localPath, &entryIsDirectory)) return;  // gone since the walk found it
      std::int64_t status = 0;
      if (entryIsDirectory) {
        std::string collection = url;
        if (collection.back() != '/') collection += '/';
        status = send("MKCOL", collection);
        if (status == 405) status = 201;
      } else {
        status = uploadFile(localPath, url);
        if (status == -1) {  // unreadable here, or not a regular file
          noteLeftOut({localPath});
          return;
        }
      }
      if (status >= 200 && status <= 299) {
        if (!entryIsDirectory) noteWritten(1, qv::sizeOfItemAtPath(localPath));
        return;
      }
      if (status >= 400 && status <= 499 && status != 401 && status != 408 && status != 429) {
        // The server refuses this name (Nextcloud: ".part"; others ":" or "\"): named, and the rest goes on.
        anyRefused = true;
        if (entryIsDirectory) refusedFolders.push_back(relative + "/");
        noteForRun("not backed up: " + localPath + " (the server " + m_server +
                   " refused it: " + std::to_string(status) + " " + qv::localizedStringForStatusCode(status) + ")");
        return;
      }
      acceptStatus(status, "the upload of " + localPath);
      failed = true;
    };
    if (!isDirectory) {
      if (!isCancelled()) sendEntry(path, "", itemURL);
      result = !failed && !anyRefused && !isCancelled();
      if (anyRefused && !failed) m_errorString = "the server " + m_server + " refused the name " + withName;
    } else if (makeCollection(itemURL)) {
      qv::walkDirectory(
          path,
          [&](const std::string& relative, bool) {
            if (isCancelled() || !isAvailable()) return false;
            for (const auto& folder : refusedFolders)
              if (relative.rfind(folder, 0) == 0) return true;  // inside a folder the server refused
            sendEntry(
                qv::stringByAppendingPathComponent(path, relative), relative,
                qv::urlStringByAppendingPathComponent(itemURL, pathWithReplacingInvalidCharactersInPath(relative)));
            return true;
          },
          [&](const std::string& relative) { noteLeftOut({qv::stringByAppendingPathComponent(path, relative)}); });
      result = !failed && !isCancelled() && isAvailable();
    }
  }
  if (!result && error)
    *error = errorWithStatusCode(isCancelled() ? -128 : -27, isCancelled() ? "" : m_errorString, path);
  if (delegate()) delegate()->backupProgress(1.0);
  return result;
}

std::optional<std::vector<QVVersionEntry>> QVWebDAVBackupTarget::contentsOfVersion(const QVGroup& group,
                                                                                   const std::string& version,
                                                                                   const std::string& relativePath,
                                                                                   QVError* error) {
  std::string url = versionURL(group, version, relativePath);
  if (url.back() != '/') url += '/';
  std::string reply;
  const std::int64_t status = send("PROPFIND", url, &reply);
  std::optional<std::vector<QVVersionEntry>> entries;
  if (acceptStatus(status, "the listing of " + (relativePath.empty() ? version : relativePath))) {
    entries = QVDAVMultistatus::membersInReply(reply, url);
    if (!entries) m_errorString = "the server " + m_server + " answered with a reply that is not a WebDAV listing";
  }
  if (!entries && error)
    *error = errorWithStatusCode(isCancelled() ? -128 : -27, isCancelled() ? "" : m_errorString, relativePath);
  return entries;
}

bool QVWebDAVBackupTarget::readFileOfVersion(const QVGroup& group, const std::string& version,
                                             const std::string& relativePath, const QVDataSink& sink, QVError* error) {
  const std::int64_t status = send("GET", versionURL(group, version, relativePath), nullptr, sink);
  if (acceptStatus(status, "to send " + relativePath)) return true;
  if (error) *error = errorWithStatusCode(isCancelled() ? -128 : -27, isCancelled() ? "" : m_errorString, relativePath);
  return false;
}
