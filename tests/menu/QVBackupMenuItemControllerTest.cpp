// The status menu's rules: what the list holds and when it holds nothing, what each group's submenu
// offers at rest, while its backup runs and after, how the cache follows renamed and removed groups,
// and what each entry asks of the agent (and that an entry standing for no group asks nothing).
#include <gtest/gtest.h>

#include "menu/QVBackupMenuItemController.h"
#include "platform/QVFoundation.h"
#include "platform/QVMenu.h"
#include "platform/QVRunLoop.h"
#include "support/QVAgentTestSupport.h"

namespace {

using Items = std::vector<std::shared_ptr<QVMenuItem>>;

class QVBackupMenuItemControllerTest : public qvtest::AgentTest {
 protected:
  void SetUp() override { start(); }
  QVBackupMenuItemController& controller() { return *agent->menuItemController(); }

  // A group of one file; with a destination (the scripted kind, held at its first item) unless told not.
  QVGroupRef addGroup(const std::string& title, bool withTarget = true) {
    agent->addItemsAtPaths({makeFile(title + ".txt")}, title);
    auto group = std::make_shared<QVGroup>(*agent->groups().back());
    group->target = "nil";
    if (withTarget) {
      group->target = qv::stringWithUUID();
      agent->createTargetWithDictionary(qvtest::targetRecord(*group->target, title, "scripted", env.root()));
    }
    agent->updateGroup(group);
    return agent->groupWithIdentifier(group->identifier);
  }
  // The submenu of the group's item in a fresh list: titles, with "(hidden)" after hidden entries.
  std::vector<std::string> submenu(const std::string& title) {
    for (const auto& item : agent->menuItems().value_or(Items{})) {
      if (item->title() != title || !item->submenu()) continue;
      std::vector<std::string> entries;
      for (const auto& entry : item->submenu()->itemArray())
        entries.push_back(entry->isSeparatorItem() ? "----" : entry->title() + (entry->isHidden() ? " (hidden)" : ""));
      return entries;
    }
    return {};
  }
  QVMenuItem& entry(const std::string& title, std::size_t index) {
    for (const auto& item : agent->menuItems().value_or(Items{}))
      if (item->title() == title) return item->submenu()->itemAtIndex(index);
    throw std::runtime_error("no item for " + title);
  }
};

TEST_F(QVBackupMenuItemControllerTest, ListsAHeadingAndOneItemPerGroupAndNothingWithoutGroups) {
  EXPECT_FALSE(agent->menuItems().has_value()) << "no groups: no list at all, not an empty one";
  addGroup("Photos");
  addGroup("Notes", false);
  const Items items = agent->menuItems().value();
  ASSERT_EQ(items.size(), 4u);
  EXPECT_EQ(items[0]->title(), "Backup");
  EXPECT_FALSE(items[0]->hasAction() || items[0]->submenu());
  EXPECT_TRUE(items[1]->isSeparatorItem());
  EXPECT_EQ(items[2]->title(), "Photos");
  EXPECT_EQ(items[2]->indentationLevel(), 1);
  EXPECT_FALSE(items[2]->hasAction());
  EXPECT_EQ(items[3]->title(), "Notes");
  EXPECT_EQ(submenu("Photos"),
            (std::vector<std::string>{"Last backup: Never", "----", "Backup Now", "Cancel backup (hidden)", "Remove group"}));
  EXPECT_EQ(submenu("Notes")[2], "No destination");
  EXPECT_EQ(agent->menuItems().value()[2], items[2]) << "the same item between requests";
  const QVMenu& entries = *items[3]->submenu();
  EXPECT_FALSE(entries.itemArray()[0]->hasAction()) << "the status line is inert text";
  for (std::size_t i = 0; i < entries.numberOfItems(); ++i) {
    EXPECT_EQ(entries.itemArray()[i]->keyEquivalent(), "");
    EXPECT_EQ(entries.itemArray()[i]->representedObject(), i >= 2 ? agent->groups()[1]->identifier : "") << i;
  }
}

TEST_F(QVBackupMenuItemControllerTest, EachEntryAsksTheAgentAndOnlyForTheGroupItStandsFor) {
  QVGroupRef notes = addGroup("Notes", false);
  host.journal->clear();
  entry("Notes", 2).performAction();  // "No destination" shows the group in the host, through its proxy
  EXPECT_EQ(*host.journal, (qvtest::Journal{"hostAppProxy:QVBackup|QVBackupAgentDelegate",
                                            "host.showGroupsWithIDs:" + notes->identifier}));

  // A destination given later turns the entry into "Backup Now", which asks for a run without notifying.
  auto changed = std::make_shared<QVGroup>(*notes);
  changed->target = qv::stringWithUUID();
  agent->createTargetWithDictionary(qvtest::targetRecord(*changed->target, "Dest", "scripted", env.root()));
  agent->updateGroup(changed);
  script.blockAtItem = 0;
  EXPECT_EQ(submenu("Notes")[2], "Backup Now");
  entry("Notes", 2).performAction();
  ASSERT_TRUE(agent->isBackingUpGroupWithID(notes->identifier));
  // Asked with notify = false, the agent tells of an empty group itself (asked for the host, it would not).
  auto empty = std::make_shared<QVGroup>(*addGroup("Empty"));
  empty->items.clear();
  agent->updateGroup(empty);
  entry("Empty", 2).performAction();
  ASSERT_EQ(host.shownNotifications.size(), 1u);
  EXPECT_EQ(host.shownNotifications[0].text, "Unable to backup group Empty. The group is empty.");

  // An entry without a represented object asks nothing.
  QVMenuItem stray("Cancel backup");
  host.journal->clear();
  logged.lines(true);
  controller().cancelBackup(stray);
  controller().removeGroup(stray);
  controller().startBackup(stray);
  controller().showGroupInHostApp(stray);
  EXPECT_TRUE(agent->isBackingUpGroupWithID(notes->identifier));
  EXPECT_EQ(agent->groups().size(), 2u);
  EXPECT_TRUE(host.journal->empty() && logged.lines().empty()) << qvtest::joined(*host.journal);

  entry("Notes", 3).performAction();  // "Cancel backup"
  ASSERT_TRUE(qv::runMainLoopUntil([&] { return !agent->isBackingUpGroupWithID(notes->identifier); }));
  EXPECT_EQ(changed->statusCode, -128);
  EXPECT_EQ(submenu("Notes")[3], "Cancel backup (hidden)") << "at rest again";
  entry("Notes", 4).performAction();  // "Remove group"
  entry("Empty", 4).performAction();
  EXPECT_TRUE(agent->groups().empty());
  EXPECT_FALSE(agent->menuItems().has_value());
}

TEST_F(QVBackupMenuItemControllerTest, RunEventsSwapTheEntriesAndTheStatusLine) {
  QVGroupRef photos = addGroup("Photos");
  controller().agentDidStartBackupGroup(photos);  // before any list: the event makes the item
  const auto item = agent->menuItems().value()[2];
  EXPECT_EQ(submenu("Photos"), (std::vector<std::string>{"Backing up...", "----", "Backup Now (hidden)", "Cancel backup",
                                                         "Remove group (hidden)"}));
  controller().agentGroup(photos, 42);
  EXPECT_EQ(submenu("Photos")[0], "Backup progress: 42%");
  EXPECT_EQ(submenu("Photos")[2], "Backup Now (hidden)") << "a new list leaves the run's flags as they are";

  auto done = std::make_shared<QVGroup>(*photos);
  done->lastBackupDate = std::chrono::system_clock::now();
  controller().agentDidFinishBackupGroup(done);
  EXPECT_EQ(submenu("Photos"), (std::vector<std::string>{"Last backup: " + qv::stringFromDate(*done->lastBackupDate),
                                                         "----", "Backup Now", "Cancel backup (hidden)", "Remove group"}));
  EXPECT_EQ(agent->menuItems().value()[2], item) << "updated in place";
}

TEST_F(QVBackupMenuItemControllerTest, ARenamedGroupGetsANewItemAndTheOldOneLeavesTheCache) {
  QVGroupRef photos = addGroup("Photos");
  const auto before = agent->menuItems().value()[2];
  auto renamed = std::make_shared<QVGroup>(*photos);
  renamed->title = "Pictures";
  agent->updateGroup(renamed);
  const auto after = agent->menuItems().value()[2];
  EXPECT_NE(after, before);
  EXPECT_EQ(after->title(), "Pictures");
  // The old record is gone: an event for the old group makes it afresh, then the next list drops it again.
  EXPECT_NE(controller().menuItemForGroup(photos), before);
  agent->menuItems();
  EXPECT_EQ(controller().menuItemForGroup(renamed), after);
  EXPECT_TRUE(QVBackupMenuItemController::isGroup(*renamed, *renamed));
  EXPECT_FALSE(QVBackupMenuItemController::isGroup(*photos, *renamed));
  EXPECT_FALSE(QVBackupMenuItemController().menuItems()) << "a controller without an agent lists nothing";
}

}  // namespace
