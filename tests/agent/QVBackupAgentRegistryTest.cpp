#include "agent/QVBackupAgent.h"

#include <gtest/gtest.h>

#include <chrono>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "platform/QVKeychain.h"
#include "platform/QVUserDefaults.h"
#include "support/QVAgentTestSupport.h"
#include "support/QVRecordingHost.h"
#include "support/QVTestSupport.h"

namespace fs = std::filesystem;
using namespace std::chrono_literals;

namespace {

// Also notes the saved preferences as they stand when a change is told, to tell "before saving" from
// "after saving".
class StoreWatchingDelegate : public qvtest::RecordingDelegate {
 public:
  using RecordingDelegate::RecordingDelegate;
  QVDictionary storeAtMessage;

  void groupDidChangeInAgent(const QVGroupRef& group, QVBackupAgent& agent) override {
    RecordingDelegate::groupDidChangeInAgent(group, agent);
    storeAtMessage = qvtest::agentPreferencesInMemory();
  }
  void groupWithIDDidRemovedInAgent(const std::string& groupID, QVBackupAgent& agent) override {
    RecordingDelegate::groupWithIDDidRemovedInAgent(groupID, agent);
    storeAtMessage = qvtest::agentPreferencesInMemory();
  }
  void targetDidChangeInAgent(const QVTargetRef& target, QVBackupAgent& agent) override {
    RecordingDelegate::targetDidChangeInAgent(target, agent);
    storeAtMessage = qvtest::agentPreferencesInMemory();
  }
};

QVSchedule dailyAt(int hour) {
  QVSchedule schedule;
  schedule.period = "daily";
  schedule.hour = hour;
  schedule.minute = 0;
  return schedule;
}

std::vector<std::string> storedItems(const QVDictionary& preferences, const std::string& groupID) {
  const QVDictionary* group = qvtest::storedRecord(preferences, "groups", groupID);
  if (!group) return {};
  std::vector<std::string> items;
  if (const QVValue* list = qv::valueForKey(*group, "items"); list && list->array())
    for (const QVValue& item : *list->array()) items.push_back(item.string() ? *item.string() : "?");
  return items;
}

}  // namespace

// The registry of an agent started in an isolated environment, with the files
//   <root>/files/a/b.txt, <root>/files/a/c/d.txt, <root>/files/ab.txt
// and a delegate that writes into the host's journal.
class QVBackupAgentRegistryTest : public ::testing::Test {
 protected:
  void SetUp() override {
    for (const std::string& file : {m_b, m_d, m_ab}) qvtest::writeFile(file, "data");
  }

  QVBackupAgent& startAgent() {
    m_agent = std::make_unique<QVBackupAgent>(&m_host);
    m_delegate = std::make_shared<StoreWatchingDelegate>(m_host.journal);
    m_agent->setDelegate(m_delegate);
    m_host.journal->clear();
    return *m_agent;
  }

  // Marks the present: the journal from here on, and the file on disk as it is now.
  void mark() {
    m_host.journal->clear();
    m_diskBefore = qvtest::readFile(m_env.preferencesPath());
  }
  bool diskChanged() const { return qvtest::readFile(m_env.preferencesPath()) != m_diskBefore; }
  const qvtest::Journal& journal() const { return *m_host.journal; }

  QVGroupRef groupNamed(const std::string& title) const {
    for (const auto& group : m_agent->groups())
      if (group->title == title) return group;
    return nullptr;
  }

  qvtest::IsolatedEnvironment m_env;
  const std::string m_a = m_env.root() + "/files/a";
  const std::string m_b = m_a + "/b.txt";
  const std::string m_d = m_a + "/c/d.txt";
  const std::string m_ab = m_env.root() + "/files/ab.txt";
  qvtest::RecordingHost m_host;
  std::shared_ptr<StoreWatchingDelegate> m_delegate;
  std::unique_ptr<QVBackupAgent> m_agent;
  std::string m_diskBefore;
};

