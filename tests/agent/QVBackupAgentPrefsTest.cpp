#include <gtest/gtest.h>

#include <chrono>
#include <filesystem>
#include <tuple>

#include "platform/QVKeychain.h"
#include "platform/QVUserDefaults.h"
#include "support/QVAgentTestSupport.h"

namespace fs = std::filesystem;
using namespace std::chrono_literals;
using qvtest::storedRecord;
using qvtest::valueIn;

QVDictionary localTargetRecord(const std::string& identifier, const std::string& title) {
  return {{"id", identifier}, {"title", title}, {"type", "local"}, {"path", "/Volumes/" + title}};
}

QVDictionary groupRecord(const std::string& identifier) {
  return {{"id", identifier}, {"title", identifier}, {"items", QVArray{}}, {"target", "T1"}, {"versions", 3}};
}

// The agent's preferences with the file keychain; preferences are written before the agent starts.
using QVBackupAgentPrefsTest = qvtest::AgentTest;

TEST_F(QVBackupAgentPrefsTest, NeverSavesCredentialsOrProgress) {
  start().createTargetWithDictionary(qvtest::davTarget("D1", "Office NAS", "alice", "s3cret-pass"));
  agent->addItemsAtPaths({makeFile("a.txt")}, "Docs");
  agent->groups().front()->progressInfo = std::vector<double>{0.5, 1.0};
  agent->savePrefs();
  ASSERT_TRUE(agent->syncUserDefaults());
  for (const QVDictionary& stored : {qvtest::agentPreferencesInMemory(), qvtest::agentPreferencesOnDisk(env)}) {
    ASSERT_TRUE(storedRecord(stored, "targets", "D1") && storedRecord(stored, "groups", agent->groups()[0]->identifier));
    for (const char* key : {"\"user\"", "\"pass\"", "\"progressInfo\""})
      EXPECT_EQ(qv::toJSON(QVValue(stored)).find(key), std::string::npos) << key;
  }
  EXPECT_EQ(qvtest::readFile(env.preferencesPath()).find("s3cret-pass"), std::string::npos);
  // Memory keeps what a run and the host need.
  EXPECT_EQ(agent->targetWithIdentifier("D1")->pass, "s3cret-pass");
  EXPECT_EQ(agent->groups().front()->progressInfo, (std::vector<double>{0.5, 1.0}));
}

TEST_F(QVBackupAgentPrefsTest, KeepsKeysThatItDoesNotOwn) {
  QVDictionary group = groupRecord("G1");
  group["labelColor"] = "blue";
  group["schedule"] = QVDictionary{{"period", "manual"}, {"timeZone", "Europe/Berlin"}};
  QVDictionary target = localTargetRecord("T1", "USB Disk");
  target["volumeUUID"] = "8C1F-22AA";
  qvtest::writeAgentPreferences(
      env, {{"groups", QVArray{group}}, {"targets", QVArray{target}}, {"windowFrame", "{{10, 10}, {480, 320}}"}},
      {{"QVOtherPlugin", QVDictionary{{"enabled", true}}}});
  start();
  // The host may write into the same dictionary while the agent lives.
  QVDictionary current = qvtest::agentPreferencesInMemory();
  current["showInMenu"] = false;
  QVUserDefaults::standardUserDefaults().setObject(current, "QVBackupAgent");

  agent->savePrefs();
  ASSERT_TRUE(agent->syncUserDefaults());
  const QVDictionary stored = qvtest::agentPreferencesOnDisk(env);
  EXPECT_EQ(valueIn(&stored, "windowFrame"), QVValue("{{10, 10}, {480, 320}}"));
  EXPECT_EQ(valueIn(&stored, "showInMenu"), QVValue(false));
  const QVDictionary* storedGroup = storedRecord(stored, "groups", "G1");
  EXPECT_EQ(valueIn(storedGroup, "labelColor"), QVValue("blue"));
  EXPECT_EQ(valueIn(valueIn(storedGroup, "schedule").dictionary(), "timeZone"), QVValue("Europe/Berlin"));
  EXPECT_EQ(valueIn(storedRecord(stored, "targets", "T1"), "volumeUUID"), QVValue("8C1F-22AA"));
  EXPECT_NE(qvtest::readFile(env.preferencesPath()).find("QVOtherPlugin"), std::string::npos) << "other owners' keys stay";
}

TEST_F(QVBackupAgentPrefsTest, ADefaultMarkCountsByItsPresenceAlone) {
  // Without any mark the first destination becomes the default; a false mark is a mark.
  for (bool marked : {false, true}) {
    QVDictionary second = localTargetRecord("T2", "Second");
    if (marked) second["isDefault"] = false;
    stop();
    qvtest::writeAgentPreferences(env, {{"targets", QVArray{localTargetRecord("T1", "First"), second}}});
    start();
    ASSERT_EQ(agent->targets().size(), 2u);
    EXPECT_EQ(agent->targets()[0]->isDefault, marked ? std::nullopt : std::optional(true));
    EXPECT_EQ(agent->targets()[1]->isDefault, marked ? std::optional(false) : std::nullopt);
    EXPECT_EQ(agent->defaultTarget(), marked ? nullptr : agent->targets()[0]);
    agent->savePrefs();
    EXPECT_EQ(qvtest::storedValue(qvtest::agentPreferencesInMemory(), "targets", "T1", "isDefault").isNull(), marked);
    EXPECT_EQ(agent->numberOfArmedTimers(), 0u);
    EXPECT_TRUE(host.linesStartingWith("setBackupGroupsCount").empty()) << "no groups: no timer and no count";
  }
}

