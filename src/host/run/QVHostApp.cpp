#include "host/run/QVHostApp.h"

#include <cstdio>
#include <ostream>

#include "agent/QVBackupAgent.h"
#include "host/run/QVDesktopNCTemplate.h"
#include "platform/QVDesktopNotifications.h"
#include "platform/QVLocalization.h"
#include "platform/QVLog.h"

namespace {

constexpr const char* kApplicationName = "stellwin-backup";

}  // namespace

QVHostApp::QVHostApp(std::ostream& out) : m_out(&out) {}

QVHostApp::~QVHostApp() = default;

QVDesktopNotifications* QVHostApp::desktopNotifications() {
  if (!m_desktopEnabled) return nullptr;
  if (!m_desktopTried) {
    m_desktopTried = true;
    m_desktop = QVDesktopNotifications::connect(kApplicationName);
  }
  return m_desktop.get();
}

std::string QVHostApp::desktopIconName(const std::string& imageName) {
  // The agent names images of its own; the desktop knows themed icons.
  if (imageName == "DraggingViewNotificationIcon") return "dialog-warning";
  if (imageName.empty()) return "drive-harddisk";
  return imageName;
}

void QVHostApp::writeMessage(const std::string& shown) {
  const std::string text = qv::redactedString(shown);
  if (m_messageWriter) {
    m_messageWriter(text);
    return;
  }
  std::fprintf(stderr, "%s: %s\n", kApplicationName, text.c_str());
  std::fflush(stderr);
}

void QVHostApp::writeNotificationText(const std::string& text) {
  if (m_notificationsElsewhere) {
    qv::debugLog("host", "notification (its run's outcome says it): " + qv::redactedString(text));
    return;
  }
  writeMessage(text);
}

void QVHostApp::templateWillShow(const QVNCTemplate& nctemplate) {
  if (!nctemplate.items().empty()) m_templateListeners.notify(nctemplate, nctemplate.items().back());
}

void QVHostApp::showGroupsWithIDs(const std::vector<std::string>& groupIDs) {
  if (m_groupsPresenter) return m_groupsPresenter(groupIDs);
  for (const auto& groupID : groupIDs) {
    QVGroupRef group = m_agent ? m_agent->groupWithIdentifier(groupID) : nullptr;
    if (!group) {
      *m_out << "(group " << groupID << " no longer exists)\n";
      continue;
    }
    *m_out << group->title << " (" << group->identifier << ")\n";
    if (group->items.empty()) *m_out << "  (no items)\n";
    for (const auto& item : group->items) *m_out << "  " << item << "\n";
  }
  m_out->flush();
}

QVTPAgent* QVHostApp::instanceWithClassName(const std::string& className) {
  return className == "QVTPAgent" ? this : nullptr;
}

std::unique_ptr<QVNCTemplate> QVHostApp::ncTemplateInstance() { return std::make_unique<QVDesktopNCTemplate>(*this); }

QVHostAppProxy* QVHostApp::hostAppProxyWithTargetId(const std::string& targetId, const std::string&) {
  return targetId == "QVBackup" ? this : nullptr;
}

QVNotification QVHostApp::notificationInstance() { return {}; }

void QVHostApp::showNotification(const QVNotification& notification) {
  QVDesktopNotifications* desktop = desktopNotifications();
  if (!desktop) {
    writeNotificationText(notification.text);
    return;
  }
  std::vector<QVDesktopNotifications::Action> actions;
  if (!notification.button1Text.empty()) actions.push_back({"1", notification.button1Text});
  if (!notification.button2Text.empty()) actions.push_back({"2", notification.button2Text});
  const std::string tag = notification.tag;
  auto action = notification.button1Action;
  const std::string userInfo = notification.userInfo;
  const int timeout = notification.liveTime > 0.0 ? static_cast<int>(notification.liveTime * 1000.0) : -1;
  std::uint32_t id = desktop->notify(
      0, QVLocalizedString("Stellwin Backup"), qv::redactedString(notification.text), actions,
      desktopIconName(notification.icon), timeout,
      [this, action, userInfo, tag](const std::string& key) {
        if (key == "1" && action) action(userInfo);
        // The second button only dismisses.
        if (auto it = m_bubblesByTag.find(tag); it != m_bubblesByTag.end() && m_desktop) m_desktop->close(it->second);
      },
      [this, tag](std::uint32_t) { m_bubblesByTag.erase(tag); });
  if (id == 0) {
    writeNotificationText(notification.text);
    return;
  }
  if (!tag.empty()) m_bubblesByTag[tag] = id;
}

void QVHostApp::removeNotificationWithTag(const std::string& tag) {
  auto it = m_bubblesByTag.find(tag);
  if (it == m_bubblesByTag.end()) return;
  const std::uint32_t id = it->second;
  m_bubblesByTag.erase(it);
  if (m_desktop) {
    m_desktop->forget(id);
    m_desktop->close(id);
  }
}

void QVHostApp::startStatusIconAnimation() {
  ++m_animations;
  m_animationListeners.notify(true, m_animations);
}

void QVHostApp::stopStatusIconAnimation() {
  if (m_animations > 0) --m_animations;
  m_animationListeners.notify(false, m_animations);
}
