// A destination of the test kind "scripted" whose answers a test sets beforehand: per item success or
// an error code, progress to report, when it stops being available, and where to block until the test
// lets it go (or the run is cancelled). It records the names it was given and what it removed.
// Install it with QVScriptedTarget::install() for the test's lifetime.
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
  // Per item index: nullopt succeeds; a code fails with that code (and the message "scripted <code>").
  std::vector<std::optional<std::int64_t>> failures;
  // Per item index: fractions to report before answering.
  std::vector<std::vector<double>> progress;
  int unavailableAfterItems = -1;  // isAvailable turns false once this many items were tried
  int blockAtItem = -1;            // the item that waits until release() or cancel
  bool blocked = false;            // guarded by mutex
  bool released = false;           // guarded by mutex
  std::vector<std::string> listing;  // what entriesInDirectoryForItem answers (plus the run's version)
  // Recorded, guarded by mutex:
  std::vector<std::string> names;
  std::vector<std::string> entries;  // the version names given
  std::vector<std::string> removed;
  int rootRemovals = 0;
  int itemsTried = 0;

  void release();
  bool waitUntilBlocked(int milliseconds = 10000);
};

class ScriptedTarget : public QVBackupTarget {
 public:
  explicit ScriptedTarget(const QVTarget& options) : QVBackupTarget(options) {}
  std::optional<std::vector<std::string>> entriesInDirectoryForItem(const QVGroup& group) override;
  void removeRootEntryForGroup(const QVGroup& group) override;
  bool removeEntry(const std::string& entry, const QVGroup& forItem) override;
  bool backupItem(const std::string& path, const QVGroup& ofGroup, const std::string& withName,
                  const std::string& toEntry, QVError* error) override;
  bool isAvailable() override;

  // Makes "scripted" destinations from now on, answering from script (which must outlive them).
  static void install(Script* script);
  static void uninstall();
};

}  // namespace qvtest
