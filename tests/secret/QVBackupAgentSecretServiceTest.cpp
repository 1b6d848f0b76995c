// The agent and a destination sharing credentials through a real Secret Service (run inside
// with-secret-service.sh): isolated like every other test, except that the session bus stays.
#include <gtest/gtest.h>

#include <cstdlib>

#include "platform/QVFoundation.h"
#include "platform/QVKeychain.h"
#include "support/QVAgentTestSupport.h"

namespace {

// Read before any fixture unsets it.
const std::string kBusAddress = std::getenv("DBUS_SESSION_BUS_ADDRESS") ? std::getenv("DBUS_SESSION_BUS_ADDRESS") : "";

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
