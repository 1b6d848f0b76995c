// Recording fakes of the host application and of the agent's delegate. Every call is written, as one
// line, into one shared journal, so that a test can check the order of messages across the host, its
// templates and the delegate. The host has a status item, so the agent makes its menu controller.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "agent/QVBackupAgentDelegate.h"
#include "platform/QVHostApplication.h"
#include "platform/QVNCTemplate.h"

namespace qvtest {

using Journal = std::vector<std::string>;

class RecordingNCTemplate : public QVNCTemplate {
 public:
  RecordingNCTemplate(std::shared_ptr<Journal> journal, int number) : m_journal(std::move(journal)), m_number(number) {}

 protected:
  void show() override;

 private:
  std::shared_ptr<Journal> m_journal;
  int m_number;
};

class RecordingHost : public QVHostApplication, public QVTPAgent, public QVHostAppProxy {
 public:
  explicit RecordingHost(bool statusItem = true);

  std::shared_ptr<Journal> journal = std::make_shared<Journal>();
  std::vector<QVNotification> shownNotifications;
  std::vector<RecordingNCTemplate*> templates;  // made by ncTemplateInstance, owned by the agent
  std::size_t groupsCount = 0;
  int animations = 0;  // starts minus stops

  // The journal lines that begin with prefix.
  std::vector<std::string> linesStartingWith(const std::string& prefix) const;

  QVTPAgent* instanceWithClassName(const std::string& className) override;
  bool hasStatusItem() const override { return m_statusItem; }
  std::unique_ptr<QVNCTemplate> ncTemplateInstance() override;
  QVHostAppProxy* hostAppProxyWithTargetId(const std::string& targetId, const std::string& protocol) override;
  QVNotification notificationInstance() override { return {}; }
  void showNotification(const QVNotification& notification) override;
  void removeNotificationWithTag(const std::string& tag) override;
  void startStatusIconAnimation() override;
  void stopStatusIconAnimation() override;
  void setBackupGroupsCount(std::size_t count) override;
  void showGroupsWithIDs(const std::vector<std::string>& groupIDs) override;

 private:
  bool m_statusItem;
};

class RecordingDelegate : public QVBackupAgentDelegate {
 public:
  explicit RecordingDelegate(std::shared_ptr<Journal> journal) : journal(std::move(journal)) {}
  std::shared_ptr<Journal> journal;

  void backupProgress(double progress, const std::string& forGroupID, std::size_t item, QVBackupAgent&) override;
  void backupDidEndForGroup(const QVGroupRef& group, QVBackupAgent&) override;
  void backupFailedForGroup(const QVGroupRef& group, const std::optional<QVError>& error, QVBackupAgent&) override;
  void groupsAndTargetsDidChangeInAgent(const std::vector<QVGroupRef>& groups, const std::vector<QVTargetRef>& targets,
                                        QVBackupAgent&) override;
  void groupDidChangeInAgent(const QVGroupRef& group, QVBackupAgent&) override;
  void groupWithIDDidRemovedInAgent(const std::string& groupID, QVBackupAgent&) override;
  void targetDidChangeInAgent(const QVTargetRef& target, QVBackupAgent&) override;
  void showGroupsWithIDs(const std::vector<std::string>& groupIDs) override;
  void setLastBackupDate(const std::optional<QVDate>& date) override;
};

}  // namespace qvtest