TEST_F(QVBackupAgentRegistryTest, AddingAFolderReplacesTheItemsBelowIt) {
  QVBackupAgent& agent = startAgent();
  agent.addItemsAtPaths({m_b, m_d, m_ab}, "Docs");
  QVGroupRef docs = groupNamed("Docs");
  ASSERT_TRUE(docs);
  EXPECT_EQ(docs->items, (std::vector<std::string>{m_b, m_d, m_ab}));

  agent.addItemsAtPaths({m_a}, "Docs");
  EXPECT_EQ(docs->items, (std::vector<std::string>{m_ab, m_a})) << "a name that merely begins alike stays";
  EXPECT_EQ(agent.directoriesInGroup().at(docs->identifier), std::vector<std::string>{m_a});

  // Within one call, in either order.
  agent.addItemsAtPaths({m_b, m_a}, "First the file");
  EXPECT_EQ(groupNamed("First the file")->items, std::vector<std::string>{m_a});
  agent.addItemsAtPaths({m_a, m_b}, "First the folder");
  EXPECT_EQ(groupNamed("First the folder")->items, std::vector<std::string>{m_a});
}

TEST_F(QVBackupAgentRegistryTest, AFileIsCoveredOnlyByItsImmediateParentFolder) {
  QVBackupAgent& agent = startAgent();
  agent.addItemsAtPaths({m_a}, "Docs");
  agent.addItemsAtPaths({m_b}, "Docs");
  EXPECT_EQ(groupNamed("Docs")->items, std::vector<std::string>{m_a});
  agent.addItemsAtPaths({m_d}, "Docs");
  EXPECT_EQ(groupNamed("Docs")->items, (std::vector<std::string>{m_a, m_d}));

  // After a restart the folders of the group are known again from its items.
  m_agent.reset();
  QVUserDefaults::resetStandardUserDefaults();
  QVKeychain::setSharedProxy(nullptr);
  QVBackupAgent& again = startAgent();
  again.addItemsAtPaths({m_b}, "Docs");
  EXPECT_EQ(groupNamed("Docs")->items, (std::vector<std::string>{m_a, m_d}));

  // Removing the folder leaves the items below it, and files in it count as uncovered again.
  again.removeItemWithPath(m_a, groupNamed("Docs")->identifier);
  EXPECT_EQ(groupNamed("Docs")->items, std::vector<std::string>{m_d});
  again.addItemsAtPaths({m_b}, "Docs");
  EXPECT_EQ(groupNamed("Docs")->items, (std::vector<std::string>{m_d, m_b}));
}

TEST_F(QVBackupAgentRegistryTest, CreatesANewGroupWithItsDefaultsThenSavesSyncsAndTells) {
  QVBackupAgent& agent = startAgent();
  const std::string defaultID = agent.defaultTarget()->identifier;
  mark();
  agent.addItemsAtPaths({m_b}, "Docs");

  ASSERT_EQ(agent.groups().size(), 1u);
  const QVGroup& group = *agent.groups().front();
  EXPECT_EQ(journal(), (qvtest::Journal{"delegate.groupDidChange:Docs", "setBackupGroupsCount:1"}));
  EXPECT_EQ(storedItems(m_delegate->storeAtMessage, group.identifier), std::vector<std::string>{m_b})
      << "the delegate hears of it after the save";
  EXPECT_TRUE(diskChanged());
  EXPECT_EQ(storedItems(qvtest::agentPreferencesOnDisk(m_env), group.identifier), std::vector<std::string>{m_b});
  EXPECT_EQ(group.title, "Docs");
  EXPECT_EQ(group.identifier.size(), 36u) << group.identifier;
  EXPECT_EQ(group.target, defaultID);
  EXPECT_EQ(group.versions, 3u);
  EXPECT_EQ(group.statusCode, 0);
  ASSERT_TRUE(group.schedule);
  EXPECT_EQ(group.schedule->period, "manual");
  EXPECT_EQ(agent.numberOfArmedTimers(), 0u);

  // Groups are found by their exact name.
  agent.addItemsAtPaths({m_d}, "Docs");
  agent.addItemsAtPaths({m_d}, "docs");
  ASSERT_EQ(agent.groups().size(), 2u);
  EXPECT_NE(agent.groups()[0]->identifier, agent.groups()[1]->identifier);
  EXPECT_EQ(agent.groups()[0]->items, (std::vector<std::string>{m_b, m_d}));
}

