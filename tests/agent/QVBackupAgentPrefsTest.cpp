#include <gtest/gtest.h>

#include <chrono>

#include "platform/QVUserDefaults.h"
#include "support/QVAgentTestSupport.h"

using namespace std::chrono_literals;
using qvtest::storedRecord;
using qvtest::valueIn;

QVDictionary localTargetRecord(const std::string& identifier, const std::string& title) {
  return {{"id", identifier}, {"title", title}, {"type", "local"}, {"path", "/Volumes/" + title}};
}

QVDictionary groupRecord(const std::string& identifier) {
  return {{"id", identifier}, {"title", identifier}, {"items", QVArray{}}, {"target", "T1"}, {"versions", 3}};
}

// The agent's preferences with the file keychain; preferences are written before the agent starts. The
// default destination made on a first or damaged start: QVCommandLineTest and QVBadInputTest.
using QVBackupAgentPrefsTest = qvtest::AgentTest;

TEST_F(QVBackupAgentPrefsTest, NeverSavesCredentialsOrProgress) {
  start().createTargetWithDictionary(qvtest::davTarget("D1", "Office NAS", "alice", "s3cret-pass"));
  agent->addItemsAtPaths({makeFile("a.txt")}, "Docs");
  agent->groups().front()->progressInfo = std::vector<double>{0.5, 1.0};
  agent->savePrefs();
  ASSERT_TRUE(agent->syncUserDefaults());
  const QVDictionary stored = qvtest::agentPreferencesOnDisk(env);  // as synchronised from memory
  ASSERT_TRUE(storedRecord(stored, "targets", "D1") && storedRecord(stored, "groups", agent->groups()[0]->identifier));
  for (const char* key : {"\"user\"", "\"pass\"", "\"progressInfo\""})
    EXPECT_EQ(qv::toJSON(QVValue(stored)).find(key), std::string::npos) << key;
  // Memory keeps the progress (and the password: QVDestinationIntegrationTest runs after saves).
  EXPECT_EQ(agent->groups().front()->progressInfo, (std::vector<double>{0.5, 1.0}));
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
    EXPECT_TRUE(host.linesStartingWith("setBackupGroupsCount").empty()) << "no groups: no count";
  }
}

// Unreadable records and fields stay as they were stored, and so do keys of the host and of other owners.
TEST_F(QVBackupAgentPrefsTest, LoadsOlderAndDamagedRecordsAndKeepsWhatItDoesNotOwn) {
  const QVDate now = std::chrono::floor<std::chrono::seconds>(std::chrono::system_clock::now());
  const QVDate older = now - 72h, newer = now - 2h, attempt = now - 1h;
  QVDictionary damaged = groupRecord("G1"), current = groupRecord("G2"), target = localTargetRecord("T1", "Disk");
  damaged["items"] = QVArray{"/x", 5, "/y"};
  damaged["schedule"] = "daily";
  damaged["versions"] = "three";
  damaged["lastBackupDate"] = older;  // stored before there was an attempt date
  current["lastBackupDate"] = newer;
  current["lastBackupAttemptDate"] = attempt;
  current["labelColor"] = "blue";
  current["schedule"] = QVDictionary{{"period", "manual"}, {"timeZone", "Europe/Berlin"}};
  target["volumeUUID"] = "8C1F-22AA";
  const QVDictionary targetWithoutID = {{"title", "No id"}, {"type", "local"}};
  qvtest::writeAgentPreferences(env,
                                {{"groups", QVArray{"just a string", damaged, current, groupRecord("G3")}},
                                 {"targets", QVArray{targetWithoutID, target}},
                                 {"windowFrame", "{{10, 10}, {480, 320}}"}},
                                {{"QVOtherPlugin", QVDictionary{{"enabled", true}}}});
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

  // The host may write into the same dictionary while the agent lives.
  QVDictionary hosts = qvtest::agentPreferencesInMemory();
  hosts["showInMenu"] = false;
  QVUserDefaults::standardUserDefaults().setObject(hosts, "QVBackupAgent");

  agent->savePrefs();
  ASSERT_TRUE(agent->syncUserDefaults());
  const QVDictionary stored = qvtest::agentPreferencesOnDisk(env);
  EXPECT_EQ(valueIn(&stored, "windowFrame"), QVValue("{{10, 10}, {480, 320}}"));
  EXPECT_EQ(valueIn(&stored, "showInMenu"), QVValue(false));
  const QVDictionary* storedGroup = storedRecord(stored, "groups", "G2");
  EXPECT_EQ(valueIn(storedGroup, "labelColor"), QVValue("blue"));
  EXPECT_EQ(valueIn(valueIn(storedGroup, "schedule").dictionary(), "timeZone"), QVValue("Europe/Berlin"));
  EXPECT_EQ(valueIn(storedRecord(stored, "targets", "T1"), "volumeUUID"), QVValue("8C1F-22AA"));
  EXPECT_NE(qvtest::readFile(env.preferencesPath()).find("QVOtherPlugin"), std::string::npos)
      << "other owners' keys stay";
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
