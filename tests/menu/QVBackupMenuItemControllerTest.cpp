// The status menu's backup items through an agent with a recording host: the list, each group's submenu
// while idle and while running, the cache of items, and where each entry leads.
#include "menu/QVBackupMenuItemController.h"

#include <gtest/gtest.h>

#include "platform/QVFoundation.h"
#include "platform/QVMenu.h"
#include "platform/QVRunLoop.h"
#include "support/QVAgentTestSupport.h"

using Lines = std::vector<std::string>;

namespace {

// A group item's submenu as text: a hidden entry in brackets, the separator as "--".
Lines shown(const QVMenuItem& item) {
  Lines lines;
  for (const auto& entry : item.submenu()->itemArray())
    lines.push_back(entry->isSeparatorItem() ? "--" : entry->isHidden() ? "[" + entry->title() + "]" : entry->title());
  return lines;
}

const Lines kIdle = {"Last backup: Never", "--", "Backup Now", "[Cancel backup]", "Remove group"};

class QVBackupMenuItemControllerTest : public qvtest::AgentTest {
 protected:
  void SetUp() override {
    start().createTargetWithDictionary(qvtest::targetRecord("S", "Scripted", "scripted", env.root()));
    menu = agent->menuItemController();
    ASSERT_TRUE(menu) << "a host with a status item gets a menu";
  }
  // A group of one file on the scripted destination, or on none ("nil").
  QVGroupRef addGroup(const std::string& title, const std::string& target = "S") {
    agent->addItemsAtPaths({makeFile(title + ".txt")}, title);
    auto group = std::make_shared<QVGroup>(*groupNamed(title));
    group->target = target;
    agent->updateGroup(group);
    return group;
  }
  std::shared_ptr<QVMenuItem> itemTitled(const std::string& title) {
    const auto items = agent->menuItems().value();
    for (const auto& item : items)
      if (item->title() == title) return item;
    return nullptr;
  }
  bool waitForEnd(const QVGroupRef& group) {
    return qv::runMainLoopUntil([&] { return !agent->isBackingUpGroupWithID(group->identifier); });
  }

