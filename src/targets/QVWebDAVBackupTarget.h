// QVWebDAVBackupTarget is the destination kind "webdav": a folder on any WebDAV server, over HTTPS or
// plain HTTP, at the address the server shows its users (the record's "url", with any path). It keeps
// the layout of the kind "dav" (URL/GROUP/VERSION/ITEM, the same escaping), so a dav destination that is
// switched to this kind finds its versions where they are.
//
// What it guards:
// - HTTPS is verified against the system's trust store, plus the record's "caFile" for this destination
//   alone; nothing turns verification off. Basic and Digest are answered only when the server asks,
//   redirects are never followed, and a password never goes over plain http unless the record says
//   "allowPlainHTTP".
// - Replies are read by namespace (QVDAVMultistatus).
// - Nothing is removed that a listing has not shown: the group's folder goes only when the last listing
//   worked and held nothing but the entries removed since. A failed listing removes nothing, and the run's
//   notes say so.
// - A name the server refuses (4xx on its PUT or MKCOL) is named in the notes as not backed up; the item
//   and the run go on. A refused password, a full server or a lost connection make the destination
//   unavailable, so the run stops.
//
// Threads: made on the main thread, then used by one run thread (or one reading); cancel() comes from the
// main thread and ends a request within a fraction of a second:
//
//   uploadFile: isComplete = false ──> [turn]* ──> didReceiveResponse* ──> didFinishLoading ──> isComplete
//                                         │                               didFailWithError ─┘
//                                         └── isCancelled: cancel the connection, leave the loop
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "platform/QVURLSession.h"
#include "targets/QVBackupTarget.h"

inline constexpr const char* kQVWebDAVURLKey = "url";
inline constexpr const char* kQVWebDAVCAFileKey = "caFile";
inline constexpr const char* kQVWebDAVAllowPlainHTTPKey = "allowPlainHTTP";

class QVWebDAVBackupTarget : public QVBackupTarget, private QVURLConnectionDelegate {
 public:
  explicit QVWebDAVBackupTarget(const QVTarget& options);
  ~QVWebDAVBackupTarget() override;

  // False once the password was refused, the server is full, a connection failed, or the destination
  // may not be used as it is set (a password over plain http without "allowPlainHTTP").
  bool isAvailable() override;
  // The collections in the group's folder, by namespace; nullopt when the listing failed.
  std::optional<std::vector<std::string>> entriesInDirectoryForItem(const QVGroup& group) override;
  // DELETE of the version's collection; true for 2xx and 404.
  bool removeEntry(const std::string& entry, const QVGroup& forItem) override;
  // DELETE of the group's collection, only when the last listing showed nothing else in it.
  void removeRootEntryForGroup(const QVGroup& group) override;
  bool backupItem(const std::string& path, const QVGroup& ofGroup, const std::string& withName,
                  const std::string& toEntry, QVError* error) override;
  std::optional<std::vector<QVVersionEntry>> contentsOfVersion(const QVGroup& group, const std::string& version,
                                                               const std::string& relativePath,
                                                               QVError* error) override;
  bool readFileOfVersion(const QVGroup& group, const std::string& version, const std::string& relativePath,
                         const QVDataSink& sink, QVError* error) override;

  // The record's settings of this kind.
  static std::string urlOfTarget(const QVTarget& target);
  static std::string caFileOfTarget(const QVTarget& target);
  static bool allowsPlainHTTP(const QVTarget& target);
  // Why url cannot be a webdav destination's address, or "" when it can: http:// or https://, a host,
  // no credentials, no query or fragment.
  static std::string urlProblem(const std::string& url);
  // The host (and port) of a URL, as messages name the server.
  static std::string serverOfURL(const std::string& url);

  // The text of the last failure.
  const std::string& errorString() const { return m_errorString; }

 private:
  void connectionDidReceiveResponse(std::int64_t statusCode) override;
  void connectionDidFailWithError(const QVURLError& error) override;
  void connectionDidFinishLoading() override;
  void connectionDidSendBodyData(std::int64_t bytesWritten, std::int64_t totalBytesWritten,
                                 std::int64_t totalBytesExpectedToWrite) override;

  // One request without a body; the status, or 0 after a transport failure (errorString then says why,
  // and the destination is unavailable).
  std::int64_t send(const std::string& method, const std::string& url, std::string* reply = nullptr,
                    const QVURLSession::QVBodySink& sink = {});
  // Sets errorString from an HTTP status; a refused password or a full server make the destination
  // unavailable. True for 2xx.
  bool acceptStatus(std::int64_t status, const std::string& what);
  void failTransport(const QVURLError& error);
  bool makeCollection(const std::string& url);
  // The PUT's status, or 0 after a transport failure or cancel.
  std::int64_t uploadFile(const std::string& path, const std::string& url);
  std::string groupURL(const QVGroup& group) const;
  std::string versionURL(const QVGroup& group, const std::string& version, const std::string& relativePath) const;

  std::string m_baseURL;  // the record's url, without a trailing "/"
  std::string m_server;   // host[:port], for messages
  std::string m_user;
  std::string m_refusal;  // set when the destination may not be used as it is set
  bool m_unavailable = false;
  std::string m_errorString;
  std::int64_t m_responseStatusCode = 0;
  std::uint64_t m_totalSize = 0;
  std::uint64_t m_progressSize = 0;
  std::optional<std::vector<std::string>> m_lastListing;  // every member the last group listing showed
  std::vector<std::string> m_removedEntries;              // removed since that listing
  std::unique_ptr<QVURLSession> m_session;
};
