// QVStatusNotifierItem is the program's icon in the desktop's tray: an org.kde.StatusNotifierItem on the
// session bus whose menu is published over com.canonical.dbusmenu. It shows a menu model (QVMenuItem
// trees) handed in by its owner, follows it as it changes, and hands each click back as the clicked
// model item, so that an entry is always known by its identity and never by its (translated) title.
//
// It registers with org.kde.StatusNotifierWatcher whenever a watcher appears on the bus, also one that
// starts later or restarts; without a watcher, or without a session bus, it stays quiet and costs
// nothing. It never waits for the bus: connecting, taking its name and registering are asynchronous.
// Changes are gathered: after menuDidChange() the menu, icon and tooltip are brought up to date at most
// once per kUpdateInterval, updated in place while the menu keeps its shape, rebuilt when it does not.
//
// Owned by the daemon for the whole process. Main thread: everything arrives through the GLib main loop.
// The models it is handed must not call back into this object while they answer.
#pragma once

#include <chrono>
#include <functional>
#include <memory>
#include <string>
#include <vector>

class QVMenuItem;

class QVStatusNotifierItem {
 public:
  static constexpr std::chrono::milliseconds kUpdateInterval{250};

  enum class Status { idle, running, needsAttention };

  // What the icon shows besides its menu.
  struct Look {
    Status status = Status::idle;
    std::string toolTipTitle;
    std::string toolTipText;
  };

  struct Options {
    std::string id;             // the item's Id, the same across runs
    std::string title;          // the item's Title
    std::string iconThemePath;  // a folder holding hicolor/, where the icons below are found
    std::string idleIconName;
    std::string runningIconName;
    std::string attentionIconName;
  };

  using MenuModel = std::function<std::vector<std::shared_ptr<QVMenuItem>>()>;
  using LookModel = std::function<Look()>;
  // Told of a click on an entry; the item stays alive while the handler runs.
  using ClickHandler = std::function<void(QVMenuItem& item)>;

  // Starts publishing where a session bus is known (DBUS_SESSION_BUS_ADDRESS, or $XDG_RUNTIME_DIR/bus);
  // nullptr otherwise. The first menu and look are read once the bus has answered.
  static std::unique_ptr<QVStatusNotifierItem> publish(const Options& options, MenuModel menu, LookModel look,
                                                       ClickHandler onClick);
  ~QVStatusNotifierItem();
  QVStatusNotifierItem(const QVStatusNotifierItem&) = delete;
  QVStatusNotifierItem& operator=(const QVStatusNotifierItem&) = delete;

  // The menu model or the look changed: both are read again within kUpdateInterval.
  void menuDidChange();
  // Whether a watcher has accepted the item (since it last appeared).
  bool isRegistered() const;

 private:
  QVStatusNotifierItem();
  struct Impl;
  std::unique_ptr<Impl> m_impl;
};