TEST_F(QVBackupAgentRegistryTest, GivesANewGroupTheStringNilWithoutADefaultDestination) {
  qvtest::writeAgentPreferences(
      m_env, {{"targets", QVArray{QVDictionary{
                              {"id", "T1"}, {"title", "Disk"}, {"type", "local"}, {"path", "/x"}, {"isDefault", false}}}}});
  QVBackupAgent& agent = startAgent();
  agent.addItemsAtPaths({m_b}, "Docs");
  EXPECT_EQ(groupNamed("Docs")->target, "nil");
}

TEST_F(QVBackupAgentRegistryTest, AddsEachPathOnceAndSkipsMissingPaths) {
  QVBackupAgent& agent = startAgent();
  const std::string missing = m_env.root() + "/files/not there.txt";
  agent.addItemsAtPaths({m_b, m_b, missing, m_d, m_b}, "Docs");
  EXPECT_EQ(groupNamed("Docs")->items, (std::vector<std::string>{m_b, m_d}));

  agent.addItemsAtPaths({missing, m_d}, "Docs");
  EXPECT_EQ(groupNamed("Docs")->items, (std::vector<std::string>{m_b, m_d}));

  // A name with only missing paths still makes its (empty) group.
  agent.addItemsAtPaths({missing}, "Nothing yet");
  ASSERT_TRUE(groupNamed("Nothing yet"));
  EXPECT_TRUE(groupNamed("Nothing yet")->items.empty());
}

TEST_F(QVBackupAgentRegistryTest, RemovingAGroupTellsTheDelegateBeforeSaving) {
  QVBackupAgent& agent = startAgent();
  agent.addItemsAtPaths({m_b}, "Docs");
  agent.addItemsAtPaths({m_d}, "Photos");
  auto docs = std::make_shared<QVGroup>(*groupNamed("Docs"));
  docs->schedule = dailyAt(9);
  agent.updateGroup(docs);
  ASSERT_EQ(agent.numberOfArmedTimers(), 1u);

  mark();
  agent.removeGroupWithID(docs->identifier);
  EXPECT_EQ(journal(),
            (qvtest::Journal{"delegate.groupWithIDDidRemoved:" + docs->identifier, "setBackupGroupsCount:1"}));
  EXPECT_TRUE(qvtest::storedRecord(m_delegate->storeAtMessage, "groups", docs->identifier))
      << "the delegate hears of it before the save";
  EXPECT_FALSE(qvtest::storedRecord(qvtest::agentPreferencesInMemory(), "groups", docs->identifier));
  EXPECT_TRUE(diskChanged());
  EXPECT_FALSE(qvtest::storedRecord(qvtest::agentPreferencesOnDisk(m_env), "groups", docs->identifier));
  EXPECT_EQ(agent.numberOfArmedTimers(), 0u);
  EXPECT_FALSE(agent.timerFireDateForGroupWithID(docs->identifier));
  EXPECT_EQ(agent.directoriesInGroup().count(docs->identifier), 0u);
  EXPECT_EQ(agent.groups().size(), 1u);
}