TEST_F(QVBackupAgentPrefsTest, StartsWithTheDefaultDestinationWhenNothingOrSomethingDamagedIsStored) {
  const std::string garbage = "{\"QVBackupAgent\": {\"groups\": [{\"id\": \"G1\", \"items\": [";
  qvtest::writeFile(env.preferencesPath(), garbage);
  start();
  ASSERT_EQ(agent->targets().size(), 1u);
  const QVTarget& target = *agent->targets().front();
  EXPECT_EQ(std::tie(target.title, target.type, target.isDefault, target.path),
            std::make_tuple("My Mac", "local", true, env.home() + "/Documents/Stellwin Backups"));
  EXPECT_TRUE(fs::is_directory(target.path));
  EXPECT_TRUE(agent->groups().empty());
  // How the damaged file is set aside: QVUserDefaultsTest.
  // A local destination stores neither server nor port, and owns no keychain item.
  agent->addItemsAtPaths({makeFile("a.txt")}, "Docs");
  const QVDictionary onDisk = qvtest::agentPreferencesOnDisk(env);
  const QVDictionary* stored = storedRecord(onDisk, "targets", target.identifier);
  EXPECT_TRUE(valueIn(stored, "server").isNull() && valueIn(stored, "port").isNull());
  EXPECT_EQ(valueIn(stored, "path"), QVValue(target.path));
  EXPECT_FALSE(QVKeychain::sharedProxy().keychainItemWithService(agent->serviceIdForTargetId(target.identifier)));
}

TEST_F(QVBackupAgentPrefsTest, LoadsOlderAndDamagedRecordsKeepingWhatItCan) {
  const QVDate now = std::chrono::floor<std::chrono::seconds>(std::chrono::system_clock::now());
  const QVDate older = now - 72h, newer = now - 2h, attempt = now - 1h;
  QVDictionary damaged = groupRecord("G1"), current = groupRecord("G2");
  damaged["items"] = QVArray{"/x", 5, "/y"};
  damaged["schedule"] = "daily";
  damaged["versions"] = "three";
  damaged["lastBackupDate"] = older;  // stored before there was an attempt date
  current["lastBackupDate"] = newer;
  current["lastBackupAttemptDate"] = attempt;
  const QVDictionary targetWithoutID = {{"title", "No id"}, {"type", "local"}};
  qvtest::writeAgentPreferences(env, {{"groups", QVArray{"just a string", damaged, current, groupRecord("G3")}},
                                      {"targets", QVArray{targetWithoutID, localTargetRecord("T1", "Disk")}}});
  start();
  ASSERT_EQ(agent->groups().size(), 3u);
  const QVGroup& group = *agent->groups().front();
  EXPECT_EQ(group.items, (std::vector<std::string>{"/x", "/y"}));
  EXPECT_EQ(group.versions, std::nullopt);
  EXPECT_EQ(group.lastBackupAttemptDate, older);
  EXPECT_EQ(agent->groups()[1]->lastBackupAttemptDate, attempt);
  EXPECT_EQ(agent->groups()[2]->lastBackupAttemptDate, std::nullopt);
  EXPECT_EQ(agent->lastBackupDate(), newer) << "the latest backup over all groups";
  EXPECT_EQ(host.groupsCount, 3u);
  ASSERT_EQ(agent->targets().size(), 2u);
  EXPECT_EQ(agent->targets()[0]->title, "No id");
  const std::string givenID = agent->targets()[0]->identifier;
  EXPECT_EQ(agent->numberOfArmedTimers(), 0u);

  agent->savePrefs();
  ASSERT_TRUE(agent->syncUserDefaults());
  const QVDictionary stored = qvtest::agentPreferencesOnDisk(env);
  EXPECT_EQ(valueIn(storedRecord(stored, "groups", "G1"), "versions"), QVValue("three"));
  EXPECT_EQ(valueIn(storedRecord(stored, "groups", "G1"), "schedule"), QVValue("daily"));
  EXPECT_TRUE(storedRecord(stored, "targets", givenID)) << "the identifier given on load is kept";
  EXPECT_NE(qv::toJSON(QVValue(stored)).find("just a string"), std::string::npos) << "an unreadable record stays";
  // A second start reads the written preferences the same way.
  restart();
  ASSERT_EQ(agent->groups().size(), 3u);
  EXPECT_EQ(agent->groups().front()->items, (std::vector<std::string>{"/x", "/y"}));
  EXPECT_TRUE(agent->targetWithIdentifier(givenID));
}
