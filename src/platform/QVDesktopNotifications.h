// QVDesktopNotifications is the client of the desktop's notification service (org.freedesktop.Notifications
// on the session bus): it shows a bubble with buttons, updates a shown bubble in place, closes one, and
// reports the user's button clicks and the bubble's closing through handlers kept per bubble.
// The host owns one for the whole process and makes it only when it has something to show; connect()
// answers nullptr where no session bus is known or no notification service answers, and the host then
// writes its notifications to stderr. It never starts a bus of its own.
// Main thread: clicks and closings arrive through the GLib main loop, so only while it runs.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

class QVDesktopNotifications {
 public:
  // One button of a bubble: the key the service reports back, and the text it shows.
  struct Action {
    std::string key;
    std::string label;
  };
  using ActionHandler = std::function<void(const std::string& actionKey)>;
  // reason: 1 expired, 2 dismissed by the user, 3 closed by a call, 4 other.
  using ClosedHandler = std::function<void(std::uint32_t reason)>;

  // Connects when DBUS_SESSION_BUS_ADDRESS is set or $XDG_RUNTIME_DIR/bus exists, and a notification
  // service answers within a couple of seconds; nullptr otherwise (with a debug line, category "platform").
  static std::unique_ptr<QVDesktopNotifications> connect(const std::string& applicationName);
  ~QVDesktopNotifications();
  QVDesktopNotifications(const QVDesktopNotifications&) = delete;
  QVDesktopNotifications& operator=(const QVDesktopNotifications&) = delete;

  // Shows a bubble, or updates the one with replacesId in place (0: a new one). timeoutMilliseconds -1
  // leaves the time on screen to the service. Returns the bubble's id, 0 when the service refused or
  // did not answer. The handlers stay with the returned id until the bubble closes or forget() is called;
  // a handler may call back into this object.
  std::uint32_t notify(std::uint32_t replacesId, const std::string& summary, const std::string& body,
                       const std::vector<Action>& actions, const std::string& iconName, int timeoutMilliseconds,
                       ActionHandler onAction, ClosedHandler onClosed);
  // Asks the service to close the bubble; its closed handler runs when the service says it closed.
  void close(std::uint32_t id);
  // Drops the handlers of a bubble (its owner is going away); the bubble stays on screen.
  void forget(std::uint32_t id);

 private:
  QVDesktopNotifications();
  struct Impl;
  std::unique_ptr<Impl> m_impl;
};
