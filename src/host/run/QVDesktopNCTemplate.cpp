#include "host/run/QVDesktopNCTemplate.h"

#include "host/run/QVHostApp.h"
#include "platform/QVDesktopNotifications.h"
#include "platform/QVLocalization.h"
#include "platform/QVLog.h"

QVDesktopNCTemplate::QVDesktopNCTemplate(QVHostApp& host) : m_host(host) {}

QVDesktopNCTemplate::~QVDesktopNCTemplate() {
  // The bubble may stay on screen; its clicks must not reach a template that is gone.
  if (m_bubbleId != 0)
    if (QVDesktopNotifications* desktop = m_host.desktopNotifications()) desktop->forget(m_bubbleId);
}

void QVDesktopNCTemplate::show() {
  m_host.templateWillShow(*this);
  // A destination's address may carry its password: it is shown as "***".
  const std::string text = qv::redactedString(composedText());
  if (text.empty()) return;

  QVDesktopNotifications* desktop = m_host.desktopNotifications();
  std::uint32_t id = 0;
  if (desktop) {
    const QVNotification& n = notification();
    std::vector<QVDesktopNotifications::Action> actions;
    if (!n.button1Text.empty()) actions.push_back({"1", n.button1Text});
    if (!n.button2Text.empty()) actions.push_back({"2", n.button2Text});
    const int timeout = n.liveTime > 0.0 ? static_cast<int>(n.liveTime * 1000.0) : -1;
    // The same bubble is updated while it is on screen, so several groups' messages gather in one.
    id = desktop->notify(
        m_bubbleId, QVLocalizedString("Stellwin Backup"), text, actions, QVHostApp::desktopIconName(n.icon), timeout,
        [this](const std::string& key) { bubbleButtonClicked(key); }, [this](std::uint32_t) { bubbleClosed(); });
  }
  if (id == 0) {
    // Written once: the next message must not repeat this one.
    m_bubbleId = 0;
    m_host.writeNotificationText(text);
    clearItems();
    return;
  }
  m_bubbleId = id;
}

void QVDesktopNCTemplate::bubbleButtonClicked(const std::string& actionKey) {
  const std::uint32_t id = m_bubbleId;
  if (actionKey == "1")
    buttonClicked(1);
  else if (actionKey == "2")
    buttonClicked(2);
  else
    return;
  clearItems();
  m_bubbleId = 0;
  if (QVDesktopNotifications* desktop = m_host.desktopNotifications()) {
    desktop->forget(id);
    desktop->close(id);
  }
}

void QVDesktopNCTemplate::bubbleClosed() {
  clearItems();
  m_bubbleId = 0;
}
