// QVBackupAgent is the backup agent: the one object the host makes. It owns the groups and the
// destinations (persisted in the user-defaults store under "QVBackupAgent", credentials in the
// keychain), the schedule timers, the running backups with their destination objects, the notification
// templates and the status-menu controller. It runs each backup on a thread of its own and reports
// progress and outcomes to the status menu, the host and its delegate.
//
// Threads: everything here runs on the main thread (the GLib main loop), except backupProgress and
// backupCalculatedFiles, which a run's thread calls and which only post to the main thread. A run's
// thread works on a copy of the group taken when the run starts and never touches the agent's state.
// The host outlives the agent. Destroying the agent cancels the running backups and waits for their
// threads.
//
// A group's run:
//   idle --request, items--> running --items written, not cancelled--> idle (complete, status 0)
//                                    --nothing written / destination lost--> idle (failed, code or 1)
//                                    --cancel--> idle (cancelled, -128)
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "agent/QVRunReport.h"
#include "platform/QVHostApplication.h"
#include "platform/QVNCTemplate.h"
#include "platform/QVValue.h"
#include "platform/QVWeakProxy.h"
#include "targets/QVBackupTarget.h"
#include "targets/QVGroup.h"
#include "targets/QVTarget.h"

class QVBackupAgentDelegate;
class QVBackupMenuItemController;

// The key of the agent's dictionary in the user-defaults store.
inline constexpr const char* kQVBackupAgentDefaultsKey = "QVBackupAgent";
class QVMenuItem;
class QVTimer;
class QVWakeMonitor;

class QVBackupAgent : public QVNCTemplateDelegate {
 public:
  // Makes the tables, loads the preferences, makes the status-menu controller when the host has a
  // status item, makes the notification templates and starts listening for wake from sleep.
  explicit QVBackupAgent(QVHostApplication* host);
  ~QVBackupAgent() override;
  QVBackupAgent(const QVBackupAgent&) = delete;
  QVBackupAgent& operator=(const QVBackupAgent&) = delete;

  // ---- State and preferences
  std::optional<QVDictionary> userDefaults() const;
  void setUserDefaults(const QVDictionary& dictionary);  // memory only
  bool syncUserDefaults();                               // to disk
  std::string serviceIdForTargetId(const std::string& targetID) const;
  void createDefaultBackupTarget();
  void loadPrefs();
  void savePrefs();

  const std::vector<QVGroupRef>& groups() const { return m_groups; }
  const std::vector<QVTargetRef>& targets() const { return m_targets; }
  const std::map<std::string, std::vector<std::string>>& directoriesInGroup() const { return m_directoriesInGroup; }
  const std::optional<QVDate>& lastBackupDate() const { return m_lastBackupDate; }
  void setLastBackupDate(const std::optional<QVDate>& date);
  // Attaches the delegate (held without owning it) and tells it the current state.
  void setDelegate(const std::shared_ptr<QVBackupAgentDelegate>& delegate);
  QVBackupMenuItemController* menuItemController() const { return m_menuItemController.get(); }
  QVHostApplication* host() const { return m_host; }

  // ---- Registry
  QVGroupRef groupWithIdentifier(const std::string& groupID) const;
  QVTargetRef targetWithIdentifier(const std::string& targetID) const;
  QVTargetRef defaultTarget() const;
  std::unique_ptr<QVBackupTarget> backupTargetWithIdentifier(const std::string& targetID) const;
  std::optional<std::vector<std::string>> backupsForGroupWithID(const std::string& groupID) const;

  void addItemsAtPaths(const std::vector<std::string>& paths, const std::string& toGroupWithName);
  // Requires: group names a stored group.
  void updateGroup(const QVGroupRef& group);
  void removeGroupWithID(const std::string& groupID);
  // Beside the registry: puts a removed group back whole (identifier, title, items, destination,
  // schedule, versions, outcome and dates) at position atIndex (at the end when past it), saves, arms its
  // timer and tells the delegate. Returns false, changing nothing, when a group has its identifier.
  [[nodiscard]] bool restoreGroup(const QVGroup& group, std::size_t atIndex);
  void removeItemWithPath(const std::string& path, const std::string& fromGroupWithID);
  void removeItemsWithPaths(const std::vector<std::string>& paths, const std::string& fromGroupWithID);
  void createTargetWithDictionary(const QVTarget& target);
  void removeTargetWithID(const std::string& targetID);
  void updateTarget(const QVTarget& target);

  // ---- Backup runs
  void backupGroupWithID(const std::string& groupID);
  void backupGroupWithID(const std::string& groupID, bool notifyHostApp);
  void backupGroup(const QVGroupRef& group, bool notifyHostApp);
  // A group timer's entry: fired is the timer that fired for groupID.
  void startBackup(QVTimer& fired, const std::string& groupID);
  void cancelBackupGroupWithID(const std::string& groupID);
  bool isBackingUpGroupWithID(const std::string& groupID) const;
  std::size_t numberOfRunningBackups() const { return m_activeBackupTargets.size(); }
  // What the group's last run did, from the moment its outcome is handled; nullptr before any run.
  const QVRunReport* runReportForGroupWithID(const std::string& groupID) const;
  // The host's say over runs, beside the plug-in's interface: once set, a requested run (by the host, a
  // timer, a wake or the menu) starts only when gate answers true for its group. A refused request ends
  // as one refused while the group runs: nothing is logged and the group's timer stays dropped, so the
  // host, which refused it, starts or re-arms the group later. Main thread.
  void setRunGate(std::function<bool(const QVGroup&)> gate) { m_runGate = std::move(gate); }

