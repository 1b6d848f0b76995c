// What the agent asks of the host application that loads it: its "QVTPAgent" instance (which keeps the
// number of groups), whether it has a status item, notification templates and single notifications,
// the host-side proxy that shows groups in the backup window, and the status icon animation.
// stellwin-backup implements it; the tests use a recording fake. Main thread. The host outlives the agent.
#pragma once

#include <cstddef>
#include <functional>
#include <memory>
#include <string>
#include <vector>

class QVNCTemplate;

// The host's live "QVTPAgent" instance.
class QVTPAgent {
 public:
  virtual ~QVTPAgent() = default;
  virtual void setBackupGroupsCount(std::size_t count) = 0;
};

// The host-side proxy of the backup window.
class QVHostAppProxy {
 public:
  virtual ~QVHostAppProxy() = default;
  virtual void showGroupsWithIDs(const std::vector<std::string>& groupIDs) = 0;
};

// One on-screen notification with two buttons. The first button sends button1Action with userInfo to
// its target (bound into the function); the second only dismisses.
struct QVNotification {
  std::string text;
  std::string tag;
  std::string button1Text;
  std::string button2Text;
  std::function<void(const std::string& userInfo)> button1Action;
  std::string userInfo;
  std::string icon;       // image name; "" for the host's default
  double liveTime = 0.0;  // seconds on screen; 0 for the host's default
};

class QVHostApplication {
 public:
  virtual ~QVHostApplication() = default;

  // The host's live instance of a named class; only "QVTPAgent" is asked for. nullptr when none.
  virtual QVTPAgent* instanceWithClassName(const std::string& className) = 0;
  // Whether the host has a status item (and so wants status-menu items).
  virtual bool hasStatusItem() const = 0;
  // A new notification template, owned by the caller.
  virtual std::unique_ptr<QVNCTemplate> ncTemplateInstance() = 0;
  // The host-side proxy for a target identifier and protocol name; nullptr when none.
  virtual QVHostAppProxy* hostAppProxyWithTargetId(const std::string& targetId, const std::string& protocol) = 0;
  // A new, empty notification object.
  virtual QVNotification notificationInstance() = 0;
  virtual void showNotification(const QVNotification& notification) = 0;
  virtual void removeNotificationWithTag(const std::string& tag) = 0;
  virtual void startStatusIconAnimation() = 0;
  virtual void stopStatusIconAnimation() = 0;
};
