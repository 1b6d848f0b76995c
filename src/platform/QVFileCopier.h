// QVFileCopier copies a file, or a folder with its whole tree, to a path that must not exist yet.
// Symbolic links are copied as links, never followed; permissions and modification times are kept.
// The kernel moves the contents where it can (a reflink clone, else copy_file_range), with a plain
// read/write loop as the fallback; no whole file is held in memory.
//
// It reports to its delegate: the file count and total size once, before copying; the fraction done as
// it goes (a few times a second at most, and 1.0 at the end); and it asks whether to continue between
// files and at least every 8 MiB inside a file. Errors carry status codes: a full volume -1429, no
// permission -54, a vanished source -43, anything else the system's own error number.
//
// A file whose size or modification time changes while it is copied is copied again from its start, so
// that no copy holds part of one state and part of another; one still changing on the third copy is
// passed over (or, as the item itself, fails with EAGAIN). A copy whose folder was removed while it was
// written fails (ENOENT): it would look copied and be nowhere.
//
// Each copy also counts what it did: the regular files and symbolic links it wrote with the bytes of
// the files, and the source paths it passed over (unreadable files and folders, special files such as
// sockets and pipes, files that vanished, changed kind or kept changing during the copy), in the order
// met.
//
// One copier serves one copy at a time, on the calling thread; the delegate is called on that thread.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

struct QVError;

class QVFileCopierDelegate {
 public:
  virtual ~QVFileCopierDelegate() = default;
  virtual bool fileManagerShouldContinueCopyingItem() = 0;
  virtual void fileManagerReachedProgress(double fraction) = 0;
  virtual void fileManagerCalculatedFiles(std::uint64_t files, std::uint64_t size) = 0;
};

class QVFileCopier {
 public:
  void setDelegate(QVFileCopierDelegate* delegate) { m_delegate = delegate; }  // not owned
  QVFileCopierDelegate* delegate() const { return m_delegate; }

  // Copies sourcePath to destinationPath. With ignoringSourceErrors, source files that cannot be read
  // are passed over and the copy goes on. A copy stopped by the delegate fails with status -128.
  // On failure writes *error (domain kQVErrorDomain, the status code, the status text as suggestion).
  bool copyItemReportingProgressAtPath(const std::string& sourcePath, const std::string& destinationPath,
                                       bool ignoringSourceErrors, QVError* error);

  // What the last copy did, also when it failed or was stopped: files (and links) written, their bytes,
  // and the source paths passed over.
  std::uint64_t filesCopied() const { return m_filesCopied; }
  std::uint64_t bytesCopied() const { return m_bytesCopied; }
  const std::vector<std::string>& passedOverPaths() const { return m_passedOverPaths; }

 private:
  QVFileCopierDelegate* m_delegate = nullptr;
  std::uint64_t m_filesCopied = 0;
  std::uint64_t m_bytesCopied = 0;
  std::vector<std::string> m_passedOverPaths;
};
