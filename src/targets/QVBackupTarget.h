// QVBackupTarget is the abstract backup destination. One object stands for one configured destination
// while one piece of work is done with it: a backup run of a group, or a listing of a group's versions.
// It holds its own copy of the destination's options and offers what a run drives: write one item into
// a version entry, list the entries of a group's folder, remove one entry or the group's folder, tell
// whether the destination is still usable, and be cancelled. It also carries what every kind shares:
// the factory, the credentials from the keychain, the error objects, the escaping of path pieces for
// URLs, and the test whether an item holds anything worth uploading.
//
// Threads: made on the main thread, then driven by one run thread. cancel() may come from the main
// thread at any time; the cancel and complete flags are atomic. A run calls, in order:
//   setDelegate, backupWillStart, { isCancelled / isAvailable, backupItem }*, backupDidEnd,
//   [isAvailable] entriesInDirectoryForItem, removeEntry* | removeRootEntryForGroup
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "platform/QVError.h"
#include "platform/QVKeychain.h"
#include "targets/QVGroup.h"
#include "targets/QVTarget.h"

// Where a destination reports the progress of the current item (the run's progress adapter).
class QVTargetProgressDelegate {
 public:
  virtual ~QVTargetProgressDelegate() = default;
  // The fraction done of the current item, 0.0 to 1.0; -1.0 when a transfer begins without a fraction.
  virtual void backupProgress(double fraction) = 0;
  virtual void backupCalculatedFiles(std::uint64_t files, std::uint64_t size) = 0;
};

// One entry of a version at a destination, as reading a version back sees it. Kinds that keep them fill
// in the mode, the modification time and a link's target; the others leave them empty.
struct QVVersionEntry {
  std::string name;
  bool isDirectory = false;
  std::uint64_t size = 0;
  std::optional<std::uint32_t> mode;
  std::optional<std::int64_t> modificationTimeNanoseconds;  // since the epoch
  std::optional<std::string> symbolicLinkTarget;            // set for a symbolic link
};

// Receives the bytes of a file read back from a destination; answering false stops the read.
using QVDataSink = std::function<bool(const char* bytes, std::size_t length)>;

class QVBackupTarget {
 public:
  // A new destination of the kind that options' "type" names (exact, case-sensitive: "local", "ftp",
  // "ftps", "dav", and "webdav" beside them); nullptr for any other type, without an error or a log line.
  static std::unique_ptr<QVBackupTarget> targetWithOptions(const QVTarget& options);
  // Tests: a maker asked before the kinds above; when it answers nullptr the kinds are tried.
  using QVTargetMaker = std::unique_ptr<QVBackupTarget> (*)(const QVTarget& options);
  static void setTestingMaker(QVTargetMaker maker);

  explicit QVBackupTarget(const QVTarget& options);
  virtual ~QVBackupTarget();
  QVBackupTarget(const QVBackupTarget&) = delete;
  QVBackupTarget& operator=(const QVBackupTarget&) = delete;

  // The names of the entries in the group's folder, or nullopt. The base has none.
  virtual std::optional<std::vector<std::string>> entriesInDirectoryForItem(const QVGroup& group);
  // Removes the group's whole folder. The base does nothing.
  virtual void removeRootEntryForGroup(const QVGroup& group);
  // Removes one entry (a version) of the group's folder. The base answers false.
  virtual bool removeEntry(const std::string& entry, const QVGroup& forItem);
  // Writes the item at path into the version entry under name. The base only checks the source:
  // -43 when nothing is there, -54 when it cannot be read; every kind calls it first.
  virtual bool backupItem(const std::string& path, const QVGroup& ofGroup, const std::string& withName,
                          const std::string& toEntry, QVError* error);

  // Renames one entry of the group's folder to toName, beside the operations of a run (the host marks a
  // version that a run left unfinished this way). Never replaces an entry that has toName already.
  // The base answers false.
  virtual bool renameEntry(const std::string& entry, const std::string& toName, const QVGroup& forItem);

