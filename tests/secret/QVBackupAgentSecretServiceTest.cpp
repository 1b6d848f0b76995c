#include "agent/QVBackupAgent.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <memory>
#include <string>

#include "platform/QVFoundation.h"
#include "platform/QVKeychain.h"
#include "platform/QVUserDefaults.h"
#include "support/QVAgentTestSupport.h"
#include "support/QVRecordingHost.h"
#include "support/QVTestSupport.h"

namespace {

std::string sessionBusAddress() {
  const char* address = std::getenv("DBUS_SESSION_BUS_ADDRESS");
  return address ? address : "";
}

}  // namespace

// The agent and a destination sharing credentials through a real Secret Service (run inside
// with-secret-service.sh). The environment is isolated like every other test's, except that the
// session bus stays, so the shared keychain picks the Secret Service.
class QVBackupAgentSecretServiceTest : public ::testing::Test {
 protected:
  void SetUp() override {
    if (m_busAddress.empty()) GTEST_SKIP() << "no session bus; run through scripts/with-secret-service.sh";
    ::setenv("DBUS_SESSION_BUS_ADDRESS", m_busAddress.c_str(), 1);
    QVKeychain::setSharedProxy(nullptr);
  }

  void TearDown() override {
    // The keyring outlives the test program's fixtures: leave no item behind.
    if (!m_service.empty()) QVKeychain::sharedProxy().deleteItem(m_service);
  }

  const std::string m_busAddress = sessionBusAddress();
  qvtest::IsolatedEnvironment m_env;
  qvtest::RecordingHost m_host;
  const std::string m_targetID = qv::stringWithUUID();
  std::string m_service;
};

TEST_F(QVBackupAgentSecretServiceTest, ThePasswordSavedByTheAgentIsWhatTheDestinationReads) {
  ASSERT_EQ(QVKeychain::sharedProxy().backendName(), "secret-service");
  const std::string password = "pä ss:wörd \"quoted\" 🔑";

  auto agent = std::make_unique<QVBackupAgent>(&m_host);
  m_service = agent->serviceIdForTargetId(m_targetID);
  agent->createTargetWithDictionary(qvtest::davTarget(m_targetID, "Office NAS", "ann@example.org", password));

  auto item = QVKeychain::sharedProxy().keychainItemWithService(m_service);
  ASSERT_TRUE(item);
  EXPECT_EQ(item->label(), "Stellwin Backup password for Office NAS");
  auto destination = QVBackupTarget::targetWithOptions(*agent->targetWithIdentifier(m_targetID));
  ASSERT_TRUE(destination);
  EXPECT_EQ(destination->username(), "ann@example.org");
  EXPECT_EQ(destination->password(), password);

  // A new start reads the credentials back from the Secret Service.
  agent.reset();
  QVUserDefaults::resetStandardUserDefaults();
  QVKeychain::setSharedProxy(nullptr);
  agent = std::make_unique<QVBackupAgent>(&m_host);
  QVTarget loaded = *agent->targetWithIdentifier(m_targetID);
  EXPECT_EQ(loaded.user, "ann@example.org");
  EXPECT_EQ(loaded.pass, password);

  // Without a user the item goes; with one again a new item comes, labelled.
  loaded.user.reset();
  loaded.pass.reset();
  agent->updateTarget(loaded);
  EXPECT_FALSE(QVKeychain::sharedProxy().keychainItemWithService(m_service));
  EXPECT_FALSE(destination->password());

  loaded.user = "bob";
  loaded.pass = "second";
  agent->updateTarget(loaded);
  item = QVKeychain::sharedProxy().keychainItemWithService(m_service);
  ASSERT_TRUE(item);
  EXPECT_EQ(item->label(), "Stellwin Backup password for Office NAS");
  EXPECT_EQ(destination->username(), "bob");
  EXPECT_EQ(destination->password(), "second");
}
