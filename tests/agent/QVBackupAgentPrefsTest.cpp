#include "agent/QVBackupAgent.h"

#include <gtest/gtest.h>

#include <chrono>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "platform/QVConstants.h"
#include "platform/QVKeychain.h"
#include "platform/QVUserDefaults.h"
#include "support/QVAgentTestSupport.h"
#include "support/QVRecordingHost.h"
#include "support/QVTestSupport.h"

namespace fs = std::filesystem;
using namespace std::chrono_literals;

namespace {

QVDictionary localTargetRecord(const std::string& identifier, const std::string& title) {
  return {{"id", identifier}, {"title", title}, {"type", "local"}, {"path", "/Volumes/" + title}};
}

// The value under key of a stored record; a null value when either is missing.
QVValue valueIn(const QVDictionary* record, const std::string& key) {
  const QVValue* value = record ? qv::valueForKey(*record, key) : nullptr;
  return value ? *value : QVValue();
}

}  // namespace

// The agent's preferences in an isolated environment with the file keychain. Preferences are written
// before the agent starts; restart() drops the agent, the store and the keychain as a new host would.
class QVBackupAgentPrefsTest : public ::testing::Test {
 protected:
  QVBackupAgent& startAgent() {
    m_agent = std::make_unique<QVBackupAgent>(&m_host);
    return *m_agent;
  }

  void restart() {
    m_agent.reset();
    QVUserDefaults::resetStandardUserDefaults();
    QVKeychain::setSharedProxy(nullptr);
  }

  std::string makeFile(const std::string& relative) {
    const std::string path = m_env.root() + "/files/" + relative;
    qvtest::writeFile(path, "data");
    return path;
  }

  qvtest::IsolatedEnvironment m_env;
  qvtest::RecordingHost m_host;
  std::unique_ptr<QVBackupAgent> m_agent;
};

TEST_F(QVBackupAgentPrefsTest, NeverSavesCredentialsOrProgress) {
  QVBackupAgent& agent = startAgent();
  agent.createTargetWithDictionary(qvtest::davTarget("D1", "Office NAS", "alice", "s3cret-pass"));
  agent.addItemsAtPaths({makeFile("a.txt")}, "Docs");
  agent.groups().front()->progressInfo = std::vector<double>{0.5, 1.0};
  agent.savePrefs();
  ASSERT_TRUE(agent.syncUserDefaults());

  for (const QVDictionary& stored : {qvtest::agentPreferencesInMemory(), qvtest::agentPreferencesOnDisk(m_env)}) {
    ASSERT_EQ(qvtest::storedRecordCount(stored, "targets"), 2u);
    ASSERT_EQ(qvtest::storedRecordCount(stored, "groups"), 1u);
    for (const char* key : {"user", "pass", "progressInfo"})
      EXPECT_FALSE(qvtest::containsKeyAnywhere(QVValue(stored), key)) << key;
  }
  EXPECT_EQ(qvtest::readFile(m_env.preferencesPath()).find("s3cret-pass"), std::string::npos);

  // Saving strips the stored form only; memory keeps what a run and the host need.
  EXPECT_EQ(agent.targetWithIdentifier("D1")->pass, "s3cret-pass");
  EXPECT_EQ(agent.groups().front()->progressInfo, (std::vector<double>{0.5, 1.0}));
}

