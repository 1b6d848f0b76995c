#include <gtest/gtest.h>

#include <chrono>
#include <functional>

#include "support/QVAgentTestSupport.h"

using namespace std::chrono_literals;
using qvtest::agentPreferencesInMemory;
using qvtest::agentPreferencesOnDisk;
using qvtest::Journal;
using qvtest::storedRecord;
using qvtest::storedValue;

namespace {

QVSchedule dailyAt(int hour) { return QVSchedule::fromDictionary({{"period", "daily"}, {"hour", hour}, {"minute", 0}}); }

std::vector<std::string> storedItems(const QVDictionary& preferences, const std::string& groupID) {
  std::vector<std::string> items;
  if (const QVValue list = storedValue(preferences, "groups", groupID, "items"); list.array())
    for (const QVValue& item : *list.array()) items.push_back(item.string() ? *item.string() : "?");
  return items;
}

// The registry of an agent with the files <root>/files/a/b.txt, <root>/files/a/c/d.txt and
// <root>/files/ab.txt. The delegate notes the saved preferences as they stand at each change it hears of.
class QVBackupAgentRegistryTest : public qvtest::AgentTest {
 protected:
  QVBackupAgent& startWatching() {
    start();
    delegate->onChange = [this] { storeAtMessage = agentPreferencesInMemory(); };
    return *agent;
  }
  // Marks the present: the journal from here on, and the file on disk as it is now.
  void mark() {
    host.journal->clear();
    m_diskBefore = qvtest::readFile(env.preferencesPath());
  }
  bool diskChanged() const { return qvtest::readFile(env.preferencesPath()) != m_diskBefore; }

