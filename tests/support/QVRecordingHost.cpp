#include "support/QVRecordingHost.h"

#include <cstdio>

namespace qvtest {

namespace {
std::string joined(const std::vector<std::string>& list) {
  std::string s;
  for (const auto& item : list) s += (s.empty() ? "" : ",") + item;
  return s;
}
}  // namespace

void RecordingNCTemplate::show() {
  m_journal->push_back("template" + std::to_string(m_number) + ".push:" + items().back().name + "|" +
                       items().back().userInfo);
}

RecordingHost::RecordingHost(bool statusItem) : m_statusItem(statusItem) {}

std::vector<std::string> RecordingHost::linesStartingWith(const std::string& prefix) const {
  std::vector<std::string> lines;
  for (const auto& line : *journal)
    if (line.rfind(prefix, 0) == 0) lines.push_back(line);
  return lines;
}

QVTPAgent* RecordingHost::instanceWithClassName(const std::string& className) {
  return className == "QVTPAgent" ? this : nullptr;
}

std::unique_ptr<QVNCTemplate> RecordingHost::ncTemplateInstance() {
  auto t = std::make_unique<RecordingNCTemplate>(journal, static_cast<int>(templates.size()));
  templates.push_back(t.get());
  return t;
}

QVHostAppProxy* RecordingHost::hostAppProxyWithTargetId(const std::string& targetId, const std::string& protocol) {
  journal->push_back("hostAppProxy:" + targetId + "|" + protocol);
  return this;
}

void RecordingHost::showNotification(const QVNotification& notification) {
  shownNotifications.push_back(notification);
  journal->push_back("showNotification:" + notification.text);
}

void RecordingHost::removeNotificationWithTag(const std::string& tag) {
  journal->push_back("removeNotificationWithTag:" + tag);
}

void RecordingHost::startStatusIconAnimation() {
  ++animations;
  journal->push_back("startStatusIconAnimation");
}

void RecordingHost::stopStatusIconAnimation() {
  --animations;
  journal->push_back("stopStatusIconAnimation");
}

void RecordingHost::setBackupGroupsCount(std::size_t count) {
  groupsCount = count;
  journal->push_back("setBackupGroupsCount:" + std::to_string(count));
}

void RecordingHost::showGroupsWithIDs(const std::vector<std::string>& groupIDs) {
  journal->push_back("host.showGroupsWithIDs:" + joined(groupIDs));
}

void RecordingDelegate::backupProgress(double progress, const std::string& forGroupID, std::size_t item, QVBackupAgent&) {
  char text[64];
  std::snprintf(text, sizeof text, "%.2f", progress);
  journal->push_back("delegate.backupProgress:" + std::string(text) + "|" + forGroupID + "|" + std::to_string(item));
}

void RecordingDelegate::backupDidEndForGroup(const QVGroupRef& group, QVBackupAgent&) {
  journal->push_back("delegate.backupDidEndForGroup:" + (group ? group->title : std::string("<none>")));
}

void RecordingDelegate::backupFailedForGroup(const QVGroupRef& group, const std::optional<QVError>& error, QVBackupAgent&) {
  journal->push_back("delegate.backupFailedForGroup:" + (group ? group->title : std::string("<none>")) + "|" +
                     (error ? std::to_string(error->code) : std::string("-")));
}

void RecordingDelegate::groupsAndTargetsDidChangeInAgent(const std::vector<QVGroupRef>& groups,
                                                         const std::vector<QVTargetRef>& targets, QVBackupAgent&) {
  journal->push_back("delegate.groupsAndTargets:" + std::to_string(groups.size()) + "|" + std::to_string(targets.size()));
}

void RecordingDelegate::groupDidChangeInAgent(const QVGroupRef& group, QVBackupAgent&) {
  journal->push_back("delegate.groupDidChange:" + (group ? group->title : std::string("<none>")));
}

void RecordingDelegate::groupWithIDDidRemovedInAgent(const std::string& groupID, QVBackupAgent&) {
  journal->push_back("delegate.groupWithIDDidRemoved:" + groupID);
}

void RecordingDelegate::targetDidChangeInAgent(const QVTargetRef& target, QVBackupAgent&) {
  journal->push_back("delegate.targetDidChange:" + (target ? target->title : std::string("<none>")));
}

void RecordingDelegate::showGroupsWithIDs(const std::vector<std::string>& groupIDs) {
  journal->push_back("delegate.showGroupsWithIDs:" + joined(groupIDs));
}

void RecordingDelegate::setLastBackupDate(const std::optional<QVDate>& date) {
  journal->push_back(std::string("delegate.setLastBackupDate:") + (date ? "date" : "none"));
}

}  // namespace qvtest
