#include "support/QVAgentTestSupport.h"

#include "platform/QVFoundation.h"
#include "platform/QVKeychain.h"
#include "platform/QVRunLoop.h"
#include "platform/QVUserDefaults.h"

namespace qvtest {

void writeAgentPreferences(const IsolatedEnvironment& env, const QVDictionary& agentPreferences,
                           const QVDictionary& otherTopLevelKeys) {
  QVDictionary root = otherTopLevelKeys;
  root["QVBackupAgent"] = agentPreferences;
  writeFile(env.preferencesPath(), qv::toJSON(QVValue(root), true));
}

QVDictionary agentPreferencesInMemory() {
  return QVUserDefaults::standardUserDefaults().dictionaryForKey("QVBackupAgent").value_or(QVDictionary{});
}

QVDictionary agentPreferencesOnDisk(const IsolatedEnvironment& env) {
  std::optional<QVValue> root = qv::parseJSON(readFile(env.preferencesPath()));
  const QVValue agent = root && root->dictionary() ? valueIn(root->dictionary(), "QVBackupAgent") : QVValue();
  return agent.dictionary() ? *agent.dictionary() : QVDictionary{};
}

const QVDictionary* storedRecord(const QVDictionary& preferences, const std::string& key,
                                 const std::string& identifier) {
  const QVValue* records = qv::valueForKey(preferences, key);
  if (records && records->array())
    for (const QVValue& record : *records->array())
      if (record.dictionary() && valueIn(record.dictionary(), "id") == QVValue(identifier)) return record.dictionary();
  return nullptr;
}

QVValue valueIn(const QVDictionary* record, const std::string& key) {
  const QVValue* value = record ? qv::valueForKey(*record, key) : nullptr;
  return value ? *value : QVValue();
}

QVValue storedValue(const QVDictionary& preferences, const std::string& key, const std::string& identifier,
                    const std::string& field) {
  return valueIn(storedRecord(preferences, key, identifier), field);
}

QVTarget targetRecord(const std::string& identifier, const std::string& title, const std::string& type,
                      const std::string& path) {
  return QVTarget::fromDictionary({{"id", identifier}, {"title", title}, {"type", type}, {"path", path}});
}

QVTarget davTarget(const std::string& identifier, const std::string& title, const std::optional<std::string>& user,
                   const std::optional<std::string>& pass) {
  QVTarget target = targetRecord(identifier, title, "dav", "/backups");
  target.server = "dav.example.org";
  target.port = 8443;
  target.user = user;
  target.pass = pass;
  return target;
}

AgentTest::~AgentTest() {
  agent.reset();
  ScriptedTarget::uninstall();
}

QVBackupAgent& AgentTest::start() {
  host.journal->clear();
  agent = std::make_unique<QVBackupAgent>(&host);
  delegate = std::make_shared<RecordingDelegate>(host.journal);
  agent->setDelegate(delegate);
  return *agent;
}

void AgentTest::stop() {
  agent.reset();
  QVUserDefaults::resetStandardUserDefaults();
  QVKeychain::setSharedProxy(nullptr);
}

std::string AgentTest::makeFile(const std::string& relative) {
  writeFile(env.root() + "/files/" + relative, "data");
  return env.root() + "/files/" + relative;
}

QVGroupRef AgentTest::groupNamed(const std::string& title) const {
  for (const auto& group : agent->groups())
    if (group->title == title) return group;
  return nullptr;
}

void AgentTest::expectDavCredentialsFollowTheKeychain(const std::string& identifier, const std::string& password) {
  const std::string label = "Stellwin Backup password for Office NAS";
  start().createTargetWithDictionary(davTarget(identifier, "Office NAS", "ann@example.org", password));
  const std::string service = agent->serviceIdForTargetId(identifier);
  auto item = QVKeychain::sharedProxy().keychainItemWithService(service);
  ASSERT_TRUE(item);
  EXPECT_EQ(item->label(), label);
  auto destination = QVBackupTarget::targetWithOptions(*agent->targetWithIdentifier(identifier));
  ASSERT_TRUE(destination);
  EXPECT_EQ(destination->username(), "ann@example.org");
  EXPECT_EQ(destination->password(), password);

  QVTarget loaded = *restart().targetWithIdentifier(identifier);
  EXPECT_EQ(loaded.user, "ann@example.org");
  EXPECT_EQ(loaded.pass, password);
  loaded.user.reset();
  loaded.pass.reset();
  agent->updateTarget(loaded);
  EXPECT_FALSE(QVKeychain::sharedProxy().keychainItemWithService(service));
  EXPECT_FALSE(destination->password());
  loaded.user = "bob";
  loaded.pass = "n3w";
  agent->updateTarget(loaded);
  item = QVKeychain::sharedProxy().keychainItemWithService(service);
  ASSERT_TRUE(item);
  EXPECT_EQ(item->label(), label);
  EXPECT_EQ(destination->username(), "bob");
  EXPECT_EQ(destination->password(), "n3w");
}

QVGroupRef RemoteAgentTest::makeGroup(const std::string& title, const std::vector<std::string>& items,
                                      const RemoteDestination& destination, std::uint64_t versions) {
  agent->addItemsAtPaths(items, title);
  QVTarget target = targetRecord(qv::stringWithUUID(), "Server " + title, destination.type, destination.path);
  target.server = "127.0.0.1";
  target.port = destination.port;
  target.user = destination.user;
  target.pass = destination.pass;
  agent->createTargetWithDictionary(target);
  auto group = std::make_shared<QVGroup>(*groupNamed(title));
  group->target = target.identifier;
  group->versions = versions;
  agent->updateGroup(group);
  return group;
}

bool RemoteAgentTest::runToEnd(const QVGroupRef& group, std::chrono::seconds timeout) {
  agent->backupGroupWithID(group->identifier, true);
  return qv::runMainLoopUntil([&] { return !agent->isBackingUpGroupWithID(group->identifier); }, timeout);
}

std::string RemoteAgentTest::shownFailure(const QVGroupRef& group) const {
  std::string shown;
  for (const auto& line : host.linesStartingWith("template0.push:"))
    if (line.ends_with("|" + group->identifier))
      shown = line.substr(15, line.size() - 15 - group->identifier.size() - 1);
  return shown;
}

}  // namespace qvtest

void PrintTo(const QVValue& value, std::ostream* os) { *os << qv::toJSON(value); }
