// Schedule timers of the agent: arming with and without the cap, re-arming after runs and on wake, and
// the second timer that a run's end arms beside one still waiting. Past dates and short caps stand in
// for hours of waiting.
#include <gtest/gtest.h>

#include <ctime>

#include "platform/QVRunLoop.h"
#include "support/QVAgentTestSupport.h"

using namespace std::chrono_literals;

QVDictionary daily() { return {{"period", "daily"}, {"hour", 3}, {"minute", 0}}; }
QVDictionary manual() { return {{"period", "manual"}}; }
QVDate now() { return std::chrono::system_clock::now(); }

class QVBackupAgentSchedulingTest : public qvtest::AgentTest {
 protected:
  // Stores one scripted destination and groups (id, schedule, last attempt) of one file, then starts.
  void start(const std::vector<std::tuple<std::string, QVDictionary, std::optional<QVDate>>>& groups) {
    QVArray stored;
    for (const auto& [id, schedule, lastAttempt] : groups) {
      QVDictionary group = {{"id", id},      {"title", id},          {"items", QVArray{makeFile("source.txt")}},
                            {"target", "T"}, {"schedule", schedule}, {"versions", 3}};
      if (lastAttempt) group["lastBackupAttemptDate"] = *lastAttempt;
      stored.emplace_back(group);
    }
    const QVDictionary target = {{"id", "T"}, {"title", "Scripted"}, {"type", "scripted"}, {"path", env.root()}};
    qvtest::writeAgentPreferences(env, {{"targets", QVArray{target}}, {"groups", stored}});
    AgentTest::start();
  }
  bool runUntilIdle(const std::string& id) {
    return qv::runMainLoopUntil([&] { return !agent->isBackingUpGroupWithID(id); });
  }
  std::optional<QVDate> fireDate(const std::string& id) { return agent->timerFireDateForGroupWithID(id); }
};

// Which groups get a timer at start and on wake, for the program: QVDaemonCommandTest.
TEST_F(QVBackupAgentSchedulingTest, ArmsOneTimerPerScheduledGroupWithOrWithoutTheCap) {
  const QVDate start = now();
  this->start({{"manual", manual(), std::nullopt},
               {"daily", daily(), start},
               {"never-run", daily(), std::nullopt},
               {"past", daily(), start - 72h}});
  agent->setupTimers();
  agent->setupTimers();
  EXPECT_EQ(agent->numberOfArmedTimers(), 3u) << "set up again, none is doubled";
  agent->stopTimers();
  EXPECT_EQ(agent->numberOfArmedTimers(), 0u);

  // The cap brings a far date closer and keeps a past one; without it the schedule's date stands.
  agent->sheduleTimerForGroup(agent->groupWithIdentifier("daily"), 60.0);
  EXPECT_LE(fireDate("daily").value() - start, 61s);
  EXPECT_GE(fireDate("daily").value() - start, 59s);
  agent->sheduleTimerForGroup(agent->groupWithIdentifier("daily"), 0.0);
  EXPECT_GT(fireDate("daily").value() - start, 61s);
  agent->sheduleTimerForGroup(agent->groupWithIdentifier("past"), 3600.0);
  EXPECT_LT(fireDate("past").value(), start);
}

TEST_F(QVBackupAgentSchedulingTest, ATimerFiringDuringARunIsRefusedAndTheRunsEndRearms) {
  start({{"g", daily(), now() - 72h}});
  script.blockAtItem = 0;
  // The overdue timer starts the run at the first pass of the loop.
  ASSERT_TRUE(script.waitUntilBlocked(0) || qv::runMainLoopUntil([&] { return agent->isBackingUpGroupWithID("g"); }));
  ASSERT_TRUE(script.waitUntilBlocked());
  // A wake while the group runs arms a timer; it fires at once (the due date passed) and is refused.
  logged.lines(true);
  agent->systemDidWake();
  ASSERT_TRUE(qv::runMainLoopUntil([&] { return !logged.lines().empty(); }, 5s));
  EXPECT_EQ(logged.lines().front(), "QVBackupAgent warning : Current group is backing up now.");
  EXPECT_FALSE(fireDate("g"));
  script.release();
  ASSERT_TRUE(runUntilIdle("g"));
  EXPECT_TRUE(fireDate("g"));
  EXPECT_EQ(script.itemsTried, 1);
}

TEST_F(QVBackupAgentSchedulingTest, ATimerStillWaitingWhenARunEndsFiresBesideTheNewOne) {
  // Daily, half a day from now: the next scheduled moment is always more than an hour away.
  std::time_t t = std::chrono::system_clock::to_time_t(now());
  std::tm local{};
  localtime_r(&t, &local);
  start({{"g", {{"period", "daily"}, {"hour", (local.tm_hour + 12) % 24}, {"minute", 0}}, now()}});
  script.blockAtItem = 0;
  agent->backupGroupWithID("g");
  ASSERT_TRUE(script.waitUntilBlocked());
  agent->sheduleTimerForGroup(agent->groupWithIdentifier("g"), 1.0);  // armed during the run, due in a second
  script.release();
  ASSERT_TRUE(runUntilIdle("g"));
  // The run's end armed a second timer without invalidating the first: both are armed.
  EXPECT_EQ(agent->numberOfArmedTimers(), 2u);
  EXPECT_GT(fireDate("g").value() - now(), 1h);
  // The first fires, drops the second from the table without invalidating it, and starts a run whose
  // end arms a third; the second is still armed beside it.
  const int triedBefore = script.itemsTried;
  ASSERT_TRUE(qv::runMainLoopUntil([&] { return script.itemsTried > triedBefore; }, 5s));
  ASSERT_TRUE(runUntilIdle("g"));
  EXPECT_EQ(agent->numberOfArmedTimers(), 2u);
}
