// QVLocalBackupTarget is the destination kind "local": a folder on a local or mounted volume, the
// options' "path" (D). A group's versions live in D/<title>/<version>/<item name>; titles, versions and
// names are used as they are. Each item is copied with the progress-reporting copy routine, whose
// callbacks this object receives and forwards to its delegate. The folder D itself is never created.
// Run thread (cancel from the main thread).
#pragma once

#include "platform/QVFileCopier.h"
#include "targets/QVBackupTarget.h"

class QVLocalBackupTarget : public QVBackupTarget, public QVFileCopierDelegate {
 public:
  explicit QVLocalBackupTarget(const QVTarget& options);

  // The group's folder, D/<title>.
  std::string pathForItem(const QVGroup& group) const;

  std::optional<std::vector<std::string>> entriesInDirectoryForItem(const QVGroup& group) override;
  void removeRootEntryForGroup(const QVGroup& group) override;
  bool removeEntry(const std::string& entry, const QVGroup& forItem) override;
  bool renameEntry(const std::string& entry, const std::string& toName, const QVGroup& forItem) override;
  bool backupItem(const std::string& path, const QVGroup& ofGroup, const std::string& withName,
                  const std::string& toEntry, QVError* error) override;
  // Reading a version back, from the file system: modes, times and symbolic links as they are.
  std::optional<std::vector<QVVersionEntry>> contentsOfVersion(const QVGroup& group, const std::string& version,
                                                               const std::string& relativePath,
                                                               QVError* error) override;
  bool readFileOfVersion(const QVGroup& group, const std::string& version, const std::string& relativePath,
                         const QVDataSink& sink, QVError* error) override;

  // Callbacks of the copy routine.
  bool fileManagerShouldContinueCopyingItem() override;
  void fileManagerReachedProgress(double fraction) override;
  void fileManagerCalculatedFiles(std::uint64_t files, std::uint64_t size) override;
};

namespace qv {

// Everything below folder that is not a folder (links, special files, ".DS_Store"), and the folders that
// cannot be listed, sorted by name at each level: what a skipped folder item leaves out of a version.
std::vector<std::string> leftOutEntriesBelow(const std::string& folder);

}  // namespace qv
