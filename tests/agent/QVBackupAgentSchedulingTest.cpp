// Schedule timers of the agent: arming with and without the cap, re-arming after runs and on wake, and
// the second timer that a run's end arms beside one that is still waiting. Dates in the past and short
// caps stand in for hours of waiting.
#include <gtest/gtest.h>

#include <filesystem>

#include "agent/QVBackupAgent.h"
#include "platform/QVFoundation.h"
#include "platform/QVLog.h"
#include "platform/QVRunLoop.h"
#include "platform/QVUserDefaults.h"
#include "support/QVRecordingHost.h"
#include "support/QVScriptedTarget.h"
#include "support/QVTestSupport.h"

namespace fs = std::filesystem;
using namespace std::chrono_literals;

namespace {

QVSchedule daily() { return QVSchedule::fromDictionary({{"period", "daily"}, {"hour", 3}, {"minute", 0}}); }

class QVBackupAgentSchedulingTest : public ::testing::Test {
 protected:
  void SetUp() override {
    qvtest::ScriptedTarget::install(&script);
    previousSink = qv::setLogSink([this](const std::string& line) { logLines.push_back(line); });
    source = env.root() + "/source.txt";
    qvtest::writeFile(source, "data");
  }
  void TearDown() override {
    agent.reset();
    qv::setLogSink(previousSink);
    qvtest::ScriptedTarget::uninstall();
  }

  // Stores preferences with one scripted destination and the given groups, then makes the agent.
  void start(const std::vector<QVGroup>& groups) {
    QVTarget target;
    target.identifier = "T";
    target.title = "Scripted";
    target.type = "scripted";
    target.path = env.root();
    QVArray storedGroups;
    for (auto group : groups) {
      group.target = "T";
      group.items = {source};
      storedGroups.emplace_back(group.dictionary());
    }
    QVUserDefaults::standardUserDefaults().setObject(
        QVDictionary{{"targets", QVArray{QVValue(target.dictionary())}}, {"groups", std::move(storedGroups)}},
        "QVBackupAgent");
    agent = std::make_unique<QVBackupAgent>(&host);
  }

  static QVGroup group(const std::string& id, std::optional<QVSchedule> schedule, std::optional<QVDate> lastAttempt) {
    QVGroup g;
    g.identifier = id;
    g.title = id;
    g.schedule = std::move(schedule);
    g.lastBackupAttemptDate = lastAttempt;
    g.versions = 3;
    return g;
  }

