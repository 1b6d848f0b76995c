#include <gtest/gtest.h>

#include <chrono>
#include <filesystem>

#include "platform/QVKeychain.h"
#include "platform/QVUserDefaults.h"
#include "support/QVAgentTestSupport.h"

namespace fs = std::filesystem;
using namespace std::chrono_literals;
using qvtest::storedRecord;
using qvtest::valueIn;

namespace {

QVDictionary localTargetRecord(const std::string& identifier, const std::string& title) {
  return {{"id", identifier}, {"title", title}, {"type", "local"}, {"path", "/Volumes/" + title}};
}

QVDictionary groupRecord(const std::string& identifier) {
  return {{"id", identifier}, {"title", identifier}, {"items", QVArray{}}, {"target", "T1"},
          {"schedule", QVDictionary{{"period", "manual"}}}, {"versions", 3}, {"statusCode", 0}};
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
  auto root = qv::parseJSON(qvtest::readFile(env.preferencesPath()));
  ASSERT_TRUE(root && root->dictionary());
  EXPECT_TRUE(qv::valueForKey(*root->dictionary(), "QVOtherPlugin")) << "other owners' keys of the store stay";
}

TEST_F(QVBackupAgentPrefsTest, ADefaultMarkCountsByItsPresenceAlone) {
  // Without any mark the first destination becomes the default; a false mark is a mark.
  for (const QVValue& secondMark : {QVValue(), QVValue(false)}) {
    QVDictionary second = localTargetRecord("T2", "Second");
    if (!secondMark.isNull()) second["isDefault"] = secondMark;
    stop();
    qvtest::writeAgentPreferences(env, {{"targets", QVArray{localTargetRecord("T1", "First"), second}}});
    start();
    ASSERT_EQ(agent->targets().size(), 2u);
    EXPECT_EQ(agent->targets()[0]->isDefault, secondMark.isNull() ? std::optional(true) : std::nullopt);
    EXPECT_EQ(agent->targets()[1]->isDefault, secondMark.isNull() ? std::nullopt : std::optional(false));
    EXPECT_EQ(agent->defaultTarget(), secondMark.isNull() ? agent->targets()[0] : nullptr);
    agent->savePrefs();
    const QVDictionary stored = qvtest::agentPreferencesInMemory();
    EXPECT_EQ(valueIn(storedRecord(stored, "targets", "T1"), "isDefault").isNull(), !secondMark.isNull());
    // Destinations without groups: nothing to arm and no count for the host.
    EXPECT_EQ(agent->numberOfArmedTimers(), 0u);
    EXPECT_TRUE(host.linesStartingWith("setBackupGroupsCount").empty());
  }
}

TEST_F(QVBackupAgentPrefsTest, ReadsTheDatesOfOlderPreferences) {
  const QVDate now = std::chrono::floor<std::chrono::seconds>(std::chrono::system_clock::now());
  const QVDate older = now - 72h, newer = now - 2h, attempt = now - 1h;
  QVDictionary legacy = groupRecord("G1"), current = groupRecord("G2");
  legacy["lastBackupDate"] = older;
  current["lastBackupDate"] = newer;
  current["lastBackupAttemptDate"] = attempt;
  qvtest::writeAgentPreferences(env, {{"targets", QVArray{localTargetRecord("T1", "Disk")}},
                                      {"groups", QVArray{legacy, current, groupRecord("G3")}}});
  start();
  EXPECT_EQ(agent->groupWithIdentifier("G1")->lastBackupAttemptDate, older);
  EXPECT_EQ(agent->groupWithIdentifier("G2")->lastBackupAttemptDate, attempt);
  EXPECT_EQ(agent->groupWithIdentifier("G3")->lastBackupAttemptDate, std::nullopt);
  EXPECT_EQ(agent->lastBackupDate(), newer) << "the latest backup over all groups";
  EXPECT_EQ(host.groupsCount, 3u);
}

TEST_F(QVBackupAgentPrefsTest, StartsWithTheDefaultDestinationWhenNothingOrSomethingDamagedIsStored) {
  const std::string garbage = "{\"QVBackupAgent\": {\"groups\": [{\"id\": \"G1\", \"items\": [";
  qvtest::writeFile(env.preferencesPath(), garbage);
  start();
  ASSERT_EQ(agent->targets().size(), 1u);
  const QVTarget& target = *agent->targets().front();
  EXPECT_EQ(target.title, "My Mac");
  EXPECT_EQ(target.type, "local");
  EXPECT_EQ(target.isDefault, true);
  EXPECT_EQ(target.path, env.home() + "/Documents/Stellwin Backups");
  EXPECT_TRUE(fs::is_directory(target.path));
  EXPECT_TRUE(agent->groups().empty());
  EXPECT_FALSE(agent->lastBackupDate());
  // The damaged file is set aside, once.
  std::vector<std::string> aside;
  for (const auto& entry : fs::directory_iterator(env.configDirectory()))
    if (entry.path().filename().string().rfind("preferences.json.damaged-", 0) == 0) aside.push_back(qvtest::readFile(entry.path()));
  EXPECT_EQ(aside, std::vector<std::string>{garbage});
  // A local destination stores neither server nor port, and owns no keychain item.
  agent->addItemsAtPaths({makeFile("a.txt")}, "Docs");
  const QVDictionary onDisk = qvtest::agentPreferencesOnDisk(env);
  const QVDictionary* stored = storedRecord(onDisk, "targets", target.identifier);
  ASSERT_TRUE(stored);
  EXPECT_TRUE(valueIn(stored, "server").isNull() && valueIn(stored, "port").isNull());
  EXPECT_EQ(valueIn(stored, "path"), QVValue(target.path));
  EXPECT_FALSE(QVKeychain::sharedProxy().keychainItemWithService(agent->serviceIdForTargetId(target.identifier)));
}

TEST_F(QVBackupAgentPrefsTest, KeepsWhatItCanOfDamagedRecordsAndWritesTheRestBack) {
  QVDictionary damagedGroup = groupRecord("G1");
  damagedGroup["items"] = QVArray{"/x", 5, "/y"};
  damagedGroup["schedule"] = "daily";
  damagedGroup["versions"] = "three";
  QVDictionary targetWithoutID = localTargetRecord("", "No id");
  targetWithoutID.erase("id");
  qvtest::writeAgentPreferences(env, {{"groups", QVArray{"just a string", damagedGroup}},
                                      {"targets", QVArray{targetWithoutID, localTargetRecord("T1", "Disk")}}});
  start();
  ASSERT_EQ(agent->groups().size(), 1u);
  EXPECT_EQ(agent->groups().front()->items, (std::vector<std::string>{"/x", "/y"}));
  EXPECT_EQ(agent->groups().front()->target, "T1");
  EXPECT_EQ(agent->groups().front()->versions, std::nullopt);
  ASSERT_EQ(agent->targets().size(), 2u);
  EXPECT_EQ(agent->targets()[0]->title, "No id");
  const std::string givenID = agent->targets()[0]->identifier;
  EXPECT_FALSE(givenID.empty());
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
  ASSERT_EQ(agent->groups().size(), 1u);
  EXPECT_EQ(agent->groups().front()->items, (std::vector<std::string>{"/x", "/y"}));
  EXPECT_TRUE(agent->targetWithIdentifier(givenID));
}

TEST_F(QVBackupAgentPrefsTest, KeepsTheKeychainItemOfADavDestinationInStepWithItsUser) {
  expectDavCredentialsFollowTheKeychain("D1", "s3cret pass");
  // Credentials of a local destination never reach the keychain.
  QVTarget local = qvtest::targetRecord("L2", "Second disk", "local", "/Volumes/Second");
  local.user = "carol";
  local.pass = "pw";
  agent->createTargetWithDictionary(local);
  EXPECT_FALSE(QVKeychain::sharedProxy().keychainItemWithService(agent->serviceIdForTargetId("L2")));
}

}  // namespace