  QVBackupMenuItemController* menu = nullptr;
};

TEST_F(QVBackupMenuItemControllerTest, ListsAHeadingAndAnItemPerGroupAndNothingWithoutGroups) {
  EXPECT_EQ(agent->menuItems(), std::nullopt) << "no groups: no backup section, not an empty one";
  QVGroupRef docs = addGroup("Docs", "nil");
  addGroup("Photos");
  const auto items = agent->menuItems().value();
  ASSERT_EQ(items.size(), 4u);
  EXPECT_TRUE(items[0]->title() == "Backup" && !items[0]->hasAction() && !items[0]->submenu());
  EXPECT_TRUE(items[1]->isSeparatorItem());
  for (std::size_t i : {2, 3}) {
    EXPECT_EQ(items[i]->title(), i == 2 ? "Docs" : "Photos");
    EXPECT_TRUE(items[i]->indentationLevel() == 1 && !items[i]->hasAction() && items[i]->keyEquivalent().empty());
  }
  EXPECT_EQ(shown(*items[3]), kIdle);
  Lines noDestination = kIdle;
  noDestination[2] = "No destination";
  EXPECT_EQ(shown(*items[2]), noDestination);
  QVMenu& entries = *items[2]->submenu();
  EXPECT_FALSE(entries.itemAtIndex(0).hasAction()) << "the status line is inert text";
  for (std::size_t i : {2, 3, 4}) EXPECT_EQ(entries.itemAtIndex(i).representedObject(), docs->identifier);

  // "No destination" opens the group in the host and starts nothing.
  host.journal->clear();
  entries.itemAtIndex(2).performAction();
  EXPECT_EQ(*host.journal,
            (Lines{"hostAppProxy:QVBackup|QVBackupAgentDelegate", "host.showGroupsWithIDs:" + docs->identifier}));
  EXPECT_FALSE(agent->isBackingUpGroupWithID(docs->identifier));

  // A destination set since: the same item now offers "Backup Now", which runs the group.
  auto changed = std::make_shared<QVGroup>(*docs);
  changed->target = "S";
  agent->updateGroup(changed);
  EXPECT_EQ(itemTitled("Docs"), items[2]);
  EXPECT_EQ(shown(*items[2]), kIdle);
  entries.itemAtIndex(2).performAction();
  EXPECT_TRUE(agent->isBackingUpGroupWithID(docs->identifier));
  ASSERT_TRUE(waitForEnd(changed));
}

// The run events, straight from the agent's side, on a group that has no item yet.
TEST_F(QVBackupMenuItemControllerTest, RunEventsSwitchTheSubmenuBetweenIdleAndRunning) {
  QVGroupRef group = addGroup("Docs");
  const Lines running = {"Backing up...", "--", "[Backup Now]", "Cancel backup", "[Remove group]"};
  menu->agentDidStartBackupGroup(group);
  const auto item = itemTitled("Docs");
  ASSERT_TRUE(item) << "an event makes the item, and the next list shows it";
  EXPECT_EQ(shown(*item), running) << "listing again changes only the entry that starts a backup";
  menu->agentGroup(group, 42);
  Lines progress = running;
  progress[0] = "Backup progress: 42%";
  EXPECT_EQ(shown(*item), progress);
  const QVDate date = std::chrono::system_clock::now() - std::chrono::hours(30);
  group->lastBackupDate = date;
  menu->agentDidFinishBackupGroup(group);
  Lines idle = kIdle;
  idle[0] = "Last backup: " + qv::stringFromDate(date);
  EXPECT_EQ(shown(*item), idle) << "the date the group carries when the run ends";
  EXPECT_EQ(itemTitled("Docs"), item);
}

TEST_F(QVBackupMenuItemControllerTest, EntriesRunCancelAndRemoveTheGroupWithoutNotifyingTheHost) {
  QVGroupRef group = addGroup("Docs");
  script.blockAtItem = 0;
  const auto item = itemTitled("Docs");
  QVMenu& entries = *item->submenu();
  entries.itemAtIndex(2).performAction();
  ASSERT_TRUE(script.waitUntilBlocked());
  EXPECT_EQ(shown(*item)[0], "Backing up...");
  entries.itemAtIndex(3).performAction();  // "Cancel backup"
  ASSERT_TRUE(waitForEnd(group));
  EXPECT_EQ(group->statusCode, -128);
  EXPECT_EQ(shown(*item), kIdle);

  // Asked from the menu, an empty group is reported to the user; asked by the host, it would not be.
  QVGroupRef empty = addGroup("Empty");
  agent->removeItemWithPath(empty->items.front(), empty->identifier);
  itemTitled("Empty")->submenu()->itemAtIndex(2).performAction();
  ASSERT_FALSE(host.shownNotifications.empty());
  EXPECT_EQ(host.shownNotifications.back().text, "Unable to backup group Empty. The group is empty.");

  // Removed at once, without a question; the next list leaves it out.
  entries.itemAtIndex(4).performAction();
  EXPECT_FALSE(agent->groupWithIdentifier(group->identifier));
  EXPECT_EQ(agent->menuItems().value().size(), 3u);
}

TEST_F(QVBackupMenuItemControllerTest, ARenamedGroupGetsANewItemAndTheOldOneLeavesTheCache) {
  QVGroupRef group = addGroup("Docs");
  const auto old = itemTitled("Docs");
  menu->agentDidStartBackupGroup(group);
  group->title = "Documents";
  const auto renamed = itemTitled("Documents");
  ASSERT_TRUE(renamed);
  EXPECT_NE(renamed, old);
  EXPECT_EQ(shown(*renamed), kIdle) << "a new item starts idle";
  EXPECT_FALSE(itemTitled("Docs"));
  // Had the old item stayed cached, the old title would find it again.
  group->title = "Docs";
  EXPECT_NE(itemTitled("Docs"), old);
}

TEST_F(QVBackupMenuItemControllerTest, ActionsIgnoreASenderWithoutARepresentedObject) {
  addGroup("Docs");
  host.journal->clear();
  logged.lines(true);
  QVMenuItem stray("Backup Now");
  for (auto action : {&QVBackupMenuItemController::startBackup, &QVBackupMenuItemController::showGroupInHostApp,
                      &QVBackupMenuItemController::cancelBackup, &QVBackupMenuItemController::removeGroup})
    (menu->*action)(stray);
  EXPECT_TRUE(host.journal->empty()) << qvtest::joined(*host.journal);
  EXPECT_TRUE(logged.lines().empty());
  EXPECT_EQ(agent->groups().size(), 1u);
  EXPECT_EQ(agent->numberOfRunningBackups(), 0u);

  QVBackupMenuItemController alone;  // no agent: nothing to list
  EXPECT_EQ(alone.menuItems(), std::nullopt);
}

}  // namespace
