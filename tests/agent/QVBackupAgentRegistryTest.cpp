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

QVSchedule dailyAt(int hour) {
  return QVSchedule::fromDictionary({{"period", "daily"}, {"hour", hour}, {"minute", 0}});
}

bool storedItemsAre(const QVDictionary& store, const std::string& groupID, const std::string& onlyItem) {
  return storedValue(store, "groups", groupID, "items") == QVValue(QVArray{onlyItem});
}

// The registry of an agent with the files <root>/files/a/b.txt, <root>/files/a/c/d.txt and
// <root>/files/ab.txt.
class QVBackupAgentRegistryTest : public qvtest::AgentTest {
 protected:
  const std::string m_b = makeFile("a/b.txt"), m_d = makeFile("a/c/d.txt"), m_ab = makeFile("ab.txt");
  const std::string m_a = env.root() + "/files/a";
};

TEST_F(QVBackupAgentRegistryTest, AFileIsCoveredOnlyByAFolderThatIsItsImmediateParent) {
  start().addItemsAtPaths({m_b, m_d, m_ab}, "Docs");
  QVGroupRef docs = groupNamed("Docs");
  agent->addItemsAtPaths({m_a}, "Docs");
  EXPECT_EQ(docs->items, (std::vector<std::string>{m_ab, m_a})) << "a name that merely begins alike stays";
  agent->addItemsAtPaths({m_d}, "Docs");
  EXPECT_EQ(docs->items, (std::vector<std::string>{m_ab, m_a, m_d}));
  for (const auto& inOneCall : {std::vector{m_b, m_a}, std::vector{m_a, m_b}}) {  // in either order
    agent->addItemsAtPaths(inOneCall, inOneCall[0]);
    EXPECT_EQ(groupNamed(inOneCall[0])->items, std::vector<std::string>{m_a});
  }

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
  EXPECT_EQ(group.target, defaultID);  // the other defaults: QVCommandLineTest
  EXPECT_TRUE(groupNamed("Nothing yet")->items.empty()) << "only missing paths still make the group";

  // Without a default destination the group's is the text "nil".
  agent->removeTargetWithID(defaultID);
  agent->createTargetWithDictionary(QVTarget::fromDictionary({{"id", "T1"}, {"type", "local"}, {"isDefault", false}}));
  agent->addItemsAtPaths({m_b}, "Later");
  EXPECT_EQ(groupNamed("Later")->target, "nil");
}