  // Any thread: progress of item `item` of a running group.
  void backupProgress(double progress, const QVGroupRef& forGroup, std::size_t item);
  void backupCalculatedFiles(std::uint64_t files, std::uint64_t size, const QVGroupRef& forGroup, std::size_t item);

  static std::int64_t totalProgressForGroup(const std::vector<double>& progressInfo);
  void createListDirecrtoriesInGroups();

  // ---- Scheduling
  // A cap of 0.0 or less means no cap.
  void sheduleTimerForGroup(const QVGroupRef& group, double withMaxTimeInterval = 0.0);
  void setupTimerForGroup(const QVGroupRef& group);
  void stopTimers();
  void setupTimers();
  // The date at which the group's armed timer fires, if it has one in the table.
  std::optional<QVDate> timerFireDateForGroupWithID(const std::string& groupID) const;
  // When the group runs next by its schedule: its armed timer's date when it has one; otherwise the date
  // that arming it now would give (the schedule's next moment after the last attempt, at most an hour
  // after an attempt that failed). None for a group that runs only on request or is unknown. The one
  // answer to "next run" wherever it is shown.
  std::optional<QVDate> nextRunDateForGroupWithID(const std::string& groupID, QVDate now) const;
  std::size_t numberOfArmedTimers() const;

  // ---- Notifications and menu
  void createNotificationTemplate();
  void createWarningNotificationTemplate();
  void showUserPopupForGroup(const QVGroupRef& group, const std::optional<QVError>& withError);
  void showWarningPopupForGroup(const QVGroupRef& group);
  void ncTemplate(QVNCTemplate& nctemplate, long didReceiveButtonClickWithIndex) override;
  void showGroupsWithIDs(const std::vector<std::string>& groupIDs);
  void showGroupWithID(const std::string& groupID);
  std::optional<std::vector<std::shared_ptr<QVMenuItem>>> menuItems();
  long menuItemOrder() const { return 1; }
  QVNCTemplate* ncTemplate() const { return m_ncTemplate.get(); }
  QVNCTemplate* ncWarningTemplate() const { return m_ncWarningTemplate.get(); }

  // The same as a wake from sleep.
  void systemDidWake();

 private:
  struct Run;
  struct Outcome;

  void sendGroupsCountToHost();
  void performBackup(std::shared_ptr<Run> run);
  void backupProgressWithArguments(const QVGroupRef& group, double progress, std::size_t index);
  void removeProgressInfoForGroup(const QVGroupRef& group);
  void onBackupComplete(const QVGroupRef& group, bool showWarning);
  void onBackupFailed(const QVGroupRef& group, const std::optional<QVError>& error);
  void onBackupCancel(const QVGroupRef& group);
  void backupDidFinishForGroup(const QVGroupRef& group, std::int64_t withStatusCode);
  void dropTimerForGroupWithID(const std::string& groupID, bool invalidate);
  template <typename F>
  void postToSelf(F&& work);

  QVHostApplication* m_host;  // not owned; outlives the agent
  std::vector<QVTargetRef> m_targets;
  std::vector<QVGroupRef> m_groups;
  std::map<std::string, std::shared_ptr<QVTimer>> m_timers;
  // Timers dropped from the table without being invalidated: they stay armed and still fire.
  std::vector<std::shared_ptr<QVTimer>> m_droppedTimers;
  QVWeakProxy<QVBackupAgentDelegate> m_delegate;
  std::unique_ptr<QVBackupMenuItemController> m_menuItemController;
  std::optional<QVDate> m_lastBackupDate;
  std::map<std::string, std::vector<std::string>> m_directoriesInGroup;
  std::map<std::string, std::shared_ptr<Run>> m_activeBackupTargets;
  std::map<std::string, QVRunReport> m_runReports;  // by group identifier
  std::function<bool(const QVGroup&)> m_runGate;
  std::unique_ptr<QVNCTemplate> m_ncTemplate;
  std::unique_ptr<QVNCTemplate> m_ncWarningTemplate;
  std::unique_ptr<QVWakeMonitor> m_wakeMonitor;
  // Values under "groups" and "targets" that could not be read; written back under "<key>-unreadable".
  QVDictionary m_unreadablePrefs;
  // Posted work holds a weak reference to this; it is gone once the agent is. m_weakSelf is written
  // only by the constructor, so run threads may copy it while the main thread lets m_self go.
  std::shared_ptr<QVBackupAgent*> m_self;
  const std::weak_ptr<QVBackupAgent*> m_weakSelf;
};
