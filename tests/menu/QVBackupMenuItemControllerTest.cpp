// The status menu's rules: what the list holds and when it holds nothing, what each group's submenu
// offers at rest, while its backup runs and after, how the cache follows renamed and removed groups,
// and what each entry asks of the agent.
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
    return setTarget(agent->groups().back(), withTarget);
  }
  // Gives the group a new scripted destination, or none ("nil").
  QVGroupRef setTarget(const QVGroupRef& group, bool withTarget = true) {
    auto changed = std::make_shared<QVGroup>(*group);
    changed->target = withTarget ? qv::stringWithUUID() : "nil";
    if (withTarget)
      agent->createTargetWithDictionary(qvtest::targetRecord(*changed->target, group->title, "scripted", env.root()));
    agent->updateGroup(changed);
    return changed;
  }
  QVMenu& submenuOf(const std::string& title) {
    for (const auto& item : agent->menuItems().value_or(Items{}))
      if (item->title() == title && item->submenu()) return *item->submenu();
    throw std::runtime_error("no item for " + title);
  }
  // The submenu of the group's item in a fresh list: titles, with "(hidden)" after hidden entries.
  std::vector<std::string> submenu(const std::string& title) {
    std::vector<std::string> entries;
    for (const auto& entry : submenuOf(title).itemArray())
      entries.push_back(entry->isSeparatorItem() ? "----" : entry->title() + (entry->isHidden() ? " (hidden)" : ""));
    return entries;
  }
  QVMenuItem& entry(const std::string& title, std::size_t index) { return submenuOf(title).itemAtIndex(index); }
};

TEST_F(QVBackupMenuItemControllerTest, ListsAHeadingAndOneItemPerGroupAndNothingWithoutGroups) {
  EXPECT_FALSE(agent->menuItems().has_value()) << "no groups: no list at all, not an empty one";
  EXPECT_FALSE(QVBackupMenuItemController().menuItems()) << "a controller without an agent lists nothing";
  addGroup("Photos");
  addGroup("Notes", false);
  const Items items = agent->menuItems().value();
  std::vector<std::string> titles;
  for (const auto& item : items) titles.push_back(item->isSeparatorItem() ? "----" : item->title());
  ASSERT_EQ(titles, (std::vector<std::string>{"Backup", "----", "Photos", "Notes"}));
  EXPECT_FALSE(items[0]->hasAction() || items[0]->submenu());
  EXPECT_EQ(items[2]->indentationLevel(), 1);
  EXPECT_FALSE(items[2]->hasAction());
  EXPECT_EQ(submenu("Photos"), (std::vector<std::string>{"Last backup: Never", "----", "Backup Now",
                                                         "Cancel backup (hidden)", "Remove group"}));
  EXPECT_EQ(submenu("Notes")[2], "No destination");
  const QVMenu& entries = *items[3]->submenu();
  EXPECT_FALSE(entries.itemArray()[0]->hasAction()) << "the status line is inert text";
  for (std::size_t i = 0; i < entries.numberOfItems(); ++i)
    EXPECT_EQ(entries.itemArray()[i]->representedObject(), i >= 2 ? agent->groups()[1]->identifier : "") << i;
}

TEST_F(QVBackupMenuItemControllerTest, EachEntryAsksTheAgentForTheGroupItStandsFor) {
  QVGroupRef notes = addGroup("Notes", false);
  host.journal->clear();
  entry("Notes", 2).performAction();  // "No destination" shows the group in the host, through its proxy
  EXPECT_EQ(*host.journal, (qvtest::Journal{"hostAppProxy:QVBackup|QVBackupAgentDelegate",
                                            "host.showGroupsWithIDs:" + notes->identifier}));

  // A destination given later turns the entry into "Backup Now", which asks for a run without notifying.
  QVGroupRef changed = setTarget(notes);
  script.blockAtItem = 0;
  EXPECT_EQ(submenu("Notes")[2], "Backup Now");
  entry("Notes", 2).performAction();
  ASSERT_TRUE(agent->isBackingUpGroupWithID(notes->identifier));
  // Asked with notify = false, the agent tells of an empty group itself (asked for the host, it would not).
  QVGroupRef empty = addGroup("Empty");
  agent->removeItemWithPath(empty->items.front(), empty->identifier);
  entry("Empty", 2).performAction();
  EXPECT_EQ(host.shownNotifications.size(), 1u);  // its text: QVBackupAgentRunTest

  entry("Notes", 3).performAction();  // "Cancel backup"
  ASSERT_TRUE(qv::runMainLoopUntil([&] { return !agent->isBackingUpGroupWithID(notes->identifier); }));
  EXPECT_EQ(changed->statusCode, -128);
  EXPECT_FALSE(changed->lastBackupDate);
  EXPECT_TRUE(host.linesStartingWith("template").empty()) << "a cancel is no failure to show";
  EXPECT_EQ(submenu("Notes")[3], "Cancel backup (hidden)") << "at rest again";
  entry("Notes", 4).performAction();  // "Remove group"
  entry("Empty", 4).performAction();
  EXPECT_TRUE(agent->groups().empty());
  EXPECT_FALSE(agent->menuItems().has_value());
}

TEST_F(QVBackupMenuItemControllerTest, RunEventsSwapTheEntriesAndARenamedGroupGetsANewItem) {
  QVGroupRef photos = addGroup("Photos");
  controller().agentDidStartBackupGroup(photos);  // before any list: the event makes the item
  const auto item = agent->menuItems().value()[2];
  EXPECT_EQ(submenu("Photos"), (std::vector<std::string>{"Backing up...", "----", "Backup Now (hidden)",
                                                         "Cancel backup", "Remove group (hidden)"}));
  controller().agentGroup(photos, 42);
  EXPECT_EQ(submenu("Photos")[0], "Backup progress: 42%");
  EXPECT_EQ(submenu("Photos")[2], "Backup Now (hidden)") << "a new list leaves the run's flags as they are";

  auto done = std::make_shared<QVGroup>(*photos);
  done->lastBackupDate = std::chrono::system_clock::now();
  controller().agentDidFinishBackupGroup(done);
  EXPECT_EQ(submenu("Photos"),
            (std::vector<std::string>{"Last backup: " + qv::stringFromDate(*done->lastBackupDate), "----", "Backup Now",
                                      "Cancel backup (hidden)", "Remove group"}));
  EXPECT_EQ(agent->menuItems().value()[2], item) << "updated in place";

  // A renamed group gets a new item. The old record is gone: an event for the old group makes it afresh,
  // then the next list drops it again.
  auto renamed = std::make_shared<QVGroup>(*photos);
  renamed->title = "Pictures";
  agent->updateGroup(renamed);
  const auto after = agent->menuItems().value()[2];
  EXPECT_NE(after, item);
  EXPECT_EQ(after->title(), "Pictures");
  EXPECT_NE(controller().menuItemForGroup(photos), item);
  agent->menuItems();
  EXPECT_EQ(controller().menuItemForGroup(renamed), after);
}

}  // namespace
