#include "agent/QVBackupAgent.h"

#include <algorithm>
#include <filesystem>

#include "agent/QVBackupAgentDelegate.h"
#include "agent/QVBackupAgentRun.h"
#include "menu/QVBackupMenuItemController.h"
#include "platform/QVConstants.h"
#include "platform/QVFoundation.h"
#include "platform/QVKeychain.h"
#include "platform/QVLocalization.h"
#include "platform/QVLog.h"
#include "platform/QVRunLoop.h"
#include "platform/QVUserDefaults.h"
#include "platform/QVWakeMonitor.h"

namespace {

// The kinds whose credentials the keychain keeps: the networked ones, "webdav" beside those of the record.
bool isNetworkedType(const std::string& type) {
  return type == "ftp" || type == "ftps" || type == "dav" || type == "webdav";
}

}  // namespace

QVBackupAgent::QVBackupAgent(QVHostApplication* host)
    : m_host(host), m_self(std::make_shared<QVBackupAgent*>(this)), m_weakSelf(m_self) {
  loadPrefs();
  if (m_host && m_host->hasStatusItem()) {
    m_menuItemController = std::make_unique<QVBackupMenuItemController>();
    m_menuItemController->setOwnerAgent(this);
  }
  createNotificationTemplate();
  createWarningNotificationTemplate();
  m_wakeMonitor = std::make_unique<QVWakeMonitor>([this] { systemDidWake(); });
}

QVBackupAgent::~QVBackupAgent() {
  m_wakeMonitor.reset();
  // Work still queued for the main loop must find no agent.
  m_self.reset();
  if (m_ncTemplate) m_ncTemplate->setDelegate(nullptr);
  if (m_ncWarningTemplate) m_ncWarningTemplate->setDelegate(nullptr);
  // A run's thread uses its destination and this agent's posting entry until it ends: stop and wait.
  for (auto& [groupID, run] : m_activeBackupTargets) run->target->cancel();
  for (auto& [groupID, run] : m_activeBackupTargets)
    if (run->thread.joinable()) run->thread.join();
  m_activeBackupTargets.clear();
  m_menuItemController.reset();
  stopTimers();
  m_droppedTimers.clear();
}

// ---------------------------------------------------------------------------------------------------
// Preferences

std::optional<QVDictionary> QVBackupAgent::userDefaults() const {
  return QVUserDefaults::standardUserDefaults().dictionaryForKey(kQVBackupAgentDefaultsKey);
}

void QVBackupAgent::setUserDefaults(const QVDictionary& dictionary) {
  QVUserDefaults::standardUserDefaults().setObject(dictionary, kQVBackupAgentDefaultsKey);
}

bool QVBackupAgent::syncUserDefaults() { return QVUserDefaults::standardUserDefaults().synchronize(); }

std::string QVBackupAgent::serviceIdForTargetId(const std::string& targetID) const {
  return std::string(VendorIdentifierPrefix) + "." + kQVProductID + ".Backup.target." + targetID;
}

void QVBackupAgent::createDefaultBackupTarget() {
  const std::string folder = qv::stringByAppendingPathComponent(qv::documentsDirectory(),
                                                                qv::stringWithFormat("%@ Backups", {kQVProductName}));
  std::error_code ec;
  std::filesystem::create_directories(folder, ec);  // a failure is not fatal: the destination says so later
  auto target = std::make_shared<QVTarget>();
  target->identifier = qv::stringWithUUID();
  target->title = QVLocalizedString("My Mac", this);
  target->type = "local";
  target->server = "";
  target->port = 0;
  target->user = "";
  target->pass = "";
  target->path = folder;
  target->isDefault = true;
  m_targets.push_back(std::move(target));
}

