#include "menu/QVBackupMenuItemController.h"

#include "agent/QVBackupAgent.h"
#include "platform/QVFoundation.h"
#include "platform/QVLocalization.h"
#include "platform/QVMenu.h"

namespace {

// Submenu entries, addressed by index.
constexpr std::size_t kStatusLine = 0;
constexpr std::size_t kBackupNow = 2;
constexpr std::size_t kCancelBackup = 3;
constexpr std::size_t kRemoveGroup = 4;

}  // namespace

bool QVBackupMenuItemController::isGroup(const QVGroup& group, const QVGroup& equalToGroup) {
  return group.title == equalToGroup.title && group.identifier == equalToGroup.identifier;
}

std::string QVBackupMenuItemController::pasiveStatusForGroup(const QVGroup& group) const {
  const std::string when =
      group.lastBackupDate ? qv::stringFromDate(*group.lastBackupDate) : QVLocalizedString("Never", this);
  return qv::stringWithFormat(QVLocalizedString("Last backup: %@", this), {when});
}

std::shared_ptr<QVMenuItem> QVBackupMenuItemController::menuItemForGroup(const QVGroupRef& group) {
  for (const auto& record : m_allGroups) {
    if (isGroup(record.group, *group)) {
      if (record.menuItem) return record.menuItem;
      break;
    }
  }
  // Each entry is identified by its English title, whatever language it is shown in.
  auto entry = [this](const char* title, void (QVBackupMenuItemController::*action)(QVMenuItem&),
                      const std::string& groupID, bool hidden) {
    auto item = std::make_shared<QVMenuItem>(QVLocalizedString(title, this),
                                             [this, action](QVMenuItem& sender) { (this->*action)(sender); });
    item->setIdentifier(title);
    item->setRepresentedObject(groupID);
    item->setHidden(hidden);
    return item;
  };
  auto submenu = std::make_shared<QVMenu>();
  submenu->addItem(std::make_shared<QVMenuItem>(pasiveStatusForGroup(*group)));
  submenu->addItem(QVMenuItem::separatorItem());
  submenu->addItem(entry("Backup Now", &QVBackupMenuItemController::startBackup, group->identifier, false));
  submenu->addItem(entry("Cancel backup", &QVBackupMenuItemController::cancelBackup, group->identifier, true));
  submenu->addItem(entry("Remove group", &QVBackupMenuItemController::removeGroup, group->identifier, false));
  auto item = std::make_shared<QVMenuItem>(group->title);
  item->setIndentationLevel(1);
  item->setSubmenu(submenu);
  m_allGroups.push_back({*group, item});
  return item;
}

std::optional<std::vector<std::shared_ptr<QVMenuItem>>> QVBackupMenuItemController::menuItems() {
  if (!m_ownerAgent || m_ownerAgent->groups().empty()) return std::nullopt;
  std::vector<std::shared_ptr<QVMenuItem>> items;
  items.push_back(std::make_shared<QVMenuItem>(QVLocalizedString("Backup", this)));
  items.push_back(QVMenuItem::separatorItem());
  for (const auto& group : m_ownerAgent->groups()) {
    auto item = menuItemForGroup(group);
    QVMenuItem& backupNow = item->submenu()->itemAtIndex(kBackupNow);
    if (group->target.value_or("") == "nil") {
      backupNow.setTitle(QVLocalizedString("No destination", this));
      backupNow.setIdentifier("No destination");
      backupNow.setAction([this](QVMenuItem& sender) { showGroupInHostApp(sender); });
    } else {
      backupNow.setTitle(QVLocalizedString("Backup Now", this));
      backupNow.setIdentifier("Backup Now");
      backupNow.setAction([this](QVMenuItem& sender) { startBackup(sender); });
    }
    backupNow.setRepresentedObject(group->identifier);
    items.push_back(item);
  }
  deleteInvalidItems();
  return items;
}

void QVBackupMenuItemController::deleteInvalidItems() {
  std::vector<Record> kept;
  if (m_ownerAgent) {
    for (const auto& group : m_ownerAgent->groups()) {
      for (const auto& record : m_allGroups) {
        if (isGroup(record.group, *group)) {
          kept.push_back(record);
          break;
        }
      }
    }
  }
  m_allGroups = std::move(kept);
}

void QVBackupMenuItemController::startBackup(QVMenuItem& sender) {
  if (m_ownerAgent && !sender.representedObject().empty())
    m_ownerAgent->backupGroupWithID(sender.representedObject(), false);
}

void QVBackupMenuItemController::showGroupInHostApp(QVMenuItem& sender) {
  if (m_ownerAgent && !sender.representedObject().empty())
    m_ownerAgent->showGroupsWithIDs({sender.representedObject()});
}

void QVBackupMenuItemController::cancelBackup(QVMenuItem& sender) {
  if (m_ownerAgent && !sender.representedObject().empty())
    m_ownerAgent->cancelBackupGroupWithID(sender.representedObject());
}

void QVBackupMenuItemController::removeGroup(QVMenuItem& sender) {
  if (m_ownerAgent && !sender.representedObject().empty()) {
    const std::string groupID = sender.representedObject();  // the sender may go with the group
    m_ownerAgent->removeGroupWithID(groupID);
  }
}

void QVBackupMenuItemController::agentDidStartBackupGroup(const QVGroupRef& group) {
  QVMenu& submenu = *menuItemForGroup(group)->submenu();
  submenu.itemAtIndex(kStatusLine).setTitle(QVLocalizedString("Backing up...", this));
  submenu.itemAtIndex(kBackupNow).setHidden(true);
  submenu.itemAtIndex(kCancelBackup).setHidden(false);
  submenu.itemAtIndex(kRemoveGroup).setHidden(true);
}

void QVBackupMenuItemController::agentGroup(const QVGroupRef& group, std::int64_t didUpdateProgress) {
  QVMenu& submenu = *menuItemForGroup(group)->submenu();
  submenu.itemAtIndex(kStatusLine)
      .setTitle(qv::stringWithFormat(QVLocalizedString("Backup progress: %ld%%", this), {didUpdateProgress}));
}

void QVBackupMenuItemController::agentDidFinishBackupGroup(const QVGroupRef& group) {
  QVMenu& submenu = *menuItemForGroup(group)->submenu();
  submenu.itemAtIndex(kStatusLine).setTitle(pasiveStatusForGroup(*group));
  submenu.itemAtIndex(kBackupNow).setHidden(false);
  submenu.itemAtIndex(kCancelBackup).setHidden(true);
  submenu.itemAtIndex(kRemoveGroup).setHidden(false);
}
