#include "support/QVScriptedTarget.h"

#include <algorithm>
#include <chrono>

namespace qvtest {

namespace {
Script* g_script = nullptr;

std::unique_ptr<QVBackupTarget> makeScripted(const QVTarget& options) {
  if (options.type != "scripted" || !g_script) return nullptr;
  return std::make_unique<ScriptedTarget>(options);
}
}  // namespace

void Script::release() {
  std::lock_guard<std::mutex> lock(mutex);
  released = true;
  changed.notify_all();
}

bool Script::waitUntilBlocked(int milliseconds) {
  std::unique_lock<std::mutex> lock(mutex);
  return changed.wait_for(lock, std::chrono::milliseconds(milliseconds), [&] { return blocked; });
}

void ScriptedTarget::install(Script* script) {
  g_script = script;
  QVBackupTarget::setTestingMaker(&makeScripted);
}

void ScriptedTarget::uninstall() {
  QVBackupTarget::setTestingMaker(nullptr);
  g_script = nullptr;
}

std::optional<std::vector<std::string>> ScriptedTarget::entriesInDirectoryForItem(const QVGroup&) {
  std::lock_guard<std::mutex> lock(g_script->mutex);
  std::vector<std::string> listing = g_script->listing;
  for (const auto& entry : g_script->entries)
    if (std::find(listing.begin(), listing.end(), entry) == listing.end()) listing.push_back(entry);
  for (const auto& gone : g_script->removed) listing.erase(std::remove(listing.begin(), listing.end(), gone), listing.end());
  return listing;
}

void ScriptedTarget::removeRootEntryForGroup(const QVGroup&) {
  std::lock_guard<std::mutex> lock(g_script->mutex);
  ++g_script->rootRemovals;
}

bool ScriptedTarget::removeEntry(const std::string& entry, const QVGroup&) {
  std::lock_guard<std::mutex> lock(g_script->mutex);
  g_script->removed.push_back(entry);
  return true;
}

bool ScriptedTarget::backupItem(const std::string&, const QVGroup&, const std::string& withName,
                                const std::string& toEntry, QVError* error) {
  int index;
  {
    std::lock_guard<std::mutex> lock(g_script->mutex);
    index = g_script->itemsTried++;
    g_script->names.push_back(withName);
    if (std::find(g_script->entries.begin(), g_script->entries.end(), toEntry) == g_script->entries.end())
      g_script->entries.push_back(toEntry);
  }
  if (index < static_cast<int>(g_script->progress.size()))
    for (double fraction : g_script->progress[index])
      if (delegate()) delegate()->backupProgress(fraction);
  if (index == g_script->blockAtItem) {
    std::unique_lock<std::mutex> lock(g_script->mutex);
    g_script->blocked = true;
    g_script->changed.notify_all();
    while (!g_script->released && !isCancelled()) g_script->changed.wait_for(lock, std::chrono::milliseconds(5));
  }
  if (index < static_cast<int>(g_script->failures.size()) && g_script->failures[index]) {
    const std::int64_t code = *g_script->failures[index];
    if (error) *error = errorWithStatusCode(code, "scripted " + std::to_string(code), std::nullopt);
    return false;
  }
  return true;
}

bool ScriptedTarget::isAvailable() {
  std::lock_guard<std::mutex> lock(g_script->mutex);
  return g_script->unavailableAfterItems < 0 || g_script->itemsTried < g_script->unavailableAfterItems;
}

}  // namespace qvtest
