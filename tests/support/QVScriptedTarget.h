// A destination of the test kind "scripted" that answers from a Script a test fills beforehand: per
// item success or an error code, progress to report, when it stops being available and where to block
// until release() (or a cancel). It records the version entries it was given and what it removed.
#pragma once

#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "targets/QVBackupTarget.h"

namespace qvtest {

struct Script {
  std::mutex mutex;
  std::condition_variable changed;
  std::vector<std::optional<std::int64_t>> failures;  // per item: a code fails with "scripted <code>", 0 with no error
  std::vector<std::vector<double>> progress;          // per item: fractions reported before answering
  int unavailableAfterItems = -1;                     // isAvailable turns false once this many items were tried
  int blockAtItem = -1;                               // the item that waits until release() or cancel
  // Guarded by mutex:
  bool blocked = false, released = false;
  std::vector<std::string> entries, removed;
  int rootRemovals = 0, itemsTried = 0;

  void release();
  bool waitUntilBlocked(int milliseconds = 10000);
};

class ScriptedTarget : public QVBackupTarget {
 public:
  using QVBackupTarget::QVBackupTarget;
  // Makes "scripted" destinations from now on, answering from script (which must outlive them).
  static void install(Script* script);
  static void uninstall() { install(nullptr); }

  std::optional<std::vector<std::string>> entriesInDirectoryForItem(const QVGroup& group) override;
  void removeRootEntryForGroup(const QVGroup& group) override;
  bool removeEntry(const std::string& entry, const QVGroup& forItem) override;
  bool backupItem(const std::string& path, const QVGroup& ofGroup, const std::string& withName,
                  const std::string& toEntry, QVError* error) override;
  bool isAvailable() override;
};

}  // namespace qvtest
