// QVHostApp is stellwin-backup in the role of the host application that loads the agent. It is its own
// "QVTPAgent" instance (it keeps the number of groups) and its own backup-window proxy (showing groups
// prints them), hands out desktop notification templates, shows the agent's single notifications the
// same desktop way, and counts the status icon animation. It owns the desktop notification client,
// connected on first use; where none answers, notifications go to the message writer (stderr).
// Made before the agent and destroyed after it. Main thread.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <iosfwd>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "host/run/QVListeners.h"
#include "platform/QVHostApplication.h"
#include "platform/QVNCTemplate.h"

class QVBackupAgent;
class QVDesktopNotifications;

class QVHostApp : public QVHostApplication, public QVTPAgent, public QVHostAppProxy {
 public:
  // out: where showGroupsWithIDs prints the groups.
  explicit QVHostApp(std::ostream& out);
  ~QVHostApp() override;
  QVHostApp(const QVHostApp&) = delete;
  QVHostApp& operator=(const QVHostApp&) = delete;

  // Where showGroupsWithIDs prints from now on.
  void setOutput(std::ostream& out) { m_out = &out; }
  // The agent whose groups are printed; not owned. Set once the agent exists.
  void setAgent(const QVBackupAgent* agent) { m_agent = agent; }

  // Off: notifications are never shown as bubbles, only written.
  void setDesktopNotificationsEnabled(bool enabled) { m_desktopEnabled = enabled; }
  // The desktop notification client, connected on first call; nullptr where none answers.
  QVDesktopNotifications* desktopNotifications();
  // The desktop icon name for a notification's image name ("" for the default).
  static std::string desktopIconName(const std::string& imageName);

  // Where a notification's text goes when no bubble shows it. The default writes
  // "stellwin-backup: <text>" to stderr.
  void setMessageWriter(std::function<void(const std::string& text)> writer) { m_messageWriter = std::move(writer); }
  void writeMessage(const std::string& text);
  // On: a notification that no bubble shows is not written either (to the debug log only), as the
  // command prints each run's outcome itself.
  void setNotificationsPrintedElsewhere(bool elsewhere) { m_notificationsElsewhere = elsewhere; }
  // Where a notification's text goes when no bubble shows it.
  void writeNotificationText(const std::string& text);

  // Told each time a template shows, before it shows, with the item just pushed.
  using TemplateListener = std::function<void(const QVNCTemplate& nctemplate, const QVNCTemplateItem& item)>;
  [[nodiscard]] QVSubscription addTemplateListener(TemplateListener listener) {
    return m_templateListeners.add(std::move(listener));
  }
  void templateWillShow(const QVNCTemplate& nctemplate);
  // Where showGroupsWithIDs sends the groups instead of printing them (the daemon's tray); empty: printed.
  void setGroupsPresenter(std::function<void(const std::vector<std::string>& groupIDs)> presenter) {
    m_groupsPresenter = std::move(presenter);
  }
  // Told when the agent starts the status icon animation (as it starts a run: started is true) and stops
  // it (as a run ends), with the animation depth after the change.
  [[nodiscard]] QVSubscription addAnimationListener(std::function<void(bool started, int depth)> listener) {
    return m_animationListeners.add(std::move(listener));
  }

  std::size_t backupGroupsCount() const { return m_groupsCount; }
  // Starts minus stops, never below 0: above 0 while the agent says it is busy.
  int animationDepth() const { return m_animations; }

  // QVTPAgent
  void setBackupGroupsCount(std::size_t count) override { m_groupsCount = count; }
  // QVHostAppProxy: prints each group (title, identifier, items), or hands them to the groups presenter.
  void showGroupsWithIDs(const std::vector<std::string>& groupIDs) override;

  // QVHostApplication
  QVTPAgent* instanceWithClassName(const std::string& className) override;
  bool hasStatusItem() const override { return true; }
  std::unique_ptr<QVNCTemplate> ncTemplateInstance() override;
  QVHostAppProxy* hostAppProxyWithTargetId(const std::string& targetId, const std::string& protocol) override;
  QVNotification notificationInstance() override;
  void showNotification(const QVNotification& notification) override;
  void removeNotificationWithTag(const std::string& tag) override;
  void startStatusIconAnimation() override;
  void stopStatusIconAnimation() override;

 private:
  std::ostream* m_out;
  const QVBackupAgent* m_agent = nullptr;
  bool m_desktopEnabled = true;
  bool m_desktopTried = false;
  bool m_notificationsElsewhere = false;
  std::unique_ptr<QVDesktopNotifications> m_desktop;
  std::function<void(const std::string&)> m_messageWriter;
  QVListeners<const QVNCTemplate&, const QVNCTemplateItem&> m_templateListeners;
  QVListeners<bool, int> m_animationListeners;
  std::function<void(const std::vector<std::string>&)> m_groupsPresenter;
  std::map<std::string, std::uint32_t> m_bubblesByTag;  // single notifications on screen
  std::size_t m_groupsCount = 0;
  int m_animations = 0;
};