TEST_F(QVBackupAgentPrefsTest, KeepsKeysThatItDoesNotOwn) {
  QVDictionary group = {{"id", "G1"},
                        {"title", "Docs"},
                        {"items", QVArray{}},
                        {"target", "T1"},
                        {"schedule", QVDictionary{{"period", "manual"}, {"timeZone", "Europe/Berlin"}}},
                        {"versions", 5},
                        {"statusCode", 0},
                        {"labelColor", "blue"}};
  QVDictionary target = localTargetRecord("T1", "USB Disk");
  target["isDefault"] = true;
  target["volumeUUID"] = "8C1F-22AA";
  qvtest::writeAgentPreferences(
      m_env, {{"groups", QVArray{group}}, {"targets", QVArray{target}}, {"windowFrame", "{{10, 10}, {480, 320}}"}},
      {{"QVOtherPlugin", QVDictionary{{"enabled", true}}}});
  QVBackupAgent& agent = startAgent();

  // The host may write into the same dictionary while the agent lives.
  QVDictionary current = qvtest::agentPreferencesInMemory();
  current["showInMenu"] = false;
  QVUserDefaults::standardUserDefaults().setObject(current, "QVBackupAgent");

  agent.savePrefs();
  ASSERT_TRUE(agent.syncUserDefaults());
  const QVDictionary stored = qvtest::agentPreferencesOnDisk(m_env);
  EXPECT_EQ(valueIn(&stored, "windowFrame"), QVValue("{{10, 10}, {480, 320}}"));
  EXPECT_EQ(valueIn(&stored, "showInMenu"), QVValue(false));
  const QVDictionary* storedGroup = qvtest::storedRecord(stored, "groups", "G1");
  ASSERT_TRUE(storedGroup);
  EXPECT_EQ(valueIn(storedGroup, "labelColor"), QVValue("blue"));
  EXPECT_EQ(valueIn(storedGroup, "versions"), QVValue(5));
  const QVValue schedule = valueIn(storedGroup, "schedule");
  ASSERT_TRUE(schedule.dictionary());
  EXPECT_EQ(valueIn(schedule.dictionary(), "timeZone"), QVValue("Europe/Berlin"));
  EXPECT_EQ(valueIn(qvtest::storedRecord(stored, "targets", "T1"), "volumeUUID"), QVValue("8C1F-22AA"));

  auto root = qv::parseJSON(qvtest::readFile(m_env.preferencesPath()));
  ASSERT_TRUE(root && root->dictionary());
  EXPECT_TRUE(qv::valueForKey(*root->dictionary(), "QVOtherPlugin")) << "other owners' keys of the store stay";
}

TEST_F(QVBackupAgentPrefsTest, MarksTheFirstDestinationDefaultWhenNoneIsMarked) {
  qvtest::writeAgentPreferences(
      m_env, {{"targets", QVArray{localTargetRecord("T1", "First"), localTargetRecord("T2", "Second")}}});
  QVBackupAgent& agent = startAgent();

  ASSERT_EQ(agent.targets().size(), 2u);
  EXPECT_EQ(agent.targets()[0]->isDefault, true);
  EXPECT_EQ(agent.targets()[1]->isDefault, std::nullopt);
  ASSERT_TRUE(agent.defaultTarget());
  EXPECT_EQ(agent.defaultTarget()->identifier, "T1");

  // Destinations without groups: nothing to arm and no count for the host.
  EXPECT_TRUE(agent.groups().empty());
  EXPECT_EQ(agent.numberOfArmedTimers(), 0u);
  EXPECT_TRUE(m_host.linesStartingWith("setBackupGroupsCount").empty());

  agent.savePrefs();
  const QVDictionary stored = qvtest::agentPreferencesInMemory();
  EXPECT_EQ(valueIn(qvtest::storedRecord(stored, "targets", "T1"), "isDefault"), QVValue(true));
  EXPECT_TRUE(valueIn(qvtest::storedRecord(stored, "targets", "T2"), "isDefault").isNull());
}

TEST_F(QVBackupAgentPrefsTest, ADefaultMarkCountsByItsPresenceAlone) {
  QVDictionary second = localTargetRecord("T2", "Second");
  second["isDefault"] = false;
  qvtest::writeAgentPreferences(m_env, {{"targets", QVArray{localTargetRecord("T1", "First"), second}}});
  QVBackupAgent& agent = startAgent();

  ASSERT_EQ(agent.targets().size(), 2u);
  EXPECT_EQ(agent.targets()[0]->isDefault, std::nullopt);
  EXPECT_EQ(agent.targets()[1]->isDefault, false);
  EXPECT_EQ(agent.defaultTarget(), nullptr);
}

