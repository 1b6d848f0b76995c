// Backup runs end to end through the agent: the local destination for real copies, the scripted one for
// what a real folder cannot do on cue (every item refused, a destination lost mid-run, a run held open).
// A cancelled run is checked through the menu (QVBackupMenuItemControllerTest) and for the program.
#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <tuple>

#include "agent/QVVersionName.h"
#include "menu/QVBackupMenuItemController.h"
#include "platform/QVFoundation.h"
#include "platform/QVMenu.h"
#include "platform/QVRunLoop.h"
#include "support/QVAgentTestSupport.h"

namespace fs = std::filesystem;
using Lines = std::vector<std::string>;

class QVBackupAgentRunTest : public qvtest::AgentTest {
 protected:
  void SetUp() override { start(); }

  // A group of the given files (made in <root>/sources) on a new destination of type at <root>/destination.
  QVGroupRef makeGroup(const std::string& title, const Lines& names, const std::string& type = "local") {
    Lines paths;
    for (const auto& name : names) {
      paths.push_back(env.root() + "/sources/" + name);
      if (!fs::exists(paths.back())) qvtest::writeFile(paths.back(), "contents of " + name);
    }
    agent->addItemsAtPaths(paths, title);
    fs::create_directories(destination);
    const std::string targetID = qv::stringWithUUID();
    agent->createTargetWithDictionary(qvtest::targetRecord(targetID, title, type, destination));
    auto group = std::make_shared<QVGroup>(*agent->groups().back());
    group->target = targetID;
    agent->updateGroup(group);
    host.journal->clear();
    return group;
  }

  bool runToEnd(const QVGroupRef& group, bool notify = true) {
    agent->backupGroupWithID(group->identifier, notify);
    return waitForEnd(group);
  }
  bool waitForEnd(const QVGroupRef& group) {
    return qv::runMainLoopUntil([&] { return !agent->isBackingUpGroupWithID(group->identifier); });
  }

  const std::string destination = env.root() + "/destination";
};

TEST_F(QVBackupAgentRunTest, CopiesEveryItemUnderAUniqueNameAndReportsInOrder) {
  QVGroupRef group = makeGroup("Docs", {"a.txt", "x/a.txt", "y/a.txt"});
  const QVDate before = std::chrono::system_clock::now() - std::chrono::seconds(1);
  ASSERT_TRUE(runToEnd(group));

  auto versions = agent->backupsForGroupWithID(group->identifier);
  ASSERT_TRUE(versions && versions->size() == 1u);
  const std::string version = destination + "/Docs/" + versions->front();
  EXPECT_EQ(qvtest::namesIn(version), (Lines{"a-1.txt", "a-2.txt", "a.txt"}));
  EXPECT_EQ(qvtest::readFile(version + "/a-2.txt"), "contents of y/a.txt");
  ASSERT_TRUE(group->lastBackupDate);  // its status and attempt date: QVBackupCommandTest
  EXPECT_GT(*group->lastBackupDate, before);
  EXPECT_EQ(agent->lastBackupDate(), group->lastBackupDate);
  EXPECT_FALSE(group->progressInfo);

  // The icon starts first; progress flows; the icon stops before the delegate hears of the end, last.
  const Lines& journal = *host.journal;
  ASSERT_GE(journal.size(), 2u);
  EXPECT_EQ(journal.front(), "startStatusIconAnimation");
  auto stop = std::find(journal.begin(), journal.end(), "stopStatusIconAnimation");
  EXPECT_EQ(journal.back(), "delegate.backupDidEndForGroup:Docs");
  EXPECT_LT(stop, journal.end() - 1);
  EXPECT_FALSE(host.linesStartingWith("delegate.backupProgress:").empty());
  EXPECT_EQ(host.animations, 0);
}

// Keeping the newest few: QVDestinationIntegrationTest. Names that only look like versions are never pruned.
TEST_F(QVBackupAgentRunTest, PrunesOnlyVersionsAndWithNothingToKeepEveryOne) {
  QVGroupRef group = makeGroup("Photos", {"p.jpg"});
  const std::string folder = destination + "/Photos";
  const Lines strangers = {"2024.backup", "20240105143007.backup.tmp", "20241305143007.backup", "misc", "notes.backup"};
  for (const auto& name : strangers)
    if (!name.ends_with(".tmp")) fs::create_directories(folder + "/" + name);
  qvtest::writeFile(folder + "/20240105143007.backup.tmp", "a file");
  fs::create_directories(folder + "/20200101000000.backup");
  // No lower bound: with nothing to keep, every version goes, the new one too, and the run succeeds.
  group->versions = 0;
  ASSERT_TRUE(runToEnd(group));
  EXPECT_EQ(qvtest::namesIn(folder), strangers);
  EXPECT_EQ(group->statusCode, 0);
}

