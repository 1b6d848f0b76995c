// Helpers for the agent's tests: preferences written before an agent starts, the agent's dictionary as
// the store holds it in memory (saved) and on disk (synchronised), stored records looked up by
// identifier, and a networked destination record. Main thread, like the agent.
#pragma once

#include <optional>
#include <ostream>
#include <string>

#include "platform/QVValue.h"
#include "support/QVTestSupport.h"
#include "targets/QVTarget.h"

namespace qvtest {

// Writes preferences.json so that it holds agentPreferences under "QVBackupAgent", beside extra
// top-level keys. Requires: the standard store has not read the file yet.
void writeAgentPreferences(const IsolatedEnvironment& env, const QVDictionary& agentPreferences,
                           const QVDictionary& otherTopLevelKeys = {});

// The agent's dictionary in the standard store's memory; empty when there is none.
QVDictionary agentPreferencesInMemory();
// The agent's dictionary as preferences.json holds it; empty when the file or the key is missing.
QVDictionary agentPreferencesOnDisk(const IsolatedEnvironment& env);

// The record under key ("groups" or "targets") whose "id" is identifier; nullptr when there is none.
const QVDictionary* storedRecord(const QVDictionary& preferences, const std::string& key,
                                 const std::string& identifier);
// The value under field of that record; a null value when the record or the field is missing.
QVValue storedValue(const QVDictionary& preferences, const std::string& key, const std::string& identifier,
                    const std::string& field);
// How many records are stored under key.
std::size_t storedRecordCount(const QVDictionary& preferences, const std::string& key);
// Whether key appears anywhere inside value, at any depth.
bool containsKeyAnywhere(const QVValue& value, const std::string& key);

// A WebDAV destination record with credentials (user and pass left out when user is nullopt).
QVTarget davTarget(const std::string& identifier, const std::string& title,
                   const std::optional<std::string>& user, const std::optional<std::string>& pass);

// Now, cut to whole seconds so that a date survives the store's millisecond precision unchanged.
QVDate nowInSeconds();

}  // namespace qvtest

// Lets GoogleTest show a value as its JSON text.
void PrintTo(const QVValue& value, std::ostream* os);