  const std::string m_b = makeFile("a/b.txt"), m_d = makeFile("a/c/d.txt"), m_ab = makeFile("ab.txt");
  const std::string m_a = env.root() + "/files/a";
  QVDictionary storeAtMessage;
  std::string m_diskBefore;
};

TEST_F(QVBackupAgentRegistryTest, AFileIsCoveredOnlyByAFolderThatIsItsImmediateParent) {
  startWatching().addItemsAtPaths({m_b, m_d, m_ab}, "Docs");
  QVGroupRef docs = groupNamed("Docs");
  agent->addItemsAtPaths({m_a}, "Docs");
  EXPECT_EQ(docs->items, (std::vector<std::string>{m_ab, m_a})) << "a name that merely begins alike stays";
  EXPECT_EQ(agent->directoriesInGroup().at(docs->identifier), std::vector<std::string>{m_a});
  agent->addItemsAtPaths({m_d}, "Docs");
  EXPECT_EQ(docs->items, (std::vector<std::string>{m_ab, m_a, m_d}));
  // Within one call, in either order.
  agent->addItemsAtPaths({m_b, m_a}, "First the file");
  agent->addItemsAtPaths({m_a, m_b}, "First the folder");
  EXPECT_EQ(groupNamed("First the file")->items, std::vector<std::string>{m_a});
  EXPECT_EQ(groupNamed("First the folder")->items, std::vector<std::string>{m_a});

  // After a restart the folders are known again from the items.
  restart().addItemsAtPaths({m_b}, "Docs");
  EXPECT_EQ(groupNamed("Docs")->items, (std::vector<std::string>{m_ab, m_a, m_d}));
  // Removing the folder leaves the items below it, and files in it count as uncovered again.
  agent->removeItemWithPath(m_a, groupNamed("Docs")->identifier);
  agent->addItemsAtPaths({m_b}, "Docs");
  EXPECT_EQ(groupNamed("Docs")->items, (std::vector<std::string>{m_ab, m_d, m_b}));
}

TEST_F(QVBackupAgentRegistryTest, ANewGroupTakesItsDefaultsAndEachPathOnce) {
  const std::string defaultID = start().defaultTarget()->identifier;
  const std::string missing = env.root() + "/files/not there.txt";
  agent->addItemsAtPaths({m_b, m_b, missing, m_d, m_b}, "Docs");
  agent->addItemsAtPaths({missing, m_d}, "Docs");
  agent->addItemsAtPaths({m_d}, "docs");  // groups are found by their exact name
  agent->addItemsAtPaths({missing}, "Nothing yet");
  ASSERT_EQ(agent->groups().size(), 3u);
  const QVGroup& group = *agent->groups().front();
  EXPECT_EQ(group.items, (std::vector<std::string>{m_b, m_d}));
  EXPECT_EQ(group.identifier.size(), 36u) << group.identifier;
  EXPECT_NE(group.identifier, agent->groups()[1]->identifier);
  EXPECT_EQ(group.target, defaultID);
  EXPECT_EQ(group.versions, 3u);
  EXPECT_EQ(group.statusCode, 0);
  ASSERT_TRUE(group.schedule);
  EXPECT_EQ(group.schedule->period, "manual");
  EXPECT_EQ(agent->numberOfArmedTimers(), 0u);
  EXPECT_TRUE(groupNamed("Nothing yet")->items.empty()) << "only missing paths still make the group";

  // Without a default destination the group's is the text "nil".
  agent->removeTargetWithID(defaultID);
  agent->createTargetWithDictionary(QVTarget::fromDictionary({{"id", "T1"}, {"type", "local"}, {"isDefault", false}}));
  agent->addItemsAtPaths({m_b}, "Later");
  EXPECT_EQ(groupNamed("Later")->target, "nil");
}

TEST_F(QVBackupAgentRegistryTest, EachChangeSavesWritesAndTellsInItsOwnOrder) {
  startWatching().addItemsAtPaths({m_b, m_d, m_ab}, "Docs");
  agent->addItemsAtPaths({m_ab}, "Photos");
  const std::string docs = groupNamed("Docs")->identifier, photos = groupNamed("Photos")->identifier;
  const std::string local = agent->defaultTarget()->identifier;
  QVGroupRef renamed;
  using Store = const QVDictionary&;
  struct Change {
    std::function<void()> make;
    Journal told;
    bool written, toldAfterSave;
    std::function<bool(Store)> holds;  // whether a store holds the change
  };
  const std::vector<Change> changes = {
      {[&] { agent->addItemsAtPaths({m_b}, "New"); }, {"delegate.groupDidChange:New", "setBackupGroupsCount:3"}, true,
       true, [&](Store s) { return storedItems(s, groupNamed("New")->identifier) == Journal{m_b}; }},
      {[&] { agent->removeItemsWithPaths({m_b, m_ab, env.root() + "/never added"}, docs); },
       {"delegate.groupDidChange:Docs"}, true, true, [&](Store s) { return storedItems(s, docs) == Journal{m_d}; }},
      {[&] { agent->removeGroupWithID(photos); },
       {"delegate.groupWithIDDidRemoved:" + photos, "setBackupGroupsCount:2"}, true, false,
       [&](Store s) { return !storedRecord(s, "groups", photos); }},
      {[&] { agent->createTargetWithDictionary(qvtest::davTarget("D1", "Office NAS", "alice", "pw")); },
       {"delegate.targetDidChange:Office NAS"}, true, false,
       [](Store s) { return storedValue(s, "targets", "D1", "port") == QVValue(8443); }},
      // Updates are saved, not written, and not told. The group record itself takes the stored one's
      // place; a destination record is copied.
      {[&] {
         renamed = std::make_shared<QVGroup>(*groupNamed("Docs"));
         renamed->title = "Documents";
         agent->updateGroup(renamed);
       },
       {}, false, false,
       [&](Store s) { return storedValue(s, "groups", docs, "title") == QVValue("Documents") &&
                             agent->groupWithIdentifier(docs) == renamed; }},
      {[&] {
         QVTarget target = *agent->targetWithIdentifier(local);
         target.title = "This Computer";
         agent->updateTarget(target);
         target.title = "Changed afterwards";
       },
       {}, false, false,
       [&](Store s) { return storedValue(s, "targets", local, "title") == QVValue("This Computer") &&
                             agent->targetWithIdentifier(local)->title == "This Computer"; }},
      // Removing a destination leaves its groups pointing at it.
      {[&] { agent->removeTargetWithID(local); }, {}, true, false, [&](Store s) {
         return !storedRecord(s, "targets", local) && storedValue(s, "groups", docs, "target") == QVValue(local);
       }}};
  for (std::size_t i = 0; i < changes.size(); ++i) {
    SCOPED_TRACE(i);
    mark();
    changes[i].make();
    EXPECT_EQ(*host.journal, changes[i].told);
    EXPECT_TRUE(changes[i].holds(agentPreferencesInMemory()));
    EXPECT_EQ(diskChanged(), changes[i].written);
    EXPECT_TRUE(!changes[i].written || changes[i].holds(agentPreferencesOnDisk(env)));
    EXPECT_TRUE(changes[i].told.empty() || changes[i].holds(storeAtMessage) == changes[i].toldAfterSave);
  }
  EXPECT_EQ(agent->backupsForGroupWithID(docs), std::nullopt) << "its destination is gone";
}

TEST_F(QVBackupAgentRegistryTest, UpdatingAGroupRearmsItsTimerOnlyWhenTheScheduleChanged) {
  start().addItemsAtPaths({m_b}, "Docs");
  auto group = std::make_shared<QVGroup>(*groupNamed("Docs"));
  group->schedule = dailyAt(9);
  agent->updateGroup(group);
  const auto armed = agent->timerFireDateForGroupWithID(group->identifier);
  ASSERT_TRUE(armed);
  EXPECT_GT(*armed, std::chrono::system_clock::now());
  // Had it been armed again, the old attempt would put it ten days back.
  group = std::make_shared<QVGroup>(*group);
  group->lastBackupAttemptDate = std::chrono::system_clock::now() - 240h;
  agent->updateGroup(group);
  EXPECT_EQ(agent->timerFireDateForGroupWithID(group->identifier), armed);
  group = std::make_shared<QVGroup>(*group);
  group->schedule = dailyAt(21);
  agent->updateGroup(group);
  EXPECT_LT(agent->timerFireDateForGroupWithID(group->identifier), std::chrono::system_clock::now() - 200h);
  EXPECT_EQ(agent->numberOfArmedTimers(), 1u) << "the old timer is not left armed";
  // Removing the group drops its timer and its folders.
  agent->removeGroupWithID(group->identifier);
  EXPECT_EQ(agent->numberOfArmedTimers(), 0u);
  EXPECT_FALSE(agent->timerFireDateForGroupWithID(group->identifier));
  EXPECT_EQ(agent->directoriesInGroup().count(group->identifier), 0u);
}

TEST_F(QVBackupAgentRegistryTest, HandlesUnknownIdentifiersEachInItsOwnWay) {
  start().addItemsAtPaths({m_b}, "Docs");
  QVTarget renamed = *agent->defaultTarget();
  auto renameInMemory = [&](const std::string& title) {
    renamed.title = title;
    agent->updateTarget(renamed);  // saved, not yet on disk
    mark();
  };
  auto titleOnDisk = [&] { return storedValue(agentPreferencesOnDisk(env), "targets", renamed.identifier, "title"); };

  // Destinations: nothing at all.
  renameInMemory("Unsynced");
  agent->removeTargetWithID("no-such-target");
  agent->updateTarget(qvtest::davTarget("no-such-target", "Stranger"));
  EXPECT_EQ(agent->targets().size(), 1u);
  EXPECT_TRUE(host.journal->empty());
  EXPECT_FALSE(diskChanged());
  // Items: saved, written and told, with no group.
  agent->removeItemsWithPaths({m_b}, "no-such-group");
  EXPECT_EQ(*host.journal, Journal{"delegate.groupDidChange:<none>"});
  EXPECT_EQ(titleOnDisk(), QVValue("Unsynced"));
  EXPECT_EQ(groupNamed("Docs")->items, std::vector<std::string>{m_b});
  // Groups: told, saved, written, and the count goes to the host.
  renameInMemory("Unsynced again");
  agent->removeGroupWithID("no-such-group");
  EXPECT_EQ(*host.journal, (Journal{"delegate.groupWithIDDidRemoved:no-such-group", "setBackupGroupsCount:1"}));
  EXPECT_EQ(titleOnDisk(), QVValue("Unsynced again"));
  EXPECT_EQ(agent->groups().size(), 1u);
}

}  // namespace
