// Failure and warning notifications through the host's templates, their buttons, and the menu items.
#include "agent/QVBackupAgent.h"
#include "agent/QVBackupAgentDelegate.h"
#include "menu/QVBackupMenuItemController.h"
#include "platform/QVLocalization.h"

namespace {

std::string failureShortedString(const void* context, const std::string& firstItem, long otherItems) {
  return QVLocalizedNumberStringWithFormat(
      context, "Backup for groups failed: %1$@ There are %?2$d other errors. For more information, click View Details.",
      {firstItem, static_cast<std::int64_t>(otherItems)});
}

std::string warningShortedString(const void* context, const std::string& firstItem, long otherItems) {
  return qv::stringWithFormat(
      QVLocalizedString("Backup for group %1$@ and %2$d others was successful with warning: Some items are missing.",
                        context),
      {firstItem, static_cast<std::int64_t>(otherItems)});
}

}  // namespace

void QVBackupAgent::createNotificationTemplate() {
  if (!m_host) return;
  m_ncTemplate = m_host->ncTemplateInstance();
  if (!m_ncTemplate) return;
  QVNCTemplate& t = *m_ncTemplate;
  t.setDelegate(this);
  t.setMaxNumberOfVisibleItems(10);
  t.setSingleMessageTemplate(QVLocalizedString("Backup for group failed: %@", this));
  t.setMultiMessageTemplate(QVLocalizedString("Backup for groups failed: %@", this));
  t.setShortedMultiMessageStringCreationFunction(&failureShortedString);
  QVNotification& n = t.notification();
  n.button1Text = QVLocalizedString("View Details...", this);
  n.button2Text = QVLocalizedString("Cancel");
  n.liveTime = 10.0;
}

void QVBackupAgent::createWarningNotificationTemplate() {
  if (!m_host) return;
  m_ncWarningTemplate = m_host->ncTemplateInstance();
  if (!m_ncWarningTemplate) return;
  QVNCTemplate& t = *m_ncWarningTemplate;
  t.setDelegate(this);
  t.setMaxNumberOfVisibleItems(1);
  t.setSingleMessageTemplate(
      QVLocalizedString("Backup for group %@ was successful with warning: Some items are missing.", this));
  // No multi-message template, deliberately: several warnings are shortened.
  t.setShortedMultiMessageStringCreationFunction(&warningShortedString);
  QVNotification& n = t.notification();
  n.icon = "DraggingViewNotificationIcon";
  n.button1Text = QVLocalizedString("Review", this);
  n.button2Text = QVLocalizedString("Close");
  n.liveTime = 10.0;
}

void QVBackupAgent::showUserPopupForGroup(const QVGroupRef& group, const std::optional<QVError>& withError) {
  if (!m_ncTemplate || !group) return;
  // A missing suggestion reads as the platform's text for a missing value.
  const std::string suggestion =
      withError && withError->recoverySuggestion ? *withError->recoverySuggestion : std::string("(null)");
  m_ncTemplate->pushItem({qv::stringWithFormat("%@ - %@", {group->title, suggestion}), group->identifier});
}

void QVBackupAgent::showWarningPopupForGroup(const QVGroupRef& group) {
  if (!m_ncWarningTemplate || !group) return;
  m_ncWarningTemplate->pushItem({group->title, group->identifier});
}

void QVBackupAgent::ncTemplate(QVNCTemplate& nctemplate, long didReceiveButtonClickWithIndex) {
  // Only the first button leads to the groups; the second only dismisses.
  if (didReceiveButtonClickWithIndex != 1) return;
  std::vector<std::string> groupIDs;
  for (const auto& item : nctemplate.items())
    if (!item.userInfo.empty()) groupIDs.push_back(item.userInfo);
  if (!groupIDs.empty()) showGroupsWithIDs(groupIDs);
}

void QVBackupAgent::showGroupsWithIDs(const std::vector<std::string>& groupIDs) {
  if (!m_host) return;
  if (QVHostAppProxy* proxy = m_host->hostAppProxyWithTargetId("QVBackup", "QVBackupAgentDelegate"))
    proxy->showGroupsWithIDs(groupIDs);
}

void QVBackupAgent::showGroupWithID(const std::string& groupID) { showGroupsWithIDs({groupID}); }

std::optional<std::vector<std::shared_ptr<QVMenuItem>>> QVBackupAgent::menuItems() {
  if (!m_menuItemController) return std::nullopt;
  return m_menuItemController->menuItems();
}
