// Backup runs end to end through the agent: the local destination for real copies, a scripted
// destination for the paths a real folder cannot take on cue (every item refused, a destination lost
// mid-run, a run held open for cancel and replay).
#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>

#include "agent/QVBackupAgent.h"
#include "agent/QVBackupAgentRun.h"
#include "menu/QVBackupMenuItemController.h"
#include "platform/QVFoundation.h"
#include "platform/QVLog.h"
#include "platform/QVMenu.h"
#include "platform/QVRunLoop.h"
#include "support/QVRecordingHost.h"
#include "support/QVScriptedTarget.h"
#include "support/QVTestSupport.h"

namespace fs = std::filesystem;

namespace {

class QVBackupAgentRunTest : public ::testing::Test {
 protected:
  void SetUp() override {
    qvtest::ScriptedTarget::install(&script);
    previousSink = qv::setLogSink([this](const std::string& line) { logLines.push_back(line); });
    agent = std::make_unique<QVBackupAgent>(&host);
    delegate = std::make_shared<qvtest::RecordingDelegate>(host.journal);
    agent->setDelegate(delegate);
    destination = env.root() + "/destination";
    fs::create_directories(destination);
    sources = env.root() + "/sources";
    fs::create_directories(sources);
  }

  void TearDown() override {
    agent.reset();
    qv::setLogSink(previousSink);
    qvtest::ScriptedTarget::uninstall();
  }

  // A destination of the given type, and a group of the given files in it.
  std::string addTarget(const std::string& type) {
    QVTarget target;
    target.identifier = qv::stringWithUUID();
    target.title = type + " destination";
    target.type = type;
    target.path = destination;
    agent->createTargetWithDictionary(target);
    return target.identifier;
  }

  QVGroupRef makeGroup(const std::string& title, const std::vector<std::string>& names, const std::string& type = "local") {
    std::vector<std::string> paths;
    for (const auto& name : names) {
      const std::string path = sources + "/" + name;
      if (!fs::exists(path)) qvtest::writeFile(path, "contents of " + name);
      paths.push_back(path);
    }
    agent->addItemsAtPaths(paths, title);
    QVGroupRef group = agent->groups().back();
    auto changed = std::make_shared<QVGroup>(*group);
    changed->target = addTarget(type);
    agent->updateGroup(changed);
    return changed;
  }

  bool runToEnd(const QVGroupRef& group, bool notify = true) {
    agent->backupGroupWithID(group->identifier, notify);
    return qv::runMainLoopUntil([&] { return !agent->isBackingUpGroupWithID(group->identifier); });
  }

  std::vector<std::string> journalFrom(const std::string& prefix) const { return host.linesStartingWith(prefix); }

  std::string groupFolder(const QVGroupRef& group) const { return destination + "/" + group->title; }

  std::vector<std::string> namesIn(const std::string& folder) const {
    std::vector<std::string> names;
    for (const auto& entry : fs::directory_iterator(folder)) names.push_back(entry.path().filename().string());
    std::sort(names.begin(), names.end());
    return names;
  }

