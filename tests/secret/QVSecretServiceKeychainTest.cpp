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

// Isolated like every other test, except that the session bus stays; with debug logging on, no log line
// may hold a password (each holds "P4ss").
class QVSecretServiceKeychainTest : public qvtest::AgentTest {
 protected:
  void SetUp() override {
    if (kBusAddress.empty()) GTEST_SKIP() << "no session bus; run through scripts/with-secret-service.sh";
    ::setenv("DBUS_SESSION_BUS_ADDRESS", kBusAddress.c_str(), 1);
    ::setenv("STELLWIN_DEBUG", "all", 1);
    QVKeychain::setSharedProxy(nullptr);
    ASSERT_EQ(QVKeychain::sharedProxy().backendName(), "secret-service") << "the wrapper guarantees one";
  }
  // The keyring may outlive the test program: leave no item behind.
  void TearDown() override {
    for (const auto& line : logged.lines()) EXPECT_EQ(line.find("P4ss"), std::string::npos) << line;
    QVKeychain::sharedProxy().deleteItem(m_service);
  }
  // What another client sees: the number of items of our service in the default collection.
  int itemsInDefaultCollection() const {
    g_autofree char* out = nullptr;
    g_spawn_command_line_sync(("dbus-send --session --print-reply --dest=org.freedesktop.secrets "
                               "/org/freedesktop/secrets/aliases/default org.freedesktop.Secret.Collection.SearchItems "
                               "dict:string:string:service," +
                               m_service)
                                  .c_str(),
                              &out, nullptr, nullptr, nullptr);
    int n = 0;
    for (const char* at = out; at && (at = std::strstr(at, "object path")); ++at) ++n;
    return n;
  }

  const std::string m_targetID = qv::stringWithUUID();
  std::string m_service = "com.stellwin.Stellwin.Backup.target." + m_targetID;
};

// Changes through an item reach a second connection; adding over an item keeps its label and makes no other.
TEST_F(QVSecretServiceKeychainTest, ItemsRoundTripThroughTheDefaultCollection) {
  QVKeychain& keychain = QVKeychain::sharedProxy();
  ASSERT_TRUE(keychain.addGenericKeychainItemForService(m_service, "alice", "P4ss 1"));
  auto item = keychain.keychainItemWithService(m_service);
  const auto fields = [](const QVKeychainItem& i) { return std::tie(i.username(), i.password(), i.label()); };
  EXPECT_EQ(fields(item.value()), std::make_tuple("alice", "P4ss 1", m_service));
  const std::string awkward = "P4ss q\"s'b\\ Grüße 日本 🔑\n" + std::string(5000, 'x');
  item->setLabel("NAS");
  item->setUsername("carol");
  item->setPassword(awkward);
  auto other = QVKeychain::makeSecretServiceKeychain();
  EXPECT_EQ(fields(other->keychainItemWithService(m_service).value()), std::tie("carol", awkward, "NAS"));
  ASSERT_TRUE(other->addGenericKeychainItemForService(m_service, "dave", "P4ss 3"));
  EXPECT_EQ(fields(keychain.keychainItemWithService(m_service).value()), std::make_tuple("dave", "P4ss 3", "NAS"));
  EXPECT_EQ(itemsInDefaultCollection(), 1);
  EXPECT_TRUE(keychain.deleteItem(m_service));
  EXPECT_FALSE(keychain.deleteItem(m_service));
  EXPECT_EQ(itemsInDefaultCollection(), 0);
}

TEST_F(QVSecretServiceKeychainTest, ThePasswordSavedByTheAgentIsWhatTheDestinationReads) {
  expectDavCredentialsFollowTheKeychain(m_targetID, "pä ss:wörd \"quoted\" 🔑");
}

}  // namespace