TEST_F(QVBackupAgentPrefsTest, ReadsTheDatesOfOlderPreferences) {
  const QVDate now = qvtest::nowInSeconds();
  const QVDate older = now - 72h, newer = now - 2h, attempt = now - 1h;
  auto groupRecord = [](const std::string& id) {
    return QVDictionary{{"id", id}, {"title", id}, {"items", QVArray{}}, {"target", "T1"},
                        {"schedule", QVDictionary{{"period", "manual"}}}, {"versions", 3}, {"statusCode", 0}};
  };
  QVDictionary legacy = groupRecord("G1");
  legacy["lastBackupDate"] = older;
  QVDictionary current = groupRecord("G2");
  current["lastBackupDate"] = newer;
  current["lastBackupAttemptDate"] = attempt;
  qvtest::writeAgentPreferences(m_env, {{"targets", QVArray{localTargetRecord("T1", "Disk")}},
                                        {"groups", QVArray{legacy, current, groupRecord("G3")}}});
  QVBackupAgent& agent = startAgent();

  EXPECT_EQ(agent.groupWithIdentifier("G1")->lastBackupAttemptDate, older);
  EXPECT_EQ(agent.groupWithIdentifier("G2")->lastBackupAttemptDate, attempt);
  EXPECT_EQ(agent.groupWithIdentifier("G3")->lastBackupAttemptDate, std::nullopt);
  EXPECT_EQ(agent.lastBackupDate(), newer) << "the latest backup over all groups";
  EXPECT_EQ(m_host.groupsCount, 3u);
}

TEST_F(QVBackupAgentPrefsTest, StartsWithTheDefaultDestinationWhenNothingIsStored) {
  QVBackupAgent& agent = startAgent();

  ASSERT_EQ(agent.targets().size(), 1u);
  const QVTarget& target = *agent.targets().front();
  EXPECT_EQ(target.title, "My Mac");
  EXPECT_EQ(target.type, "local");
  EXPECT_EQ(target.isDefault, true);
  EXPECT_FALSE(target.identifier.empty());
  EXPECT_EQ(target.path, m_env.home() + "/Documents/Stellwin Backups");
  EXPECT_TRUE(fs::is_directory(target.path));
  EXPECT_EQ(agent.defaultTarget(), agent.targets().front());
  EXPECT_TRUE(agent.groups().empty());
  EXPECT_EQ(agent.numberOfArmedTimers(), 0u);
  EXPECT_FALSE(agent.lastBackupDate());
  EXPECT_TRUE(m_host.linesStartingWith("setBackupGroupsCount").empty());

  // A local destination stores neither server nor port, and owns no keychain item.
  agent.savePrefs();
  const QVDictionary saved = qvtest::agentPreferencesInMemory();
  const QVDictionary* stored = qvtest::storedRecord(saved, "targets", target.identifier);
  ASSERT_TRUE(stored);
  EXPECT_TRUE(valueIn(stored, "server").isNull());
  EXPECT_TRUE(valueIn(stored, "port").isNull());
  EXPECT_EQ(valueIn(stored, "path"), QVValue(target.path));
  EXPECT_FALSE(QVKeychain::sharedProxy().keychainItemWithService(agent.serviceIdForTargetId(target.identifier)));
}

TEST_F(QVBackupAgentPrefsTest, SetsADamagedStoreFileAsideAndStartsFromDefaults) {
  const std::string garbage = "{\"QVBackupAgent\": {\"groups\": [{\"id\": \"G1\", \"items\": [";
  qvtest::writeFile(m_env.preferencesPath(), garbage);
  QVBackupAgent& agent = startAgent();

  ASSERT_EQ(agent.targets().size(), 1u);
  EXPECT_EQ(agent.targets().front()->title, "My Mac");
  EXPECT_TRUE(agent.groups().empty());

  int asideCount = 0;
  for (const auto& entry : fs::directory_iterator(m_env.configDirectory())) {
    if (entry.path().filename().string().rfind("preferences.json.damaged-", 0) != 0) continue;
    ++asideCount;
    EXPECT_EQ(qvtest::readFile(entry.path().string()), garbage);
  }
  EXPECT_EQ(asideCount, 1);

  agent.addItemsAtPaths({makeFile("a.txt")}, "Docs");
  EXPECT_EQ(qvtest::storedRecordCount(qvtest::agentPreferencesOnDisk(m_env), "groups"), 1u);
}

