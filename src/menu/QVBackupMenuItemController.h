// QVBackupMenuItemController makes the status-menu items of the backup groups: a "Backup" heading and,
// per group, an item whose submenu tells the last backup or the running progress and offers
// "Backup Now" (or "No destination"), "Cancel backup" and "Remove group". It keeps each group's item
// between requests and updates it in place, so an open menu follows a running backup.
// Owned by the agent; refers to it without owning it. Main thread.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <vector>

#include "targets/QVGroup.h"

class QVBackupAgent;
class QVMenuItem;

class QVBackupMenuItemController {
 public:
  void setOwnerAgent(QVBackupAgent* agent) { m_ownerAgent = agent; }  // not owned
  QVBackupAgent* ownerAgent() const { return m_ownerAgent; }

  // nullopt when the agent has no groups.
  std::optional<std::vector<std::shared_ptr<QVMenuItem>>> menuItems();
  std::shared_ptr<QVMenuItem> menuItemForGroup(const QVGroupRef& group);
  std::string pasiveStatusForGroup(const QVGroup& group) const;
  void deleteInvalidItems();
  static bool isGroup(const QVGroup& group, const QVGroup& equalToGroup);

  // Actions of the submenu entries; sender is the chosen entry.
  void startBackup(QVMenuItem& sender);
  void showGroupInHostApp(QVMenuItem& sender);
  void cancelBackup(QVMenuItem& sender);
  void removeGroup(QVMenuItem& sender);

  // Run events from the agent.
  void agentDidStartBackupGroup(const QVGroupRef& group);
  void agentGroup(const QVGroupRef& group, std::int64_t didUpdateProgress);
  void agentDidFinishBackupGroup(const QVGroupRef& group);

 private:
  struct Record {
    QVGroup group;  // the group as it was when its item was made
    std::shared_ptr<QVMenuItem> menuItem;
  };

  QVBackupAgent* m_ownerAgent = nullptr;
  std::vector<Record> m_allGroups;
};