void QVBackupAgent::loadPrefs() {
  auto defaults = userDefaults();
  if (!defaults) {
    if (QVUserDefaults::standardUserDefaults().objectForKey(kQVBackupAgentDefaultsKey))
      QVLog("QVBackupAgent: the stored preferences are not a dictionary; starting from defaults");
    createDefaultBackupTarget();
    return;
  }

  // Entries that cannot be read are kept aside and written back, never dropped silently.
  auto readArray = [&](const char* key) -> QVArray {
    const QVValue* value = qv::valueForKey(*defaults, key);
    if (!value) return {};
    if (!value->array()) {
      QVLog(std::string("QVBackupAgent: preferences key \"") + key + "\" is not a list; it is kept as \"" + key +
            "-unreadable\"");
      m_unreadablePrefs[std::string(key) + "-unreadable"] = *value;
      return {};
    }
    QVArray records;
    QVArray unreadable;
    for (const auto& element : *value->array()) {
      if (element.dictionary())
        records.push_back(element);
      else
        unreadable.push_back(element);
    }
    if (!unreadable.empty()) {
      QVLog(std::string("QVBackupAgent: ") + std::to_string(unreadable.size()) + " unreadable entr" +
            (unreadable.size() == 1 ? "y" : "ies") + " under \"" + key + "\" kept as \"" + key + "-unreadable\"");
      m_unreadablePrefs[std::string(key) + "-unreadable"] = QVValue(std::move(unreadable));
    }
    return records;
  };

  QVArray storedTargets = readArray("targets");
  if (storedTargets.empty()) {
    createDefaultBackupTarget();
  } else {
    QVKeychain& keychain = QVKeychain::sharedProxy();
    bool defaultSeen = false;
    for (const auto& stored : storedTargets) {
      std::vector<std::string> problems;
      auto target = std::make_shared<QVTarget>(QVTarget::fromDictionary(*stored.dictionary(), &problems));
      for (const auto& problem : problems) QVLog("QVBackupAgent: " + problem);
      if (auto item = keychain.keychainItemWithService(serviceIdForTargetId(target->identifier))) {
        if (!item->username().empty()) target->user = item->username();
        if (!item->password().empty()) target->pass = item->password();
      }
      // Only the presence of the mark counts, whatever its value.
      if (stored.dictionary()->count(kQVTargetIsDefaultKey)) defaultSeen = true;
      m_targets.push_back(std::move(target));
    }
    if (!defaultSeen && !m_targets.empty()) m_targets.front()->isDefault = true;
  }

  QVArray storedGroups = readArray("groups");
  if (storedGroups.empty()) return;
  for (const auto& stored : storedGroups) {
    std::vector<std::string> problems;
    auto group = std::make_shared<QVGroup>(QVGroup::fromDictionary(*stored.dictionary(), &problems));
    for (const auto& problem : problems) QVLog("QVBackupAgent: " + problem);
    // Preferences written before attempts were recorded.
    if (!group->lastBackupAttemptDate && group->lastBackupDate) group->lastBackupAttemptDate = group->lastBackupDate;
    m_groups.push_back(std::move(group));
  }

  createListDirecrtoriesInGroups();

  QVDate latest = qv::distantPast();
  for (const auto& group : m_groups)
    if (group->lastBackupDate && *group->lastBackupDate > latest) latest = *group->lastBackupDate;
  if (latest > qv::distantPast()) setLastBackupDate(latest);

  setupTimers();
  sendGroupsCountToHost();
}

void QVBackupAgent::savePrefs() {
  QVArray groups;
  groups.reserve(m_groups.size());
  for (const auto& group : m_groups) groups.emplace_back(group->dictionary());

  QVKeychain& keychain = QVKeychain::sharedProxy();
  QVArray targets;
  targets.reserve(m_targets.size());
  for (const auto& target : m_targets) {
    QVDictionary stored = target->otherKeys;
    stored[kQVBackupTargetTypeKey] = target->type;
    stored[kQVTitleKey] = target->title;
    stored[kQVIdentifierKey] = target->identifier;
    stored[kQVPathKey] = target->path;
    if (target->isDefault) stored[kQVTargetIsDefaultKey] = *target->isDefault;
    if (isNetworkedType(target->type)) {
      if (target->server) stored["server"] = *target->server;
      if (target->port) stored["port"] = *target->port;
      const std::string service = serviceIdForTargetId(target->identifier);
      auto item = keychain.keychainItemWithService(service);
      if (target->user) {
        const std::string password = target->pass.value_or("");
        if (item) {
          item->setUsername(*target->user);
          item->setPassword(password);
        } else if (keychain.addGenericKeychainItemForService(service, *target->user, password)) {
          item = keychain.keychainItemWithService(service);
        }
        if (item)
          item->setLabel(
              qv::stringWithFormat(QVLocalizedString("Stellwin Backup password for %@", this), {target->title}));
      } else if (item) {
        keychain.deleteItem(service);
      }
    } else {
      // A local destination keeps no server, port or keychain item.
      stored.erase("server");
      stored.erase("port");
    }
    targets.emplace_back(std::move(stored));
  }

  QVDictionary defaults = userDefaults().value_or(QVDictionary{});
  for (const auto& [key, value] : m_unreadablePrefs) defaults[key] = value;
  defaults["groups"] = std::move(groups);
  defaults["targets"] = std::move(targets);
  setUserDefaults(defaults);
}

void QVBackupAgent::sendGroupsCountToHost() {
  if (!m_host) return;
  if (QVTPAgent* agent = m_host->instanceWithClassName("QVTPAgent")) agent->setBackupGroupsCount(m_groups.size());
}

void QVBackupAgent::setLastBackupDate(const std::optional<QVDate>& date) {
  if (date == m_lastBackupDate) return;
  m_lastBackupDate = date;
  m_delegate.send([&](QVBackupAgentDelegate& delegate) { delegate.setLastBackupDate(m_lastBackupDate); });
}

