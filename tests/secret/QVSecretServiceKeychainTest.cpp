// The Secret Service backend, inside scripts/with-secret-service.sh (a private session bus with an unlocked
// keyring): on its own, and shared by the agent and a destination.
#include "platform/QVKeychain.h"

#include <glib.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <string>
#include <tuple>

#include "platform/QVFoundation.h"
#include "support/QVAgentTestSupport.h"

namespace {

// Read before any fixture unsets it.
const std::string kBusAddress = std::getenv("DBUS_SESSION_BUS_ADDRESS") ? std::getenv("DBUS_SESSION_BUS_ADDRESS") : "";

// With debug logging on: no log line may hold a password (each holds "P4ss").
class QVSecretServiceKeychainTest : public ::testing::Test {
 protected:
  void SetUp() override { ::setenv("STELLWIN_DEBUG", "all", 1); }
  void TearDown() override {
    for (const auto& line : m_log.lines()) EXPECT_EQ(line.find("P4ss"), std::string::npos) << line;
  }
  static auto fields(const QVKeychainItem& item) { return std::tie(item.username(), item.password(), item.label()); }
  // What another client sees: the number of items of a service in the default collection.
  static int itemsInDefaultCollection(const std::string& service) {
    g_autofree char* out = nullptr;
    g_spawn_command_line_sync(("dbus-send --session --print-reply --dest=org.freedesktop.secrets "
                               "/org/freedesktop/secrets/aliases/default org.freedesktop.Secret.Collection.SearchItems "
                               "dict:string:string:service," + service).c_str(), &out, nullptr, nullptr, nullptr);
    int n = 0;
    for (const char* at = out; at && (at = std::strstr(at, "object path")); ++at) ++n;
    return n;
  }

  qvtest::LogCapture m_log;
};

TEST_F(QVSecretServiceKeychainTest, SharedProxyPicksItAndItemsRoundTripInTheDefaultCollection) {
  const std::string a = "com.stellwin.Stellwin.Backup.target.test-a";
  QVKeychain& keychain = QVKeychain::sharedProxy();
  ASSERT_EQ(keychain.backendName(), "secret-service") << "the wrapper guarantees one: missing is a fault";
  EXPECT_FALSE(keychain.keychainItemWithService(a));
  ASSERT_TRUE(keychain.addGenericKeychainItemForService(a, "alice", "P4ss 1"));
  auto item = keychain.keychainItemWithService(a);
  EXPECT_EQ(fields(item.value()), std::make_tuple("alice", "P4ss 1", a));
  // Changes through the item reach a second connection; adding over an item keeps its label and makes no other.
  const std::string awkward = "P4ss q\"s'b\\ Grüße 日本 🔑\n" + std::string(5000, 'x');
  item->setLabel("NAS");
  item->setUsername("carol");
  item->setPassword(awkward);
  auto other = QVKeychain::makeSecretServiceKeychain();
  EXPECT_EQ(fields(other->keychainItemWithService(a).value()), std::tie("carol", awkward, "NAS"));
  ASSERT_TRUE(other->addGenericKeychainItemForService(a, "dave", "P4ss 3"));
  EXPECT_EQ(fields(keychain.keychainItemWithService(a).value()), std::make_tuple("dave", "P4ss 3", "NAS"));
  EXPECT_EQ(itemsInDefaultCollection(a), 1);

  EXPECT_TRUE(keychain.deleteItem(a));
  EXPECT_FALSE(keychain.keychainItemWithService(a));
  EXPECT_FALSE(keychain.deleteItem(a));
  EXPECT_EQ(itemsInDefaultCollection(a), 0);
}

// Isolated like every other test, except that the session bus stays.
class QVBackupAgentSecretServiceTest : public qvtest::AgentTest {
 protected:
  void SetUp() override {
    if (kBusAddress.empty()) GTEST_SKIP() << "no session bus; run through scripts/with-secret-service.sh";
    ::setenv("DBUS_SESSION_BUS_ADDRESS", kBusAddress.c_str(), 1);
    QVKeychain::setSharedProxy(nullptr);
  }
  // The keyring outlives the test program: leave no item behind.
  void TearDown() override {
    if (agent) QVKeychain::sharedProxy().deleteItem(agent->serviceIdForTargetId(m_targetID));
  }

  const std::string m_targetID = qv::stringWithUUID();
};

TEST_F(QVBackupAgentSecretServiceTest, ThePasswordSavedByTheAgentIsWhatTheDestinationReads) {
  ASSERT_EQ(QVKeychain::sharedProxy().backendName(), "secret-service");
  expectDavCredentialsFollowTheKeychain(m_targetID, "pä ss:wörd \"quoted\" 🔑");
}

}  // namespace
