// Helpers for the agent's tests: the agent's preferences as written beforehand, as saved (in memory) and
// as synchronised (on disk), AgentTest, an agent with a recording host, and RemoteAgentTest, one whose
// groups back up to servers on 127.0.0.1.
#pragma once

#include <gtest/gtest.h>

#include <chrono>
#include <memory>

#include "agent/QVBackupAgent.h"
#include "support/QVRecordingHost.h"
#include "support/QVScriptedTarget.h"
#include "support/QVTestSupport.h"

namespace qvtest {

// Writes preferences.json (before the store reads it): agentPreferences under "QVBackupAgent", and more keys.
void writeAgentPreferences(const IsolatedEnvironment& env, const QVDictionary& agentPreferences,
                           const QVDictionary& otherTopLevelKeys = {});
// The agent's dictionary in the standard store's memory, or in preferences.json; empty when missing.
QVDictionary agentPreferencesInMemory();
QVDictionary agentPreferencesOnDisk(const IsolatedEnvironment& env);
// The record under key ("groups" or "targets") with that "id" (or nullptr); the value under key of a record,
// and under field of a stored record (a null value when missing).
const QVDictionary* storedRecord(const QVDictionary& preferences, const std::string& key,
                                 const std::string& identifier);
QVValue valueIn(const QVDictionary* record, const std::string& key);
QVValue storedValue(const QVDictionary& preferences, const std::string& key, const std::string& identifier,
                    const std::string& field);

// A destination record of type at path; a WebDAV one with credentials.
QVTarget targetRecord(const std::string& identifier, const std::string& title, const std::string& type,
                      const std::string& path);
QVTarget davTarget(const std::string& identifier, const std::string& title,
                   const std::optional<std::string>& user = std::nullopt,
                   const std::optional<std::string>& pass = std::nullopt);

// An agent in an isolated environment, with the scripted destination kind installed and the log captured.
class AgentTest : public ::testing::Test {
 protected:
  AgentTest() { ScriptedTarget::install(&script); }
  ~AgentTest() override;
  QVBackupAgent& start();  // a new agent and recording delegate; the journal holds what they said so far
  void stop();             // drops the agent, the store and the keychain as a new host would
  QVBackupAgent& restart() { return stop(), start(); }
  std::string makeFile(const std::string& relative);  // <root>/files/<relative>, holding "data"
  QVGroupRef groupNamed(const std::string& title) const;
  // A WebDAV destination made through the agent: the destination reads the credentials the agent saved,
  // a restart loads them, removing the user deletes the keychain item, a new user recreates it labelled.
  void expectDavCredentialsFollowTheKeychain(const std::string& identifier, const std::string& password);

  IsolatedEnvironment env;
  LogCapture logged;
  Script script;
  RecordingHost host;
  std::shared_ptr<RecordingDelegate> delegate;
  std::unique_ptr<QVBackupAgent> agent;
};

// A destination on a server at 127.0.0.1: its type, port, base path and credentials.
struct RemoteDestination {
  std::string type = "ftp";
  int port = 0;
  std::string path = "backup";
  std::optional<std::string> user, pass;
};

class RemoteAgentTest : public AgentTest {
 protected:
  // A group of the items, keeping `versions`, on a new destination.
  QVGroupRef makeGroup(const std::string& title, const std::vector<std::string>& items,
                       const RemoteDestination& destination, std::uint64_t versions = 3);
  // Runs the group's backup as the host asks for it and waits for its outcome.
  bool runToEnd(const QVGroupRef& group, std::chrono::seconds timeout = std::chrono::seconds(120));
  // The failure shown to the user for the group's last run: "<title> - <message>", or "".
  std::string shownFailure(const QVGroupRef& group) const;
};

}  // namespace qvtest

// Lets GoogleTest show a value as its JSON text.
void PrintTo(const QVValue& value, std::ostream* os);
