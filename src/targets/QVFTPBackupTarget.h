// QVFTPBackupTarget is the destination kind "ftp": a folder on an FTP server. A group's versions live in
// <path>/<group folder>/<version>/<item name>, where the group folder is the group's title when it is
// plain ASCII and its identifier otherwise. Each object owns one libcurl easy handle and drives it
// synchronously: single files and whole trees are uploaded through a read callback that streams from
// disk, the group's folder is listed (names only, or the long form that parseDirectoryListing reads),
// and versions are removed recursively with batches of DELE and RMD commands.
//
// Threads: made on the main thread (or wherever a listing is wanted), then used by one thread at a time;
// the handle, the buffer and the progress fields are unguarded. cancel() may come from any thread; the
// read callback polls it, so an upload ends within one buffer of data.
//
// Invariants: options set on the handle stay until changed again, and the destination relies on it:
//   construction   upload off, list-only on, missing folders created
//   backupWillStart upload on  -> backupItem: connection check (sets a 20 s timeout for good), uploads
//   backupDidEnd   upload off  -> listings (missing folders no longer created), command batches
// isAvailable() is true until a connection check fails with a code above 3, and false for good after.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "targets/QVBackupTarget.h"

// One entry of a long directory listing.
struct QVFTPListingEntry {
  std::string name;
  bool isDirectory = false;
  bool operator==(const QVFTPListingEntry&) const = default;
};

class QVFTPBackupTarget : public QVBackupTarget {
 public:
  // Should libcurl fail to make a handle, the object is unavailable from the start (status 2).
  explicit QVFTPBackupTarget(const QVTarget& options);
  ~QVFTPBackupTarget() override;

  // "ftp"; the FTPS kind answers "ftps".
  virtual std::string urlScheme() const;
  // True exactly while no connection check has failed.
  bool isAvailable() override;

  // The options' "path" with a "/" appended unless it ends in one.
  std::string path() const;
  // "<scheme>://<server>/": never a user name, password or port, nothing escaped.
  std::string curlUrlPrefixWithoutPath() const;
  // curlUrlPrefixWithoutPath() followed by path(): "/backup/" gives "ftp://h//backup/" (from the
  // server's root), "backup" gives "ftp://h/backup/" (below the login folder).
  std::string curlUrlPrefix() const;
  // The group's folder on the server: its title when that is plain ASCII, else its identifier.
  std::string nameForGroup(const QVGroup& group) const;

  // The lines of the listing of path (below the server root URL), names only or the long form;
  // nullopt when libcurl fails (logged). A listing that is not valid UTF-8 is empty.
  std::optional<std::vector<std::string>> directoryListingForPath(const std::string& path, bool listOnly);
  // The names in the group's folder, one per line as the server sends them; nullopt when it cannot be listed.
  std::optional<std::vector<std::string>> entriesInDirectoryForItem(const QVGroup& group) override;
  // Reads the lines of a Unix long listing: directories and regular files, by name (everything after
  // the eighth field, spaces included); links, "total" lines, "." and ".." give nothing.
  static std::vector<QVFTPListingEntry> parseDirectoryListing(const std::vector<std::string>& lines);

  // Sends the commands, in order, in one batch. False (logged) when libcurl reports a failure.
  bool performCommands(const std::vector<std::string>& commands);
  // Empties the folder at path (ending in "/"), deepest folders first; the folder itself stays.
  // True when every batch succeeded, and for an empty folder (no command sent).
  bool removeItemWithPath(const std::string& path);
  // RMD path.
  bool removeDirectoryWithPath(const std::string& path);
  bool removeEntry(const std::string& entry, const QVGroup& forItem) override;
  bool renameEntry(const std::string& entry, const std::string& toName, const QVGroup& forItem) override;
  // Removes the group's folder only when it is empty already; logs a warning otherwise.
  void removeRootEntryForGroup(const QVGroup& group) override;

  // Uploads the local file at path (size bytes) to url; libcurl's result (0 is success).
  // Requires: upload mode on (backupWillStart).
  int uploadFile(const std::string& path, std::uint64_t size, const std::string& url);
  // The message for a libcurl result: code 28 names the server, every other code has libcurl's own text.
  std::string errorStringForCode(int code) const;

  // Uploads a file or a whole tree into <path>/<group folder>/<toEntry>/<withName>. Succeeds when at
  // least one file arrived. On failure the error's status is the code of the failed connection check
  // (0 when the server was reachable) and its message the text of the last libcurl result.
  bool backupItem(const std::string& path, const QVGroup& ofGroup, const std::string& withName,
                  const std::string& toEntry, QVError* error) override;
  void backupWillStart() override;
  void backupDidEnd() override;

  // Reading a version back: long listings and RETR on this object's handle, with the credentials of a
  // run. While they work, a transfer fails when no byte moves for 60 s, and a cancel ends it at once;
  // they leave the handle's options as they found them.
  std::optional<std::vector<QVVersionEntry>> contentsOfVersion(const QVGroup& group, const std::string& version,
                                                               const std::string& relativePath,
                                                               QVError* error) override;
  bool readFileOfVersion(const QVGroup& group, const std::string& version, const std::string& relativePath,
                         const QVDataSink& sink, QVError* error) override;

  std::uint64_t progressSize() const { return m_progressSize; }
  // Stores the bytes read so far and reports the fraction of the item to the delegate, at most once
  // every 2.0 seconds. An item of zero bytes reports 0.0.
  void setProgressSize(std::uint64_t progressSize);
  // The result of the last failed connection check, 0 until one fails.
  std::int32_t curlCodeError() const { return m_curlCodeError; }

 protected:
  struct Curl;  // the libcurl easy handle; defined where libcurl is used

  std::unique_ptr<Curl> m_curl;
  std::string m_buffer;              // every byte libcurl downloads: listings, and those of command batches
  std::uint64_t m_totalSize = 0;     // bytes of the whole item being uploaded
  std::uint64_t m_progressSize = 0;  // bytes read from local files so far for that item
  double m_lastProgressDate = 0.0;   // seconds since 1970 of the last report to the delegate
  std::int32_t m_curlCodeError = 0;

 private:
  int perform();
  std::string className() const;
  // The server path of a path inside a version: <path>/<group folder>/<version>/<relative>.
  std::string versionPath(const QVGroup& group, const std::string& version, const std::string& relativePath) const;
  // Turns the idle limit and the cancel check of reading back on or off.
  void setReadingBack(bool on);
};
