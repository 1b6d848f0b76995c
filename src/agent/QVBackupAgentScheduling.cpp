// Schedule timers: one one-shot timer per scheduled group, armed on the main loop.
#include <algorithm>

#include "agent/QVBackupAgent.h"
#include "platform/QVRunLoop.h"
#include "platform/QVSchedule.h"

void QVBackupAgent::sheduleTimerForGroup(const QVGroupRef& group, double withMaxTimeInterval) {
  if (!group) return;
  const QVDate now = std::chrono::system_clock::now();
  std::optional<QVDate> fireDate =
      qv::nextFireDateForScheduleLastFireDate(group->schedule, group->lastBackupAttemptDate, now);
  if (!fireDate) return;
  if (withMaxTimeInterval > 0.0) {
    const auto cap = std::chrono::duration_cast<QVDate::duration>(std::chrono::duration<double>(withMaxTimeInterval));
    if (*fireDate - now > cap) fireDate = now + cap;
  }
  const std::string groupID = group->identifier;
  auto timer = std::make_shared<QVTimer>(*fireDate, [this, groupID](QVTimer& fired) { startBackup(fired, groupID); });
  // A timer that the table held is replaced without being invalidated: it stays armed and still fires.
  // Callers that arm after a run rely on the run entry having dropped it; the run entry refuses a group
  // that runs already, so a second firing never starts a second run.
  auto it = m_timers.find(groupID);
  if (it != m_timers.end()) m_droppedTimers.push_back(std::move(it->second));
  m_timers[groupID] = std::move(timer);
}

void QVBackupAgent::dropTimerForGroupWithID(const std::string& groupID, bool invalidate) {
  auto it = m_timers.find(groupID);
  if (it == m_timers.end()) return;
  if (invalidate)
    it->second->invalidate();
  else
    m_droppedTimers.push_back(it->second);
  m_timers.erase(it);
}

void QVBackupAgent::setupTimerForGroup(const QVGroupRef& group) {
  if (!group) return;
  dropTimerForGroupWithID(group->identifier, true);
  sheduleTimerForGroup(group);
}

void QVBackupAgent::stopTimers() {
  for (auto& [groupID, timer] : m_timers) timer->invalidate();
  m_timers.clear();
}

void QVBackupAgent::setupTimers() {
  stopTimers();
  for (const auto& group : m_groups) sheduleTimerForGroup(group);
}

void QVBackupAgent::startBackup(QVTimer& fired, const std::string& groupID) {
  fired.invalidate();
  // The table's entry goes, whatever timer it holds; a different one is dropped without invalidating it.
  auto it = m_timers.find(groupID);
  if (it != m_timers.end()) {
    if (it->second.get() != &fired) m_droppedTimers.push_back(it->second);
    m_timers.erase(it);
  }
  // Forget spent timers, but not the one whose action is running now: it goes at the next pass.
  std::shared_ptr<QVTimer> keepAlive;
  m_droppedTimers.erase(std::remove_if(m_droppedTimers.begin(), m_droppedTimers.end(),
                                       [&](const std::shared_ptr<QVTimer>& t) {
                                         if (t.get() == &fired) {
                                           keepAlive = t;
                                           return true;
                                         }
                                         return !t->isValid();
                                       }),
                        m_droppedTimers.end());
  if (keepAlive) qv::postToMainThread([keepAlive] {});
  backupGroup(groupWithIdentifier(groupID), false);
}

std::optional<QVDate> QVBackupAgent::timerFireDateForGroupWithID(const std::string& groupID) const {
  auto it = m_timers.find(groupID);
  if (it == m_timers.end()) return std::nullopt;
  return it->second->fireDate();
}

std::optional<QVDate> QVBackupAgent::nextRunDateForGroupWithID(const std::string& groupID, QVDate now) const {
  if (auto armed = timerFireDateForGroupWithID(groupID)) return armed;
  const QVGroupRef group = groupWithIdentifier(groupID);
  if (!group) return std::nullopt;
  std::optional<QVDate> next =
      qv::nextFireDateForScheduleLastFireDate(group->schedule, group->lastBackupAttemptDate, now);
  const std::int64_t code = group->statusCode.value_or(0);
  if (next && group->lastBackupAttemptDate && code != 0 && code != -128)
    next = std::min(*next, std::max(now, *group->lastBackupAttemptDate + std::chrono::hours(1)));
  return next;
}

std::size_t QVBackupAgent::numberOfArmedTimers() const {
  std::size_t count = 0;
  for (const auto& [groupID, timer] : m_timers)
    if (timer->isValid()) ++count;
  for (const auto& timer : m_droppedTimers)
    if (timer->isValid()) ++count;
  return count;
}
