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
std::string joined(const std::vector<std::string>& list);

class RecordingNCTemplate : public QVNCTemplate {
 public:
  RecordingNCTemplate(std::shared_ptr<Journal> journal, int number) : m_journal(std::move(journal)), m_number(number) {}

 protected:
  void show() override {
    const QVNCTemplateItem& item = items().back();
    m_journal->push_back("template" + std::to_string(m_number) + ".push:" + item.name + "|" + item.userInfo);
  }

 private:
  std::shared_ptr<Journal> m_journal;
  int m_number;
};

class RecordingHost : public QVHostApplication, public QVTPAgent, public QVHostAppProxy {
 public:
  std::shared_ptr<Journal> journal = std::make_shared<Journal>();
  std::vector<QVNotification> shownNotifications;
  std::size_t groupsCount = 0;
  int animations = 0;  // starts minus stops

  std::vector<std::string> linesStartingWith(const std::string& prefix) const;
  QVTPAgent* instanceWithClassName(const std::string& name) override { return name == "QVTPAgent" ? this : nullptr; }
  bool hasStatusItem() const override { return true; }
  std::unique_ptr<QVNCTemplate> ncTemplateInstance() override {
    return std::make_unique<RecordingNCTemplate>(journal, m_templates++);
  }
  QVHostAppProxy* hostAppProxyWithTargetId(const std::string& targetId, const std::string& protocol) override {
    add("hostAppProxy:" + targetId + "|" + protocol);
    return this;
  }
  QVNotification notificationInstance() override { return {}; }
  void showNotification(const QVNotification& n) override {
    shownNotifications.push_back(n);
    add("showNotification:" + n.text);
  }
  void removeNotificationWithTag(const std::string& tag) override { add("removeNotificationWithTag:" + tag); }
  void startStatusIconAnimation() override { ++animations, add("startStatusIconAnimation"); }
  void stopStatusIconAnimation() override { --animations, add("stopStatusIconAnimation"); }
  void setBackupGroupsCount(std::size_t count) override {
    groupsCount = count;
    add("setBackupGroupsCount:" + std::to_string(count));
  }
  void showGroupsWithIDs(const std::vector<std::string>& ids) override { add("host.showGroupsWithIDs:" + joined(ids)); }

 private:
  void add(const std::string& line) { journal->push_back(line); }
  int m_templates = 0;
};

// Lines begin with "delegate."; onChange, when set, runs after a group or destination change is journalled.
class RecordingDelegate : public QVBackupAgentDelegate {
 public:
  explicit RecordingDelegate(std::shared_ptr<Journal> journal) : journal(std::move(journal)) {}
  std::shared_ptr<Journal> journal;
  std::function<void()> onChange;

  void backupProgress(double progress, const std::string& groupID, std::size_t item, QVBackupAgent&) override;
  void backupDidEndForGroup(const QVGroupRef& group, QVBackupAgent&) override {
    add("backupDidEndForGroup:" + title(group));
  }
  void backupFailedForGroup(const QVGroupRef& group, const std::optional<QVError>& error, QVBackupAgent&) override {
    add("backupFailedForGroup:" + title(group) + "|" + (error ? std::to_string(error->code) : "-"));
  }
  void groupsAndTargetsDidChangeInAgent(const std::vector<QVGroupRef>& groups, const std::vector<QVTargetRef>& targets,
                                        QVBackupAgent&) override {
    add("groupsAndTargets:" + std::to_string(groups.size()) + "|" + std::to_string(targets.size()));
  }
  void groupDidChangeInAgent(const QVGroupRef& g, QVBackupAgent&) override { add("groupDidChange:" + title(g), true); }
  void groupWithIDDidRemovedInAgent(const std::string& id, QVBackupAgent&) override {
    add("groupWithIDDidRemoved:" + id, true);
  }
  void targetDidChangeInAgent(const QVTargetRef& t, QVBackupAgent&) override { add("targetDidChange:" + title(t), true); }
  void showGroupsWithIDs(const std::vector<std::string>& ids) override { add("showGroupsWithIDs:" + joined(ids)); }
  void setLastBackupDate(const std::optional<QVDate>& date) override {
    add(std::string("setLastBackupDate:") + (date ? "date" : "none"));
  }

 private:
  template <typename Ref>
  static std::string title(const Ref& ref) { return ref ? ref->title : "<none>"; }
  void add(const std::string& line, bool changed = false) {
    journal->push_back("delegate." + line);
    if (changed && onChange) onChange();
  }
};

}  // namespace qvtest