  // Reading a version back (restore and verify), beside the operations of a run. Paths are relative to
  // the version entry ("" is the version itself) and use "/". Both fail with an error naming the path;
  // the base reads nothing (-4). Cancel ends a read within one buffer.
  // The entries of one folder of the version, in no particular order.
  virtual std::optional<std::vector<QVVersionEntry>> contentsOfVersion(const QVGroup& group, const std::string& version,
                                                                       const std::string& relativePath, QVError* error);
  // Streams one file of the version to sink.
  virtual bool readFileOfVersion(const QVGroup& group, const std::string& version, const std::string& relativePath,
                                 const QVDataSink& sink, QVError* error);
  // The entries of the group's folder as reading a version back finds them (versions, restore, verify):
  // kinds whose run listing can miss entries that exist read them here as well as they can. The base
  // answers entriesInDirectoryForItem.
  virtual std::optional<std::vector<std::string>> entriesForReading(const QVGroup& group);

  // The destination's credentials, looked up afresh in the keychain on every call.
  std::optional<QVKeychainItem> keychainItem() const;
  std::optional<std::string> username() const;
  // Logs "No password for target: %@" when there is no keychain item.
  std::optional<std::string> password() const;

  void cancel() { m_isCancelled.store(true); }
  bool isCancelled() const { return m_isCancelled.load(); }
  virtual bool isAvailable();
  virtual void backupWillStart();
  virtual void backupDidEnd();

  // The system's error object for a status code: the given message, else the status's own message.
  QVError errorWithStatusCode(std::int64_t statusCode, const std::optional<std::string>& errorString,
                              const std::optional<std::string>& sourcePath) const;
  // Percent-escapes a path piece for a URL: every byte outside letters, digits and
  // -_.!~*'();/?:@&=+$, becomes %XX ("#" too: it would end the URL's path), then every "?" becomes %3F.
  static std::string pathWithReplacingInvalidCharactersInPath(const std::string& path);
  // False for nothing at path and for a folder without a regular file anywhere below it
  // (".DS_Store" files do not count); true for any file.
  static bool isPathValidForUpload(const std::string& path);

  // What this object's items put into versions so far, as far as its kind counts it: files (and links)
  // written with their bytes, and the source paths it passed over. Read and written by the run thread.
  std::uint64_t filesWritten() const { return m_filesWritten; }
  std::uint64_t bytesWritten() const { return m_bytesWritten; }
  const std::vector<std::string>& leftOutPaths() const { return m_leftOutPaths; }
  // Lines for the run's outcome that the destination adds: a name the server refused, a listing that
  // failed so nothing was removed. Read and written by the run thread.
  const std::vector<std::string>& notes() const { return m_notes; }

  const QVTarget& options() const { return m_options; }
  // Requires: no run thread uses the destination yet.
  void setOptions(QVTarget options) { m_options = std::move(options); }
  QVTargetProgressDelegate* delegate() const { return m_delegate; }
  void setDelegate(QVTargetProgressDelegate* delegate) { m_delegate = delegate; }  // not owned
  bool isComplete() const { return m_isComplete.load(); }
  void setIsComplete(bool complete) { m_isComplete.store(complete); }

  // The keychain service name of the destination.
  std::string keychainServiceName() const;

 protected:
  void noteWritten(std::uint64_t files, std::uint64_t bytes) {
    m_filesWritten += files;
    m_bytesWritten += bytes;
  }
  void noteLeftOut(const std::vector<std::string>& paths) {
    m_leftOutPaths.insert(m_leftOutPaths.end(), paths.begin(), paths.end());
  }
  void noteForRun(const std::string& line) { m_notes.push_back(line); }

  QVTarget m_options;

 private:
  QVTargetProgressDelegate* m_delegate = nullptr;
  std::atomic<bool> m_isCancelled{false};
  std::atomic<bool> m_isComplete{false};
  std::uint64_t m_filesWritten = 0;
  std::uint64_t m_bytesWritten = 0;
  std::vector<std::string> m_leftOutPaths;
  std::vector<std::string> m_notes;
};
