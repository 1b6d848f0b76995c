// QVDaemonTray is the daemon's icon in the desktop's tray. It hands the agent's status menu (menuItems, in
// the agent's order) to the platform's QVStatusNotifierItem and passes each click to the entry's own
// action. Around the menu it guards the user:
//   - "Remove group" removes the group at once, as the menu defines; a notification "Removed group NAME"
//     then offers "Undo", which puts the group back whole (same identifier, items, destination, schedule,
//     versions and dates) at its place;
//   - the groups the menu or a notification asks to show ("No destination", "View Details...") are
//     shown in a notification with their state and the command that shows more.
// The icon is idle, running while any group runs (the host's counted status icon animation), and asks
// for attention after a failed run until that group's next complete run; the tooltip lists each group
// with its status line.
//
// Without a session bus the daemon has no tray and this object does nothing. Owned by the daemon
// command; uses the agent and the host without owning them, which outlive it. Main thread.
#pragma once

#include <cstdint>
#include <functional>
#include <iosfwd>
#include <memory>
#include <set>
#include <string>
#include <vector>

class QVBackupAgent;
class QVHostApp;
class QVMenuItem;
class QVStatusNotifierItem;
struct QVGroup;
struct QVRunOutcome;

class QVDaemonTray {
 public:
  // mayChange and didChange are the daemon's hooks around a change of the preferences (as for the
  // control socket): a click is ignored while mayChange answers false, and didChange follows each click.
  QVDaemonTray(QVBackupAgent& agent, QVHostApp& host, std::ostream& log, std::function<bool()> mayChange,
               std::function<void()> didChange);
  ~QVDaemonTray();
  QVDaemonTray(const QVDaemonTray&) = delete;
  QVDaemonTray& operator=(const QVDaemonTray&) = delete;

  // The groups may have changed: the menu follows.
  void groupsDidChange();
  void runStarted(const QVGroup& group);
  void runProgress(const std::string& groupID, std::int64_t percent);
  void runEnded(const QVRunOutcome& outcome);

  // Shows the groups in a notification (until the daemon has a window of its own).
  void showGroupsWithIDs(const std::vector<std::string>& groupIDs);

 private:
  void clicked(QVMenuItem& item);
  void offerUndo(const QVGroup& removed, std::size_t atIndex);
  void notify(const std::string& text, const std::string& buttonText, std::function<void()> onButton);
  std::string iconThemePath() const;

  QVBackupAgent& m_agent;
  QVHostApp& m_host;
  std::ostream& m_log;
  std::function<bool()> m_mayChange;
  std::function<void()> m_didChange;
  std::set<std::string> m_failedGroupIDs;  // last run failed, no complete run since
  std::vector<std::uint32_t> m_bubbles;    // notifications whose buttons call back here
  std::unique_ptr<QVStatusNotifierItem> m_item;
};