void QVBackupAgent::setDelegate(const std::shared_ptr<QVBackupAgentDelegate>& delegate) {
  m_delegate = QVWeakProxy<QVBackupAgentDelegate>(delegate);
  m_delegate.send([&](QVBackupAgentDelegate& d) {
    d.setLastBackupDate(m_lastBackupDate);
    d.groupsAndTargetsDidChangeInAgent(m_groups, m_targets, *this);
  });
  // Replay the runs in progress: item 0 at 0.0, then every slot above 0.0.
  for (const auto& group : m_groups) {
    if (!group->progressInfo) continue;
    const std::vector<double> progress = *group->progressInfo;
    m_delegate.send([&](QVBackupAgentDelegate& d) {
      d.backupProgress(0.0, group->identifier, 0, *this);
      for (std::size_t i = 0; i < progress.size(); ++i)
        if (progress[i] > 0.0) d.backupProgress(progress[i], group->identifier, i, *this);
    });
  }
}

// ---------------------------------------------------------------------------------------------------
// Registry

QVGroupRef QVBackupAgent::groupWithIdentifier(const std::string& groupID) const {
  for (const auto& group : m_groups)
    if (group->identifier == groupID) return group;
  return nullptr;
}

QVTargetRef QVBackupAgent::targetWithIdentifier(const std::string& targetID) const {
  for (const auto& target : m_targets)
    if (target->identifier == targetID) return target;
  return nullptr;
}

QVTargetRef QVBackupAgent::defaultTarget() const {
  for (const auto& target : m_targets)
    if (target->isDefault.value_or(false)) return target;
  return nullptr;
}

std::unique_ptr<QVBackupTarget> QVBackupAgent::backupTargetWithIdentifier(const std::string& targetID) const {
  QVTargetRef target = targetWithIdentifier(targetID);
  if (!target) return nullptr;
  return QVBackupTarget::targetWithOptions(*target);
}

std::optional<std::vector<std::string>> QVBackupAgent::backupsForGroupWithID(const std::string& groupID) const {
  QVGroupRef group = groupWithIdentifier(groupID);
  if (!group || !group->target) return std::nullopt;
  auto target = backupTargetWithIdentifier(*group->target);
  if (!target) return std::nullopt;
  return target->entriesInDirectoryForItem(*group);
}

void QVBackupAgent::addItemsAtPaths(const std::vector<std::string>& paths, const std::string& toGroupWithName) {
  QVGroupRef group;
  for (const auto& candidate : m_groups) {
    if (candidate->title == toGroupWithName) {
      group = candidate;
      break;
    }
  }
  if (!group) {
    group = std::make_shared<QVGroup>();
    group->title = toGroupWithName;
    group->target = "nil";  // kept as the stored mark of "no destination"
    QVSchedule manual;
    manual.period = "manual";
    group->schedule = manual;
    group->identifier = qv::stringWithUUID();
    group->versions = 3;
    group->statusCode = 0;
    if (QVTargetRef target = defaultTarget()) group->target = target->identifier;
    m_groups.push_back(group);
    m_directoriesInGroup[group->identifier] = {};
  }

  std::vector<std::string> items = group->items;
  std::vector<std::string> dropped;
  std::vector<std::string>& folders = m_directoriesInGroup[group->identifier];
  auto contains = [](const std::vector<std::string>& list, const std::string& s) {
    return std::find(list.begin(), list.end(), s) != list.end();
  };

  for (const auto& path : paths) {
    if (contains(items, path)) continue;
    bool isDirectory = false;
    if (!qv::fileExistsAtPath(path, &isDirectory)) continue;
    if (isDirectory) {
      folders.push_back(path);
      const std::string prefix = path + "/";
      for (const auto& item : items)
        if (item.compare(0, prefix.size(), prefix) == 0) dropped.push_back(item);
      items.push_back(path);
    } else {
      // Only the immediate parent folder counts; a file deeper below a folder is an item of its own.
      if (!contains(folders, qv::stringByDeletingLastPathComponent(path))) items.push_back(path);
    }
  }
  if (!dropped.empty()) {
    auto isDropped = [&](const std::string& s) { return contains(dropped, s); };
    items.erase(std::remove_if(items.begin(), items.end(), isDropped), items.end());
    folders.erase(std::remove_if(folders.begin(), folders.end(), isDropped), folders.end());
  }
  group->items = std::move(items);

  savePrefs();
  syncUserDefaults();
  m_delegate.send([&](QVBackupAgentDelegate& d) { d.groupDidChangeInAgent(group, *this); });
  sendGroupsCountToHost();
}