// Updates are saved but neither written nor told; the change after one shows whether it synchronises.
TEST_F(QVBackupAgentRegistryTest, EachChangeSavesWritesAndTellsInItsOwnOrder) {
  start().addItemsAtPaths({m_b, m_d, m_ab}, "Docs");
  agent->addItemsAtPaths({m_ab}, "Photos");
  const std::string docs = groupNamed("Docs")->identifier, photos = groupNamed("Photos")->identifier;
  const std::string local = agent->defaultTarget()->identifier;
  QVDictionary storeAtMessage;  // the saved preferences as they stand when the delegate hears of a change
  delegate->onChange = [&] { storeAtMessage = agentPreferencesInMemory(); };
  QVGroupRef renamed;
  QVTarget target = *agent->defaultTarget();
  target.title = "This Computer";
  using Store = const QVDictionary&;
  struct Change {
    std::function<void()> make;
    Journal told;
    bool written, toldAfterSave;
    std::function<bool(Store)> holds;  // whether a store holds the change
  };
  const std::vector<Change> changes = {
      {[&] { agent->addItemsAtPaths({m_b}, "New"); },
       {"delegate.groupDidChange:New", "setBackupGroupsCount:3"},
       true,
       true,
       [&](Store s) { return storedItemsAre(s, groupNamed("New")->identifier, m_b); }},
      {[&] {
         agent->removeItemsWithPaths({m_b, m_ab, env.root() + "/never added"}, docs);
       },
       {"delegate.groupDidChange:Docs"},
       true,
       true,
       [&](Store s) { return storedItemsAre(s, docs, m_d); }},
      {[&] { agent->removeGroupWithID(photos); },
       {"delegate.groupWithIDDidRemoved:" + photos, "setBackupGroupsCount:2"},
       true,
       false,
       [&](Store s) { return !storedRecord(s, "groups", photos); }},
      {[&] { agent->createTargetWithDictionary(qvtest::davTarget("D1", "Office NAS", "alice", "pw")); },
       {"delegate.targetDidChange:Office NAS"},
       true,
       false,
       [](Store s) { return storedValue(s, "targets", "D1", "port") == QVValue(8443); }},
      // Unknown identifiers: nothing for destinations; items and groups are told of, saved and written.
      {[&] {
         agent->removeTargetWithID("no-such-target");
         agent->updateTarget(qvtest::davTarget("no-such-target", "Stranger"));
       },
       {},
       false,
       false,
       [&](Store s) { return !storedRecord(s, "targets", "no-such-target") && agent->targets().size() == 2; }},
      // A destination record is copied.
      {[&] { agent->updateTarget(target), target.title = "Changed afterwards"; },
       {},
       false,
       false,
       [&](Store s) {
         return storedValue(s, "targets", local, "title") == QVValue("This Computer") &&
                agent->targetWithIdentifier(local)->title == "This Computer";
       }},
      {[&] { agent->removeItemsWithPaths({m_d}, "no-such-group"); },
       {"delegate.groupDidChange:<none>"},
       true,
       true,
       [&](Store s) { return storedItemsAre(s, docs, m_d); }},
      // The group record itself takes the stored one's place.
      {[&] {
         renamed = std::make_shared<QVGroup>(*groupNamed("Docs"));
         renamed->title = "Documents";
         agent->updateGroup(renamed);
       },
       {},
       false,
       false,
       [&](Store s) {
         return storedValue(s, "groups", docs, "title") == QVValue("Documents") &&
                agent->groupWithIdentifier(docs) == renamed;
       }},
      {[&] { agent->removeGroupWithID("no-such-group"); },
       {"delegate.groupWithIDDidRemoved:no-such-group", "setBackupGroupsCount:2"},
       true,
       true,
       [&](Store s) { return storedValue(s, "groups", docs, "title") == QVValue("Documents"); }},
      // Removing a destination leaves its groups pointing at it.
      {[&] { agent->removeTargetWithID(local); },
       {},
       true,
       false,
       [&](Store s) {
         return !storedRecord(s, "targets", local) && storedValue(s, "groups", docs, "target") == QVValue(local);
       }}};
  for (std::size_t i = 0; i < changes.size(); ++i) {
    SCOPED_TRACE(i);
    host.journal->clear();
    const std::string diskBefore = qvtest::readFile(env.preferencesPath());
    changes[i].make();
    EXPECT_EQ(*host.journal, changes[i].told);
    EXPECT_TRUE(changes[i].holds(agentPreferencesInMemory()));
    EXPECT_EQ(qvtest::readFile(env.preferencesPath()) != diskBefore, changes[i].written);
    EXPECT_TRUE(!changes[i].written || changes[i].holds(agentPreferencesOnDisk(env)));
    EXPECT_TRUE(changes[i].told.empty() || changes[i].holds(storeAtMessage) == changes[i].toldAfterSave);
  }
  EXPECT_EQ(agent->backupsForGroupWithID(docs), std::nullopt) << "its destination is gone";
}

TEST_F(QVBackupAgentRegistryTest, UpdatingAGroupRearmsItsTimerOnlyWhenTheScheduleChanged) {
  start().addItemsAtPaths({m_b}, "Docs");
  auto group = groupNamed("Docs");
  auto update = [&](const std::function<void(QVGroup&)>& change) {
    group = std::make_shared<QVGroup>(*group);
    change(*group);
    agent->updateGroup(group);
    return agent->timerFireDateForGroupWithID(group->identifier);
  };
  const auto armed = update([](QVGroup& g) { g.schedule = dailyAt(9); });
  EXPECT_GT(armed.value(), std::chrono::system_clock::now());
  // Had it been armed again, the old attempt would put it ten days back.
  EXPECT_EQ(update([](QVGroup& g) { g.lastBackupAttemptDate = std::chrono::system_clock::now() - 240h; }), armed);
  EXPECT_LT(update([](QVGroup& g) { g.schedule = dailyAt(21); }), std::chrono::system_clock::now() - 200h);
  EXPECT_EQ(agent->numberOfArmedTimers(), 1u) << "the old timer is not left armed";
  // Removing the group drops its timer and its folders.
  agent->removeGroupWithID(group->identifier);
  EXPECT_EQ(agent->numberOfArmedTimers(), 0u);
  EXPECT_EQ(agent->directoriesInGroup().count(group->identifier), 0u);
}