  qvtest::IsolatedEnvironment env;
  qvtest::Script script;
  qvtest::RecordingHost host;
  std::unique_ptr<QVBackupAgent> agent;
  std::shared_ptr<qvtest::RecordingDelegate> delegate;
  std::vector<std::string> logLines;
  qv::QVLogSink previousSink;
  std::string destination;
  std::string sources;
};

TEST_F(QVBackupAgentRunTest, CopiesEveryItemUnderAUniqueNameAndReportsInOrder) {
  fs::create_directories(sources + "/x");
  fs::create_directories(sources + "/y");
  QVGroupRef group = makeGroup("Docs", {"a.txt", "x/a.txt", "y/a.txt"});
  host.journal->clear();
  const QVDate before = std::chrono::system_clock::now() - std::chrono::seconds(1);

  ASSERT_TRUE(runToEnd(group));

  auto versions = agent->backupsForGroupWithID(group->identifier);
  ASSERT_TRUE(versions);
  ASSERT_EQ(versions->size(), 1u);
  EXPECT_TRUE(qv::isVersionName(versions->front()));
  const std::string version = groupFolder(group) + "/" + versions->front();
  EXPECT_EQ(namesIn(version), (std::vector<std::string>{"a-1.txt", "a-2.txt", "a.txt"}));
  EXPECT_EQ(qvtest::readFile(version + "/a-2.txt"), "contents of y/a.txt");

  EXPECT_EQ(group->statusCode, 0);
  ASSERT_TRUE(group->lastBackupDate && group->lastBackupAttemptDate);
  EXPECT_EQ(*group->lastBackupDate, *group->lastBackupAttemptDate);
  EXPECT_GT(*group->lastBackupDate, before);
  EXPECT_EQ(agent->lastBackupDate(), group->lastBackupDate);
  EXPECT_FALSE(group->progressInfo);

  // The icon starts first; progress flows; the icon stops before the delegate hears of the end.
  const auto& journal = *host.journal;
  ASSERT_FALSE(journal.empty());
  EXPECT_EQ(journal.front(), "startStatusIconAnimation");
  auto stop = std::find(journal.begin(), journal.end(), "stopStatusIconAnimation");
  auto end = std::find(journal.begin(), journal.end(), "delegate.backupDidEndForGroup:Docs");
  ASSERT_NE(stop, journal.end());
  ASSERT_NE(end, journal.end());
  EXPECT_LT(stop, end);
  EXPECT_EQ(end + 1, journal.end());
  EXPECT_FALSE(journalFrom("delegate.backupProgress:").empty());
  EXPECT_EQ(host.animations, 0);
  // The menu's status line tells the last backup again.
  auto items = agent->menuItems();
  ASSERT_TRUE(items);
  EXPECT_EQ(items->back()->submenu()->itemAtIndex(0).title().rfind("Last backup: ", 0), 0u);
  EXPECT_TRUE(items->back()->submenu()->itemAtIndex(3).isHidden());
}

TEST_F(QVBackupAgentRunTest, PrunesOnlyVersionsAndKeepsTheNewest) {
  QVGroupRef group = makeGroup("Photos", {"p.jpg"});
  const std::string folder = groupFolder(group);
  for (const char* old : {"20200101000000.backup", "20210101000000.backup", "20220101000000.backup"})
    fs::create_directories(folder + "/" + old);
  const std::vector<std::string> strangers = {"notes.backup", "2024.backup", "20241305143007.backup", "misc"};
  for (const auto& name : strangers) fs::create_directories(folder + "/" + name);
  qvtest::writeFile(folder + "/20240105143007.backup.tmp", "x");

  ASSERT_TRUE(runToEnd(group));
  auto names = namesIn(folder);
  for (const auto& name : strangers) EXPECT_NE(std::find(names.begin(), names.end(), name), names.end()) << name;
  EXPECT_NE(std::find(names.begin(), names.end(), "20240105143007.backup.tmp"), names.end());
  EXPECT_EQ(std::find(names.begin(), names.end(), "20200101000000.backup"), names.end());
  EXPECT_NE(std::find(names.begin(), names.end(), "20210101000000.backup"), names.end());
  EXPECT_NE(std::find(names.begin(), names.end(), "20220101000000.backup"), names.end());
  EXPECT_EQ(std::count_if(names.begin(), names.end(), qv::isVersionName), 3);

  // No lower bound: with nothing to keep, every version goes, the new one too, and the run succeeds.
  group->versions = 0;
  ASSERT_TRUE(runToEnd(group));
  names = namesIn(folder);
  EXPECT_EQ(std::count_if(names.begin(), names.end(), qv::isVersionName), 0);
  EXPECT_EQ(names.size(), strangers.size() + 1);
  EXPECT_EQ(group->statusCode, 0);
}

TEST_F(QVBackupAgentRunTest, AMissingItemCompletesWithAWarning) {
  QVGroupRef group = makeGroup("Mixed", {"here.txt", "gone.txt"});
  fs::remove(sources + "/gone.txt");
  ASSERT_TRUE(runToEnd(group));
  EXPECT_EQ(group->statusCode, 0);
  EXPECT_TRUE(group->lastBackupDate);
  EXPECT_EQ(journalFrom("template1.push:"), (std::vector<std::string>{"template1.push:Mixed|" + group->identifier}));
  EXPECT_TRUE(journalFrom("template0.push:").empty());
}

TEST_F(QVBackupAgentRunTest, ARunWhereEveryItemFailsUndoesItsVersionAndTellsTheUser) {
  QVGroupRef group = makeGroup("Locked", {"a", "b"}, "scripted");
  group->schedule = QVSchedule::fromDictionary({{"period", "monthly"}});
  script.failures = {-54, -54};
  const QVDate before = std::chrono::system_clock::now();

  ASSERT_TRUE(runToEnd(group, /*notify=*/true));
  EXPECT_EQ(group->statusCode, -54);
  EXPECT_FALSE(group->lastBackupDate);
  ASSERT_EQ(script.entries.size(), 1u);
  EXPECT_EQ(script.removed, script.entries);
  EXPECT_EQ(script.rootRemovals, 1);
  // Shown to the user even though the host started the run; the delegate's failure message is not sent.
  EXPECT_EQ(journalFrom("template0.push:"),
            (std::vector<std::string>{"template0.push:Locked - scripted -54|" + group->identifier}));
  EXPECT_TRUE(journalFrom("delegate.backupFailedForGroup").empty());
  // A failed run comes back within the hour.
  auto fire = agent->timerFireDateForGroupWithID(group->identifier);
  ASSERT_TRUE(fire);
  EXPECT_LE(*fire - before, std::chrono::seconds(3601));
}

TEST_F(QVBackupAgentRunTest, ADestinationLostMidRunFailsWithoutListingOrRemovingTheVersion) {
  QVGroupRef group = makeGroup("Remote", {"a", "b", "c"}, "scripted");
  script.unavailableAfterItems = 1;
  ASSERT_TRUE(runToEnd(group));
  EXPECT_EQ(script.itemsTried, 1);
  EXPECT_EQ(group->statusCode, 1);  // the one item tried succeeded, so there is no error to carry
  EXPECT_TRUE(script.removed.empty());
  EXPECT_EQ(script.rootRemovals, 1);
}

TEST_F(QVBackupAgentRunTest, CancelStopsTheRunAndKeepsThePartialVersion) {
  QVGroupRef group = makeGroup("Big", {"a", "b"}, "scripted");
  script.blockAtItem = 0;
  agent->backupGroupWithID(group->identifier);
  ASSERT_TRUE(script.waitUntilBlocked());
  agent->cancelBackupGroupWithID(group->identifier);
  ASSERT_TRUE(qv::runMainLoopUntil([&] { return !agent->isBackingUpGroupWithID(group->identifier); }));
  EXPECT_EQ(group->statusCode, -128);
  EXPECT_FALSE(group->lastBackupDate);
  EXPECT_TRUE(group->lastBackupAttemptDate);
  EXPECT_EQ(script.itemsTried, 1);
  EXPECT_TRUE(script.removed.empty());
  EXPECT_EQ(script.rootRemovals, 0);
  EXPECT_TRUE(journalFrom("template").empty());
}

TEST_F(QVBackupAgentRunTest, ASecondRequestWhileRunningIsRefusedWithOneLogLine) {
  QVGroupRef group = makeGroup("Busy", {"a"}, "scripted");
  script.blockAtItem = 0;
  agent->backupGroupWithID(group->identifier);
  ASSERT_TRUE(script.waitUntilBlocked());
  logLines.clear();
  agent->backupGroupWithID(group->identifier);
  EXPECT_EQ(logLines, (std::vector<std::string>{"QVBackupAgent warning : Current group is backing up now."}));
  script.release();
  ASSERT_TRUE(qv::runMainLoopUntil([&] { return !agent->isBackingUpGroupWithID(group->identifier); }));
  EXPECT_EQ(script.itemsTried, 1);
}

TEST_F(QVBackupAgentRunTest, AnEmptyGroupIsSilentForTheHostAndRetriedForATimer) {
  QVGroupRef group = makeGroup("Empty", {"a"});
  agent->removeItemWithPath(group->items.front(), group->identifier);
  group->schedule = QVSchedule::fromDictionary({{"period", "monthly"}});
  agent->setupTimerForGroup(group);
  host.journal->clear();

  agent->backupGroupWithID(group->identifier);  // the host asks
  EXPECT_TRUE(host.journal->empty());
  EXPECT_FALSE(agent->timerFireDateForGroupWithID(group->identifier));  // dropped, and stays dropped
  EXPECT_FALSE(group->lastBackupAttemptDate);

  const QVDate before = std::chrono::system_clock::now();
  agent->backupGroupWithID(group->identifier, false);  // a timer or the menu asks
  ASSERT_EQ(host.shownNotifications.size(), 1u);
  EXPECT_EQ(host.shownNotifications[0].text, "Unable to backup group Empty. The group is empty.");
  EXPECT_EQ(host.shownNotifications[0].tag, group->identifier);
  EXPECT_EQ(host.shownNotifications[0].button1Text, "More...");
  EXPECT_EQ(host.shownNotifications[0].button2Text, "Cancel");
  EXPECT_EQ(*host.journal, (std::vector<std::string>{"delegate.backupDidEndForGroup:Empty",
                                                    "removeNotificationWithTag:" + group->identifier,
                                                    "showNotification:Unable to backup group Empty. The group is empty."}));
  EXPECT_TRUE(group->lastBackupAttemptDate);
  auto fire = agent->timerFireDateForGroupWithID(group->identifier);
  ASSERT_TRUE(fire);
  EXPECT_LE(*fire - before, std::chrono::seconds(3601));
  // "More..." opens the group in the host.
  host.shownNotifications[0].button1Action(host.shownNotifications[0].userInfo);
  EXPECT_EQ(host.journal->back(), "host.showGroupsWithIDs:" + group->identifier);
}

TEST_F(QVBackupAgentRunTest, ProgressReachesTheMenuAsAWholePercentage) {
  QVGroupRef group = makeGroup("Four", {"a", "b", "c", "d"}, "scripted");
  script.progress = {{0.37}};
  script.blockAtItem = 0;
  agent->backupGroupWithID(group->identifier);
  ASSERT_TRUE(script.waitUntilBlocked());
  ASSERT_TRUE(qv::runMainLoopUntil([&] { return group->progressInfo.has_value(); }));
  // The first message fills every slot with its own value.
  EXPECT_EQ(*group->progressInfo, std::vector<double>(4, 0.37));
  auto items = agent->menuItems();
  ASSERT_TRUE(items);
  EXPECT_EQ(items->back()->submenu()->itemAtIndex(0).title(), "Backup progress: 37%");
  script.release();
  ASSERT_TRUE(qv::runMainLoopUntil([&] { return !agent->isBackingUpGroupWithID(group->identifier); }));

  EXPECT_EQ(QVBackupAgent::totalProgressForGroup({}), 100);
  EXPECT_EQ(QVBackupAgent::totalProgressForGroup({-1.0, -1.0}), 0);
  EXPECT_EQ(QVBackupAgent::totalProgressForGroup({1.0, 0.999}), 99);
  EXPECT_EQ(QVBackupAgent::totalProgressForGroup({1.0, -1.0, 0.5}), 50);
}

TEST_F(QVBackupAgentRunTest, ANewDelegateHearsTheProgressOfRunsUnderWay) {
  QVGroupRef group = makeGroup("Replay", {"a", "b", "c"}, "scripted");
  script.progress = {{1.0}, {0.0, 1.0}, {0.5}};
  script.blockAtItem = 2;
  agent->backupGroupWithID(group->identifier);
  ASSERT_TRUE(script.waitUntilBlocked());
  ASSERT_TRUE(qv::runMainLoopUntil([&] {
    return group->progressInfo && (*group->progressInfo)[2] == 0.5;
  }));

  auto late = std::make_shared<qvtest::RecordingDelegate>(std::make_shared<qvtest::Journal>());
  agent->setDelegate(late);
  EXPECT_EQ(*late->journal, (std::vector<std::string>{
                                "delegate.setLastBackupDate:none", "delegate.groupsAndTargets:1|2",
                                "delegate.backupProgress:0.00|" + group->identifier + "|0",
                                "delegate.backupProgress:1.00|" + group->identifier + "|0",
                                "delegate.backupProgress:1.00|" + group->identifier + "|1",
                                "delegate.backupProgress:0.50|" + group->identifier + "|2"}));
  script.release();
  ASSERT_TRUE(qv::runMainLoopUntil([&] { return !agent->isBackingUpGroupWithID(group->identifier); }));
  // The old delegate is no longer told anything.
  EXPECT_TRUE(std::none_of(host.journal->begin(), host.journal->end(),
                           [](const std::string& l) { return l.rfind("delegate.backupDidEnd", 0) == 0; }));
}

TEST(QVBackupAgentRunNames, VersionNamesAreStrict) {
  EXPECT_TRUE(qv::isVersionName("20240105143007.backup"));
  EXPECT_TRUE(qv::isVersionName(qv::versionNameForDate(std::chrono::system_clock::now())));
  for (const char* name : {"notes.backup", "2024.backup", "20241305143007.backup", "20240230120000.backup",
                           "20240105143007.backup.tmp", "2024010514300x.backup", "20240105143007.backu",
                           "120240105143007.backup", "20240105246007.backup"})
    EXPECT_FALSE(qv::isVersionName(name)) << name;
}

TEST(QVBackupAgentRunNames, ItemNamesAreMadeUniqueBeforeTheExtension) {
  std::vector<std::string> used;
  EXPECT_EQ(qv::uniqueItemName("/x/notes.txt", used), "notes.txt");
  EXPECT_EQ(qv::uniqueItemName("/y/notes.txt", used), "notes-1.txt");
  EXPECT_EQ(qv::uniqueItemName("/z/notes.txt", used), "notes-2.txt");
  EXPECT_EQ(qv::uniqueItemName("/a/Documents", used), "Documents");
  EXPECT_EQ(qv::uniqueItemName("/b/Documents/", used), "Documents-1");
  EXPECT_EQ(qv::uniqueItemName("/a/archive.tar.gz", used), "archive.tar.gz");
  EXPECT_EQ(qv::uniqueItemName("/b/archive.tar.gz", used), "archive.tar-1.gz");
  // A name that is itself taken by an earlier rename is stepped over.
  EXPECT_EQ(qv::uniqueItemName("/c/notes-1.txt", used), "notes-1-1.txt");
}

}  // namespace