TEST_F(QVBackupAgentRunTest, AFailedRunUndoesItsVersionUnlessItsDestinationWasLost) {
  QVGroupRef group = makeGroup("Locked", {"a", "b"}, "scripted");
  script.failures = {-54, -54};
  ASSERT_TRUE(runToEnd(group, /*notify=*/true));
  EXPECT_EQ(group->statusCode, -54);
  EXPECT_FALSE(group->lastBackupDate);
  ASSERT_EQ(script.entries.size(), 1u);
  EXPECT_EQ(script.removed, script.entries);
  EXPECT_EQ(script.rootRemovals, 1);
  // Shown to the user even though the host started the run; the delegate's failure message is not sent.
  EXPECT_EQ(host.linesStartingWith("template"), Lines{"template0.push:Locked - scripted -54|" + group->identifier});
  EXPECT_TRUE(host.linesStartingWith("delegate.backupFailedForGroup").empty());

  // The last item failed without storing an error: the run has none, and records 1, never 0.
  script.failures = {-54, -54, -54, 0};
  ASSERT_TRUE(runToEnd(group, true));
  EXPECT_EQ(group->statusCode, 1);

  // The destination lost after one item that succeeded: no error to carry, and the version is not removed.
  script.unavailableAfterItems = script.itemsTried + 1;
  const std::size_t removedBefore = script.removed.size();
  ASSERT_TRUE(runToEnd(group));
  EXPECT_EQ(script.itemsTried, script.unavailableAfterItems);
  EXPECT_EQ(group->statusCode, 1);
  EXPECT_EQ(script.removed.size(), removedBefore);
  EXPECT_EQ(script.rootRemovals, 3) << "one for each of the three runs";
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
  EXPECT_EQ(*host.journal,
            (Lines{"delegate.backupDidEndForGroup:Empty", "removeNotificationWithTag:" + group->identifier,
                   "showNotification:Unable to backup group Empty. The group is empty."}));
  ASSERT_EQ(host.shownNotifications.size(), 1u);
  const QVNotification& shown = host.shownNotifications[0];
  EXPECT_EQ(std::tie(shown.tag, shown.button1Text, shown.button2Text),
            std::make_tuple(group->identifier, "More...", "Cancel"));
  EXPECT_TRUE(group->lastBackupAttemptDate);
  EXPECT_LE(agent->timerFireDateForGroupWithID(group->identifier).value() - before, std::chrono::seconds(3601));
  shown.button1Action(shown.userInfo);  // "More..." opens the group in the host
  EXPECT_EQ(host.journal->back(), "host.showGroupsWithIDs:" + group->identifier);
}

TEST_F(QVBackupAgentRunTest, ProgressReachesTheMenuAsAWholePercentage) {
  QVGroupRef group = makeGroup("Four", {"a", "b", "c", "d"}, "scripted");
  script.progress = {{0.37}};
  script.blockAtItem = 0;
  agent->backupGroupWithID(group->identifier);
  ASSERT_TRUE(script.waitUntilBlocked());
  ASSERT_TRUE(qv::runMainLoopUntil([&] { return group->progressInfo.has_value(); }));
  EXPECT_EQ(*group->progressInfo, std::vector<double>(4, 0.37)) << "the first message fills every slot";
  EXPECT_EQ(agent->menuItems().value().back()->submenu()->itemAtIndex(0).title(), "Backup progress: 37%");
  script.release();
  ASSERT_TRUE(waitForEnd(group));

  const std::vector<std::pair<std::vector<double>, std::int64_t>> totals = {
      {{}, 100}, {{-1.0, -1.0}, 0}, {{1.0, 0.999}, 99}, {{1.0, -1.0, 0.5}, 50}};
  for (const auto& [info, percent] : totals) EXPECT_EQ(QVBackupAgent::totalProgressForGroup(info), percent);
}

TEST(QVBackupAgentRunNames, VersionAndItemNames) {
  // Names that are versions, the new one's too: the pruning test above.
  for (const char* name :
       {"notes.backup", "2024.backup", "20241305143007.backup", "20240230120000.backup", "20240105143007.backup.tmp",
        "2024010514300x.backup", "20240105143007.backu", "120240105143007.backup", "20240105246007.backup"})
    EXPECT_FALSE(qv::isVersionName(name)) << name;

  // Made unique before the extension; a name taken by an earlier rename is stepped over.
  Lines used;
  const std::vector<std::pair<std::string, std::string>> items = {{"/x/notes.txt", "notes.txt"},
                                                                  {"/y/notes.txt", "notes-1.txt"},
                                                                  {"/z/notes.txt", "notes-2.txt"},
                                                                  {"/a/Documents", "Documents"},
                                                                  {"/b/Documents/", "Documents-1"},
                                                                  {"/a/archive.tar.gz", "archive.tar.gz"},
                                                                  {"/b/archive.tar.gz", "archive.tar-1.gz"},
                                                                  {"/c/notes-1.txt", "notes-1-1.txt"}};
  for (const auto& [path, name] : items) EXPECT_EQ(qv::uniqueItemName(path, used), name) << path;
}