TEST_F(QVBackupAgentPrefsTest, KeepsWhatItCanOfDamagedRecordsAndWritesTheRestBack) {
  QVDictionary damagedGroup = {{"id", "G1"},
                               {"title", "Bad versions"},
                               {"items", QVArray{"/x", 5, "/y"}},
                               {"target", "T1"},
                               {"schedule", "daily"},
                               {"versions", "three"},
                               {"statusCode", 0}};
  QVDictionary targetWithoutID = {{"title", "No id"}, {"type", "local"}, {"path", "/Volumes/No id"}};
  qvtest::writeAgentPreferences(m_env, {{"groups", QVArray{"just a string", damagedGroup}},
                                        {"targets", QVArray{targetWithoutID, localTargetRecord("T1", "Disk")}}});
  QVBackupAgent& agent = startAgent();

  ASSERT_EQ(agent.groups().size(), 1u);
  const QVGroup& group = *agent.groups().front();
  EXPECT_EQ(group.identifier, "G1");
  EXPECT_EQ(group.title, "Bad versions");
  EXPECT_EQ(group.items, (std::vector<std::string>{"/x", "/y"}));
  EXPECT_EQ(group.target, "T1");
  EXPECT_EQ(group.versions, std::nullopt);
  ASSERT_EQ(agent.targets().size(), 2u);
  EXPECT_EQ(agent.targets()[0]->title, "No id");
  const std::string givenID = agent.targets()[0]->identifier;
  EXPECT_FALSE(givenID.empty());
  EXPECT_EQ(agent.numberOfArmedTimers(), 0u);

  agent.savePrefs();
  ASSERT_TRUE(agent.syncUserDefaults());
  const QVDictionary stored = qvtest::agentPreferencesOnDisk(m_env);
  const QVDictionary* storedGroup = qvtest::storedRecord(stored, "groups", "G1");
  ASSERT_TRUE(storedGroup);
  EXPECT_EQ(valueIn(storedGroup, "versions"), QVValue("three"));
  EXPECT_EQ(valueIn(storedGroup, "schedule"), QVValue("daily"));
  EXPECT_TRUE(qvtest::storedRecord(stored, "targets", givenID)) << "the identifier given on load is kept";
  EXPECT_NE(qv::toJSON(QVValue(stored)).find("just a string"), std::string::npos)
      << "a record that could not be read is not dropped";

  // A second start reads the written preferences the same way.
  restart();
  QVBackupAgent& again = startAgent();
  ASSERT_EQ(again.groups().size(), 1u);
  EXPECT_EQ(again.groups().front()->items, (std::vector<std::string>{"/x", "/y"}));
  EXPECT_TRUE(again.targetWithIdentifier(givenID));
}

TEST_F(QVBackupAgentPrefsTest, KeepsTheKeychainItemOfADavDestinationInStepWithItsUser) {
  QVBackupAgent& agent = startAgent();
  agent.createTargetWithDictionary(qvtest::davTarget("D1", "Office NAS", "alice", "s3cret pass"));
  const std::string service = agent.serviceIdForTargetId("D1");

  auto item = QVKeychain::sharedProxy().keychainItemWithService(service);
  ASSERT_TRUE(item);
  EXPECT_EQ(item->username(), "alice");
  EXPECT_EQ(item->label(), "Stellwin Backup password for Office NAS");
  // What the agent saved is what the destination reads on its own.
  auto destination = QVBackupTarget::targetWithOptions(*agent.targetWithIdentifier("D1"));
  ASSERT_TRUE(destination);
  EXPECT_EQ(destination->username(), "alice");
  EXPECT_EQ(destination->password(), "s3cret pass");

  // A new start takes the credentials from the keychain into memory.
  restart();
  QVBackupAgent& again = startAgent();
  QVTarget loaded = *again.targetWithIdentifier("D1");
  EXPECT_EQ(loaded.user, "alice");
  EXPECT_EQ(loaded.pass, "s3cret pass");

  loaded.user.reset();
  loaded.pass.reset();
  again.updateTarget(loaded);
  EXPECT_FALSE(QVKeychain::sharedProxy().keychainItemWithService(service));
  EXPECT_FALSE(destination->password());

  loaded.user = "bob";
  loaded.pass = "n3w";
  again.updateTarget(loaded);
  item = QVKeychain::sharedProxy().keychainItemWithService(service);
  ASSERT_TRUE(item);
  EXPECT_EQ(item->label(), "Stellwin Backup password for Office NAS");
  EXPECT_EQ(destination->username(), "bob");
  EXPECT_EQ(destination->password(), "n3w");

  // Credentials of a local destination never reach the keychain.
  QVTarget local;
  local.identifier = "L2";
  local.title = "Second disk";
  local.type = "local";
  local.path = "/Volumes/Second";
  local.user = "carol";
  local.pass = "pw";
  again.createTargetWithDictionary(local);
  EXPECT_FALSE(QVKeychain::sharedProxy().keychainItemWithService(again.serviceIdForTargetId("L2")));
}