TEST_F(QVBackupAgentRegistryTest, RemovingItemsSavesSyncsAndThenTellsTheDelegate) {
  QVBackupAgent& agent = startAgent();
  agent.addItemsAtPaths({m_b, m_d, m_ab}, "Docs");
  const std::string id = groupNamed("Docs")->identifier;

  mark();
  agent.removeItemsWithPaths({m_b, m_ab, m_env.root() + "/never added"}, id);
  EXPECT_EQ(groupNamed("Docs")->items, std::vector<std::string>{m_d});
  EXPECT_EQ(journal(), qvtest::Journal{"delegate.groupDidChange:Docs"});
  EXPECT_EQ(storedItems(m_delegate->storeAtMessage, id), std::vector<std::string>{m_d})
      << "the delegate hears of it after the save";
  EXPECT_TRUE(diskChanged());
  EXPECT_EQ(storedItems(qvtest::agentPreferencesOnDisk(m_env), id), std::vector<std::string>{m_d});
}

TEST_F(QVBackupAgentRegistryTest, CreatingADestinationTellsTheDelegateBeforeSaving) {
  QVBackupAgent& agent = startAgent();
  mark();
  agent.createTargetWithDictionary(qvtest::davTarget("D1", "Office NAS", "alice", "pw"));

  EXPECT_EQ(journal(), qvtest::Journal{"delegate.targetDidChange:Office NAS"});
  EXPECT_FALSE(qvtest::storedRecord(m_delegate->storeAtMessage, "targets", "D1"));
  EXPECT_TRUE(diskChanged());
  const QVDictionary onDisk = qvtest::agentPreferencesOnDisk(m_env);
  EXPECT_EQ(qvtest::storedValue(onDisk, "targets", "D1", "server"), QVValue("dav.example.org"));
  EXPECT_EQ(qvtest::storedValue(onDisk, "targets", "D1", "port"), QVValue(8443));
  ASSERT_EQ(agent.targets().size(), 2u);
  EXPECT_EQ(agent.targets().back()->identifier, "D1");
}

TEST_F(QVBackupAgentRegistryTest, UpdatingSavesWithoutWritingToDiskOrTelling) {
  QVBackupAgent& agent = startAgent();
  agent.addItemsAtPaths({m_b}, "Docs");
  auto renamedGroup = std::make_shared<QVGroup>(*groupNamed("Docs"));
  renamedGroup->title = "Documents";
  QVTarget renamedTarget = *agent.defaultTarget();
  renamedTarget.title = "This Computer";

  mark();
  agent.updateGroup(renamedGroup);
  agent.updateTarget(renamedTarget);
  EXPECT_TRUE(journal().empty());
  EXPECT_FALSE(diskChanged());
  const QVDictionary saved = qvtest::agentPreferencesInMemory();
  EXPECT_EQ(qvtest::storedValue(saved, "groups", renamedGroup->identifier, "title"), QVValue("Documents"));
  EXPECT_EQ(qvtest::storedValue(saved, "targets", renamedTarget.identifier, "title"), QVValue("This Computer"));

  // The group record itself takes the stored one's place; a destination record is copied.
  EXPECT_EQ(agent.groupWithIdentifier(renamedGroup->identifier), renamedGroup);
  renamedTarget.title = "Changed afterwards";
  EXPECT_EQ(agent.targetWithIdentifier(renamedTarget.identifier)->title, "This Computer");
}

