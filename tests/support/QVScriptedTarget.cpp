#include "support/QVScriptedTarget.h"

#include <algorithm>
#include <chrono>

namespace qvtest {

namespace {
Script* g_script = nullptr;
using Lock = std::unique_lock<std::mutex>;
}  // namespace

void Script::release() {
  Lock lock(mutex);
  released = true;
  changed.notify_all();
}

bool Script::waitUntilBlocked(int milliseconds) {
  Lock lock(mutex);
  return changed.wait_for(lock, std::chrono::milliseconds(milliseconds), [&] { return blocked; });
}

void ScriptedTarget::install(Script* script) {
  g_script = script;
  QVBackupTarget::setTestingMaker(!script ? nullptr : +[](const QVTarget& options) -> std::unique_ptr<QVBackupTarget> {
    return options.type == "scripted" ? std::make_unique<ScriptedTarget>(options) : nullptr;
  });
}

std::optional<std::vector<std::string>> ScriptedTarget::entriesInDirectoryForItem(const QVGroup&) {
  Lock lock(g_script->mutex);
  std::vector<std::string> listing = g_script->entries;
  std::erase_if(listing, [](const std::string& entry) {
    return std::find(g_script->removed.begin(), g_script->removed.end(), entry) != g_script->removed.end();
  });
  return listing;
}

void ScriptedTarget::removeRootEntryForGroup(const QVGroup&) {
  Lock lock(g_script->mutex);
  ++g_script->rootRemovals;
}

bool ScriptedTarget::removeEntry(const std::string& entry, const QVGroup&) {
  Lock lock(g_script->mutex);
  g_script->removed.push_back(entry);
  return true;
}

bool ScriptedTarget::backupItem(const std::string&, const QVGroup&, const std::string&, const std::string& toEntry,
                                QVError* error) {
  Lock lock(g_script->mutex);
  const std::size_t index = g_script->itemsTried++;
  if (std::find(g_script->entries.begin(), g_script->entries.end(), toEntry) == g_script->entries.end())
    g_script->entries.push_back(toEntry);
  lock.unlock();
  if (index < g_script->progress.size() && delegate())
    for (double fraction : g_script->progress[index]) delegate()->backupProgress(fraction);
  lock.lock();
  if (static_cast<int>(index) == g_script->blockAtItem) {
    g_script->blocked = true;
    g_script->changed.notify_all();
    while (!g_script->released && !isCancelled()) g_script->changed.wait_for(lock, std::chrono::milliseconds(5));
  }
  if (index >= g_script->failures.size() || !g_script->failures[index]) return true;
  const std::int64_t code = *g_script->failures[index];
  if (error && code != 0) *error = errorWithStatusCode(code, "scripted " + std::to_string(code), std::nullopt);
  return false;
}

bool ScriptedTarget::isAvailable() {
  Lock lock(g_script->mutex);
  return g_script->unavailableAfterItems < 0 || g_script->itemsTried < g_script->unavailableAfterItems;
}

}  // namespace qvtest
