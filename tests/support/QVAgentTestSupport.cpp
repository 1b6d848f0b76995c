#include "support/QVAgentTestSupport.h"

#include <chrono>

#include "platform/QVConstants.h"
#include "platform/QVUserDefaults.h"

namespace qvtest {

namespace {
constexpr const char* kAgentKey = "QVBackupAgent";
}

void writeAgentPreferences(const IsolatedEnvironment& env, const QVDictionary& agentPreferences,
                           const QVDictionary& otherTopLevelKeys) {
  QVDictionary root = otherTopLevelKeys;
  root[kAgentKey] = agentPreferences;
  writeFile(env.preferencesPath(), qv::toJSON(QVValue(root), true));
}

QVDictionary agentPreferencesInMemory() {
  return QVUserDefaults::standardUserDefaults().dictionaryForKey(kAgentKey).value_or(QVDictionary{});
}

QVDictionary agentPreferencesOnDisk(const IsolatedEnvironment& env) {
  std::optional<QVValue> root = qv::parseJSON(readFile(env.preferencesPath()));
  if (!root || !root->dictionary()) return {};
  const QVValue* agent = qv::valueForKey(*root->dictionary(), kAgentKey);
  return agent && agent->dictionary() ? *agent->dictionary() : QVDictionary{};
}

const QVDictionary* storedRecord(const QVDictionary& preferences, const std::string& key,
                                 const std::string& identifier) {
  const QVValue* records = qv::valueForKey(preferences, key);
  if (!records || !records->array()) return nullptr;
  for (const QVValue& record : *records->array()) {
    if (!record.dictionary()) continue;
    const QVValue* id = qv::valueForKey(*record.dictionary(), kQVIdentifierKey);
    if (id && id->string() && *id->string() == identifier) return record.dictionary();
  }
  return nullptr;
}

QVValue storedValue(const QVDictionary& preferences, const std::string& key, const std::string& identifier,
                    const std::string& field) {
  const QVDictionary* record = storedRecord(preferences, key, identifier);
  const QVValue* value = record ? qv::valueForKey(*record, field) : nullptr;
  return value ? *value : QVValue();
}

std::size_t storedRecordCount(const QVDictionary& preferences, const std::string& key) {
  const QVValue* records = qv::valueForKey(preferences, key);
  return records && records->array() ? records->array()->size() : 0;
}

bool containsKeyAnywhere(const QVValue& value, const std::string& key) {
  if (const QVDictionary* dictionary = value.dictionary()) {
    for (const auto& [name, child] : *dictionary)
      if (name == key || containsKeyAnywhere(child, key)) return true;
  } else if (const QVArray* array = value.array()) {
    for (const QVValue& child : *array)
      if (containsKeyAnywhere(child, key)) return true;
  }
  return false;
}

QVTarget davTarget(const std::string& identifier, const std::string& title, const std::optional<std::string>& user,
                   const std::optional<std::string>& pass) {
  QVTarget target;
  target.identifier = identifier;
  target.title = title;
  target.type = "dav";
  target.path = "/backups";
  target.server = "dav.example.org";
  target.port = 8443;
  target.user = user;
  target.pass = pass;
  return target;
}

QVDate nowInSeconds() {
  return std::chrono::time_point_cast<std::chrono::seconds>(std::chrono::system_clock::now());
}

}  // namespace qvtest

void PrintTo(const QVValue& value, std::ostream* os) { *os << qv::toJSON(value); }