TEST_F(QVBackupAgentRegistryTest, UpdatingAGroupRearmsItsTimerOnlyWhenTheScheduleChanged) {
  QVBackupAgent& agent = startAgent();
  agent.addItemsAtPaths({m_b}, "Docs");
  auto daily = std::make_shared<QVGroup>(*groupNamed("Docs"));
  daily->schedule = dailyAt(9);
  agent.updateGroup(daily);
  ASSERT_EQ(agent.numberOfArmedTimers(), 1u);
  const auto armed = agent.timerFireDateForGroupWithID(daily->identifier);
  ASSERT_TRUE(armed);
  EXPECT_GT(*armed, std::chrono::system_clock::now());

  // Had it been armed again, the old attempt would put it ten days back.
  auto sameSchedule = std::make_shared<QVGroup>(*daily);
  sameSchedule->lastBackupAttemptDate = std::chrono::system_clock::now() - 240h;
  agent.updateGroup(sameSchedule);
  EXPECT_EQ(agent.timerFireDateForGroupWithID(daily->identifier), armed);
  EXPECT_EQ(agent.numberOfArmedTimers(), 1u);

  auto evening = std::make_shared<QVGroup>(*sameSchedule);
  evening->schedule = dailyAt(21);
  agent.updateGroup(evening);
  const auto rearmed = agent.timerFireDateForGroupWithID(daily->identifier);
  ASSERT_TRUE(rearmed);
  EXPECT_LT(*rearmed, std::chrono::system_clock::now() - 200h);
  EXPECT_EQ(agent.numberOfArmedTimers(), 1u) << "the old timer is not left armed";

  auto manual = std::make_shared<QVGroup>(*evening);
  manual->schedule = QVSchedule{};
  agent.updateGroup(manual);
  EXPECT_EQ(agent.numberOfArmedTimers(), 0u);
}

TEST_F(QVBackupAgentRegistryTest, RemovingADestinationLeavesItsGroupsPointingAtIt) {
  QVBackupAgent& agent = startAgent();
  agent.addItemsAtPaths({m_b}, "Docs");
  const std::string targetID = agent.defaultTarget()->identifier;

  mark();
  agent.removeTargetWithID(targetID);
  EXPECT_TRUE(agent.targets().empty());
  EXPECT_EQ(groupNamed("Docs")->target, targetID);
  EXPECT_TRUE(journal().empty());
  EXPECT_TRUE(diskChanged());
  const QVDictionary stored = qvtest::agentPreferencesOnDisk(m_env);
  EXPECT_EQ(qvtest::storedRecordCount(stored, "targets"), 0u);
  EXPECT_EQ(qvtest::storedValue(stored, "groups", groupNamed("Docs")->identifier, "target"), QVValue(targetID));
  EXPECT_EQ(agent.backupsForGroupWithID(groupNamed("Docs")->identifier), std::nullopt);
}

TEST_F(QVBackupAgentRegistryTest, HandlesUnknownIdentifiersEachInItsOwnWay) {
  QVBackupAgent& agent = startAgent();
  agent.addItemsAtPaths({m_b}, "Docs");
  QVTarget renamed = *agent.defaultTarget();
  auto renameInMemory = [&](const std::string& title) {
    renamed.title = title;
    agent.updateTarget(renamed);  // saved, not yet on disk
  };
  auto titleOnDisk = [&] {
    return qvtest::storedValue(qvtest::agentPreferencesOnDisk(m_env), "targets", renamed.identifier, "title");
  };

  // Destinations: nothing at all.
  renameInMemory("Unsynced");
  mark();
  agent.removeTargetWithID("no-such-target");
  QVTarget stranger = qvtest::davTarget("no-such-target", "Stranger", std::nullopt, std::nullopt);
  agent.updateTarget(stranger);
  EXPECT_EQ(agent.targets().size(), 1u);
  EXPECT_TRUE(journal().empty());
  EXPECT_FALSE(diskChanged());

  // Items: saved, written and told, with no group.
  agent.removeItemsWithPaths({m_b}, "no-such-group");
  EXPECT_EQ(journal(), qvtest::Journal{"delegate.groupDidChange:<none>"});
  EXPECT_EQ(titleOnDisk(), QVValue("Unsynced"));
  EXPECT_EQ(groupNamed("Docs")->items, std::vector<std::string>{m_b});

  // Groups: told, saved, written, and the count goes to the host.
  renameInMemory("Unsynced again");
  mark();
  agent.removeGroupWithID("no-such-group");
  EXPECT_EQ(journal(),
            (qvtest::Journal{"delegate.groupWithIDDidRemoved:no-such-group", "setBackupGroupsCount:1"}));
  EXPECT_EQ(titleOnDisk(), QVValue("Unsynced again"));
  EXPECT_EQ(agent.groups().size(), 1u);
}
