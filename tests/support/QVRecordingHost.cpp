#include "support/QVRecordingHost.h"

#include <cstdio>

namespace qvtest {

namespace {
class RecordingNCTemplate : public QVNCTemplate {
 public:
  RecordingNCTemplate(std::shared_ptr<Journal> journal, int number) : m_journal(std::move(journal)), m_number(number) {}

 protected:
  void show() override {
    m_journal->push_back("template" + std::to_string(m_number) + ".push:" + items().back().name + "|" +
                         items().back().userInfo);
  }

 private:
  std::shared_ptr<Journal> m_journal;
  int m_number;
};
}  // namespace

std::string joined(const Journal& list) {
  std::string s;
  for (const auto& item : list) s += (s.empty() ? "" : ",") + item;
  return s;
}

Journal RecordingHost::linesStartingWith(const std::string& prefix) const {
  Journal lines;
  for (const auto& line : *journal)
    if (line.rfind(prefix, 0) == 0) lines.push_back(line);
  return lines;
}

std::unique_ptr<QVNCTemplate> RecordingHost::ncTemplateInstance() {
  return std::make_unique<RecordingNCTemplate>(journal, m_templates++);
}

QVHostAppProxy* RecordingHost::hostAppProxyWithTargetId(const std::string& targetId, const std::string& protocol) {
  add("hostAppProxy:" + targetId + "|" + protocol);
  return this;
}

void RecordingHost::showNotification(const QVNotification& notification) {
  shownNotifications.push_back(notification);
  add("showNotification:" + notification.text);
}

void RecordingHost::setBackupGroupsCount(std::size_t count) {
  groupsCount = count;
  add("setBackupGroupsCount:" + std::to_string(count));
}

void RecordingDelegate::add(const std::string& line, bool changed) {
  journal->push_back("delegate." + line);
  if (changed && onChange) onChange();
}

void RecordingDelegate::backupProgress(double progress, const std::string& groupID, std::size_t item, QVBackupAgent&) {
  char text[32];
  std::snprintf(text, sizeof text, "%.2f", progress);
  add("backupProgress:" + std::string(text) + "|" + groupID + "|" + std::to_string(item));
}

}  // namespace qvtest
