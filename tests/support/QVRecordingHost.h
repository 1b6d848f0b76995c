// Recording fakes of the host application (with a status item) and of the agent's delegate: every call
// becomes one line of a shared journal, so a test can check the order of messages across the host, its
// notification templates ("template<n>.push:<name>|<userInfo>", n counting from 0) and the delegate.
#pragma once

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "agent/QVBackupAgentDelegate.h"
#include "platform/QVHostApplication.h"
#include "platform/QVNCTemplate.h"

namespace qvtest {

using Journal = std::vector<std::string>;
std::string joined(const Journal& list);

class RecordingHost : public QVHostApplication, public QVTPAgent, public QVHostAppProxy {
 public:
  std::shared_ptr<Journal> journal = std::make_shared<Journal>();
  std::vector<QVNotification> shownNotifications;
  std::size_t groupsCount = 0;
  int animations = 0;  // starts minus stops

  Journal linesStartingWith(const std::string& prefix) const;
  QVTPAgent* instanceWithClassName(const std::string& name) override { return name == "QVTPAgent" ? this : nullptr; }
  bool hasStatusItem() const override { return true; }
  std::unique_ptr<QVNCTemplate> ncTemplateInstance() override;
  QVHostAppProxy* hostAppProxyWithTargetId(const std::string& targetId, const std::string& protocol) override;
  QVNotification notificationInstance() override { return {}; }
  void showNotification(const QVNotification& n) override;
  void removeNotificationWithTag(const std::string& tag) override { add("removeNotificationWithTag:" + tag); }
  void startStatusIconAnimation() override {
    ++animations;
    add("startStatusIconAnimation");
  }
  void stopStatusIconAnimation() override {
    --animations;
    add("stopStatusIconAnimation");
  }
  void setBackupGroupsCount(std::size_t n) override;
  void showGroupsWithIDs(const Journal& ids) override { add("host.showGroupsWithIDs:" + joined(ids)); }

 private:
  void add(const std::string& line) { journal->push_back(line); }
  int m_templates = 0;
};

// Journal begin with "delegate."; onChange, when set, runs after a group or destination change is journalled.
class RecordingDelegate : public QVBackupAgentDelegate {
 public:
  explicit RecordingDelegate(std::shared_ptr<Journal> journal) : journal(std::move(journal)) {}
  std::shared_ptr<Journal> journal;
  std::function<void()> onChange;

  void backupProgress(double progress, const std::string& groupID, std::size_t item, QVBackupAgent&) override;
  void backupDidEndForGroup(const QVGroupRef& g, QVBackupAgent&) override { add("backupDidEndForGroup:" + title(g)); }
  void backupFailedForGroup(const QVGroupRef& g, const std::optional<QVError>& error, QVBackupAgent&) override {
    add("backupFailedForGroup:" + title(g) + "|" + (error ? std::to_string(error->code) : "-"));
  }
  void groupsAndTargetsDidChangeInAgent(const std::vector<QVGroupRef>& groups, const std::vector<QVTargetRef>& targets,
                                        QVBackupAgent&) override {
    add("groupsAndTargets:" + std::to_string(groups.size()) + "|" + std::to_string(targets.size()));
  }
  void groupDidChangeInAgent(const QVGroupRef& g, QVBackupAgent&) override { add("groupDidChange:" + title(g), true); }
  void groupWithIDDidRemovedInAgent(const std::string& id, QVBackupAgent&) override {
    add("groupWithIDDidRemoved:" + id, true);
  }
  void targetDidChangeInAgent(const QVTargetRef& t, QVBackupAgent&) override {
    add("targetDidChange:" + title(t), true);
  }
  void showGroupsWithIDs(const Journal& ids) override { add("showGroupsWithIDs:" + joined(ids)); }
  void setLastBackupDate(const std::optional<QVDate>& date) override {
    add(date ? "setLastBackupDate:date" : "setLastBackupDate:none");
  }

 private:
  template <typename Ref>
  static std::string title(const Ref& ref) {
    return ref ? ref->title : "<none>";
  }
  void add(const std::string& line, bool changed = false);
};

}  // namespace qvtest