void QVBackupAgent::updateGroup(const QVGroupRef& group) {
  if (!group) return;
  auto it = std::find_if(m_groups.begin(), m_groups.end(),
                         [&](const QVGroupRef& stored) { return stored->identifier == group->identifier; });
  if (it == m_groups.end()) {
    QVLog("QVBackupAgent: updateGroup: no stored group has the identifier " + group->identifier);
    return;
  }
  const std::optional<QVSchedule> oldSchedule = (*it)->schedule;
  // The record itself takes the place of the stored one: later changes by the caller reach the agent.
  *it = group;
  savePrefs();
  if (group->schedule != oldSchedule) setupTimerForGroup(group);
}

void QVBackupAgent::removeGroupWithID(const std::string& groupID) {
  auto it = std::find_if(m_groups.begin(), m_groups.end(),
                         [&](const QVGroupRef& stored) { return stored->identifier == groupID; });
  if (it != m_groups.end()) m_groups.erase(it);
  m_directoriesInGroup.erase(groupID);
  m_delegate.send([&](QVBackupAgentDelegate& d) { d.groupWithIDDidRemovedInAgent(groupID, *this); });
  savePrefs();
  syncUserDefaults();
  dropTimerForGroupWithID(groupID, true);
  sendGroupsCountToHost();
}

bool QVBackupAgent::restoreGroup(const QVGroup& group, std::size_t atIndex) {
  if (groupWithIdentifier(group.identifier)) return false;
  auto restored = std::make_shared<QVGroup>(group);
  restored->progressInfo.reset();
  m_groups.insert(m_groups.begin() + static_cast<std::ptrdiff_t>(std::min(atIndex, m_groups.size())), restored);
  std::vector<std::string>& folders = m_directoriesInGroup[restored->identifier];
  folders.clear();
  for (const auto& item : restored->items) {
    bool isDirectory = false;
    if (qv::fileExistsAtPath(item, &isDirectory) && isDirectory) folders.push_back(item);
  }
  savePrefs();
  syncUserDefaults();
  m_delegate.send([&](QVBackupAgentDelegate& d) { d.groupDidChangeInAgent(restored, *this); });
  setupTimerForGroup(restored);
  sendGroupsCountToHost();
  return true;
}

void QVBackupAgent::removeItemWithPath(const std::string& path, const std::string& fromGroupWithID) {
  removeItemsWithPaths({path}, fromGroupWithID);
}

void QVBackupAgent::removeItemsWithPaths(const std::vector<std::string>& paths, const std::string& fromGroupWithID) {
  QVGroupRef group = groupWithIdentifier(fromGroupWithID);
  if (group) {
    auto isGiven = [&](const std::string& s) { return std::find(paths.begin(), paths.end(), s) != paths.end(); };
    group->items.erase(std::remove_if(group->items.begin(), group->items.end(), isGiven), group->items.end());
    auto folders = m_directoriesInGroup.find(fromGroupWithID);
    if (folders != m_directoriesInGroup.end())
      folders->second.erase(std::remove_if(folders->second.begin(), folders->second.end(), isGiven),
                            folders->second.end());
  }
  savePrefs();
  syncUserDefaults();
  m_delegate.send([&](QVBackupAgentDelegate& d) { d.groupDidChangeInAgent(group, *this); });
}

void QVBackupAgent::createTargetWithDictionary(const QVTarget& target) {
  auto stored = std::make_shared<QVTarget>(target);
  m_targets.push_back(stored);
  m_delegate.send([&](QVBackupAgentDelegate& d) { d.targetDidChangeInAgent(stored, *this); });
  savePrefs();
  syncUserDefaults();
}

void QVBackupAgent::removeTargetWithID(const std::string& targetID) {
  auto it = std::find_if(m_targets.begin(), m_targets.end(),
                         [&](const QVTargetRef& stored) { return stored->identifier == targetID; });
  if (it == m_targets.end()) return;
  m_targets.erase(it);
  savePrefs();
  syncUserDefaults();
}

void QVBackupAgent::updateTarget(const QVTarget& target) {
  auto it = std::find_if(m_targets.begin(), m_targets.end(),
                         [&](const QVTargetRef& stored) { return stored->identifier == target.identifier; });
  if (it == m_targets.end()) return;
  *it = std::make_shared<QVTarget>(target);
  savePrefs();
}

void QVBackupAgent::createListDirecrtoriesInGroups() {
  for (const auto& group : m_groups) {
    std::vector<std::string>& folders = m_directoriesInGroup[group->identifier];
    folders.clear();
    for (const auto& item : group->items) {
      bool isDirectory = false;
      if (qv::fileExistsAtPath(item, &isDirectory) && isDirectory) folders.push_back(item);
    }
  }
}

void QVBackupAgent::systemDidWake() { setupTimers(); }