  qvtest::IsolatedEnvironment env;
  qvtest::Script script;
  qvtest::RecordingHost host;
  std::unique_ptr<QVBackupAgent> agent;
  std::vector<std::string> logLines;
  qv::QVLogSink previousSink;
  std::string source;
};

TEST_F(QVBackupAgentSchedulingTest, ArmsOneTimerPerScheduledGroupAndNoneForManualOnes) {
  const QVDate now = std::chrono::system_clock::now();
  start({group("manual", QVSchedule{}, std::nullopt), group("daily", daily(), now),
         group("never-run", daily(), std::nullopt)});
  EXPECT_FALSE(agent->timerFireDateForGroupWithID("manual"));
  ASSERT_TRUE(agent->timerFireDateForGroupWithID("daily"));
  EXPECT_GT(*agent->timerFireDateForGroupWithID("daily"), now);
  EXPECT_TRUE(agent->timerFireDateForGroupWithID("never-run"));
  agent->setupTimers();
  agent->setupTimers();
  EXPECT_EQ(agent->numberOfArmedTimers(), 2u);
  agent->stopTimers();
  EXPECT_EQ(agent->numberOfArmedTimers(), 0u);
  agent->systemDidWake();  // a wake re-arms every timer
  EXPECT_EQ(agent->numberOfArmedTimers(), 2u);
}

TEST_F(QVBackupAgentSchedulingTest, TheCapBringsAFarDateCloserButKeepsNearAndPastOnes) {
  const QVDate now = std::chrono::system_clock::now();
  start({group("far", daily(), now), group("past", daily(), now - 72h)});
  QVGroupRef far = agent->groupWithIdentifier("far");
  agent->sheduleTimerForGroup(far, 60.0);
  auto fire = agent->timerFireDateForGroupWithID("far");
  ASSERT_TRUE(fire);
  EXPECT_LE(*fire - now, 61s);
  EXPECT_GE(*fire - now, 59s);
  agent->sheduleTimerForGroup(far, 0.0);  // no cap
  EXPECT_GT(*agent->timerFireDateForGroupWithID("far") - now, 61s);

  agent->stopTimers();
  QVGroupRef past = agent->groupWithIdentifier("past");
  agent->sheduleTimerForGroup(past, 3600.0);
  EXPECT_LT(*agent->timerFireDateForGroupWithID("past"), now);
}

TEST_F(QVBackupAgentSchedulingTest, AGroupDueWhileAsleepRunsAtOnceAfterLoad) {
  const QVDate longAgo = std::chrono::system_clock::now() - 72h;
  start({group("overdue", daily(), longAgo)});
  QVGroupRef g = agent->groupWithIdentifier("overdue");
  ASSERT_TRUE(qv::runMainLoopUntil([&] { return g->lastBackupAttemptDate != longAgo && !agent->isBackingUpGroupWithID("overdue"); }, 10s));
  EXPECT_EQ(g->statusCode, 0);
  // After a complete run the next date comes from the schedule: tomorrow at the latest.
  auto fire = agent->timerFireDateForGroupWithID("overdue");
  ASSERT_TRUE(fire);
  EXPECT_GT(*fire, std::chrono::system_clock::now());
  EXPECT_LE(*fire - std::chrono::system_clock::now(), 25h);
}

TEST_F(QVBackupAgentSchedulingTest, AFailedRunIsRetriedWithinTheHourUnlessItIsManual) {
  const QVDate now = std::chrono::system_clock::now();
  start({group("daily", daily(), now), group("manual", QVSchedule{}, now)});
  script.failures = {-36, -36};
  for (const char* id : {"daily", "manual"}) {
    agent->backupGroupWithID(id);
    ASSERT_TRUE(qv::runMainLoopUntil([&] { return !agent->isBackingUpGroupWithID(id); }));
  }
  EXPECT_EQ(agent->groupWithIdentifier("daily")->statusCode, -36);
  auto fire = agent->timerFireDateForGroupWithID("daily");
  ASSERT_TRUE(fire);
  EXPECT_LE(*fire - std::chrono::system_clock::now(), 3600s);
  EXPECT_FALSE(agent->timerFireDateForGroupWithID("manual"));
}

TEST_F(QVBackupAgentSchedulingTest, ATimerFiringDuringARunIsRefusedAndTheRunsEndRearms) {
  start({group("g", daily(), std::chrono::system_clock::now() - 72h)});
  script.blockAtItem = 0;
  // The overdue timer starts the run at the first pass of the loop.
  ASSERT_TRUE(script.waitUntilBlocked(0) || qv::runMainLoopUntil([&] { return agent->isBackingUpGroupWithID("g"); }));
  ASSERT_TRUE(script.waitUntilBlocked());
  // A wake while the group runs arms a timer; it fires at once (the due date passed) and is refused.
  logLines.clear();
  agent->systemDidWake();
  ASSERT_TRUE(qv::runMainLoopUntil([&] { return !logLines.empty(); }, 5s));
  EXPECT_EQ(logLines.front(), "QVBackupAgent warning : Current group is backing up now.");
  EXPECT_FALSE(agent->timerFireDateForGroupWithID("g"));
  script.release();
  ASSERT_TRUE(qv::runMainLoopUntil([&] { return !agent->isBackingUpGroupWithID("g"); }));
  EXPECT_TRUE(agent->timerFireDateForGroupWithID("g"));
  EXPECT_EQ(script.itemsTried, 1);
}

TEST_F(QVBackupAgentSchedulingTest, ATimerStillWaitingWhenARunEndsFiresBesideTheNewOne) {
  start({group("g", daily(), std::chrono::system_clock::now())});
  QVGroupRef g = agent->groupWithIdentifier("g");
  script.blockAtItem = 0;
  agent->backupGroupWithID("g");
  ASSERT_TRUE(script.waitUntilBlocked());
  // A timer armed while the group runs, due in a second.
  agent->sheduleTimerForGroup(g, 1.0);
  script.release();
  ASSERT_TRUE(qv::runMainLoopUntil([&] { return !agent->isBackingUpGroupWithID("g"); }));
  // The run's end armed a second timer without invalidating the first: both are armed.
  EXPECT_EQ(agent->numberOfArmedTimers(), 2u);
  const QVDate tomorrowish = *agent->timerFireDateForGroupWithID("g");
  EXPECT_GT(tomorrowish - std::chrono::system_clock::now(), 1h);
  // The first fires, drops the second from the table without invalidating it, and starts a run.
  const int triedBefore = script.itemsTried;
  ASSERT_TRUE(qv::runMainLoopUntil([&] { return script.itemsTried > triedBefore; }, 5s));
  ASSERT_TRUE(qv::runMainLoopUntil([&] { return !agent->isBackingUpGroupWithID("g"); }));
  // That run's end armed a third; the second is still armed beside it.
  EXPECT_EQ(agent->numberOfArmedTimers(), 2u);
}

}  // namespace
