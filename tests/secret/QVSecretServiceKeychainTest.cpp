#include "platform/QVKeychain.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <filesystem>
#include <mutex>
#include <thread>
#include <vector>

#include <unistd.h>

#include "platform/QVLog.h"
#include "support/QVTestSupport.h"

// Runs inside scripts/with-secret-service.sh: a private session bus with an unlocked GNOME keyring, and
// private HOME and XDG folders, so these tests keep the session's bus address.
class QVSecretServiceKeychainTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ::setenv("STELLWIN_DEBUG", "all", 1);
    m_previousSink = qv::setLogSink([this](const std::string& line) {
      std::lock_guard<std::mutex> lock(m_logMutex);
      m_log.push_back(line);
    });
    m_keychain = QVKeychain::makeSecretServiceKeychain();
    // The wrapper guarantees a Secret Service: a missing one is a fault, not a reason to skip.
    ASSERT_NE(m_keychain, nullptr);
  }
  void TearDown() override {
    for (const std::string& service : m_services)
      if (m_keychain) (void)m_keychain->deleteItem(service);
    QVKeychain::setSharedProxy(nullptr);
    qv::setLogSink(m_previousSink);
    ::unsetenv("STELLWIN_DEBUG");
    for (const std::string& line : m_log)
      for (const std::string& password : m_passwords)
        EXPECT_EQ(line.find(password), std::string::npos) << "password in log line: " << line;
  }
  // A service of this test alone; removed afterwards.
  std::string service(const std::string& name) {
    return m_services.emplace_back("com.stellwin.Stellwin.Backup.target.test-" + std::to_string(::getpid()) + "-" + name);
  }
  const std::string& remember(const std::string& password) { return m_passwords.emplace_back(password); }

  static std::string outputOf(const std::string& command) {
    std::string output;
    if (FILE* pipe = ::popen(command.c_str(), "r")) {
      char buffer[512];
      while (std::fgets(buffer, sizeof buffer, pipe)) output += buffer;
      ::pclose(pipe);
    }
    return output;
  }
  static int count(const std::string& text, const std::string& what) {
    int n = 0;
    for (auto at = text.find(what); at != std::string::npos; at = text.find(what, at + 1)) ++n;
    return n;
  }
  // What another client sees: the items of a service in every collection, and in the default one.
  static std::string itemsAnywhere(const std::string& service) {
    return "\n" + outputOf("secret-tool search --all service '" + service + "' 2>&1");
  }
  static int itemsInDefaultCollection(const std::string& service) {
    return count(outputOf("dbus-send --session --print-reply --dest=org.freedesktop.secrets "
                          "/org/freedesktop/secrets/aliases/default org.freedesktop.Secret.Collection.SearchItems "
                          "dict:string:string:service,'" + service + "' 2>&1"),
                 "object path");
  }

  std::unique_ptr<QVKeychain> m_keychain;
  std::vector<std::string> m_services;
  std::vector<std::string> m_passwords;
  std::mutex m_logMutex;
  std::vector<std::string> m_log;  // guarded by m_logMutex
  qv::QVLogSink m_previousSink;
};

TEST_F(QVSecretServiceKeychainTest, AddsLooksUpUpdatesAndDeletesOneItemInTheDefaultCollection) {
  const std::string a = service("a"), b = service("b");
  EXPECT_EQ(m_keychain->backendName(), "secret-service");
  EXPECT_FALSE(m_keychain->keychainItemWithService(a));
  ASSERT_TRUE(m_keychain->addGenericKeychainItemForService(a, "alice", remember("first secret")));
  ASSERT_TRUE(m_keychain->addGenericKeychainItemForService(b, "bob", remember("bob's secret")));
  auto item = m_keychain->keychainItemWithService(a);
  ASSERT_TRUE(item);
  EXPECT_EQ(item->username(), "alice");
  EXPECT_EQ(item->password(), "first secret");
  EXPECT_EQ(item->label(), a);

  // Changes through the item reach a second connection, and a new user name makes no second item.
  item->setLabel("Stellwin Backup password for NAS");
  item->setUsername("carol");
  item->setPassword(remember("second secret"));
  auto seen = QVKeychain::makeSecretServiceKeychain()->keychainItemWithService(a);
  ASSERT_TRUE(seen);
  EXPECT_EQ(seen->username(), "carol");
  EXPECT_EQ(seen->password(), "second secret");
  EXPECT_EQ(seen->label(), "Stellwin Backup password for NAS");
  ASSERT_TRUE(m_keychain->addGenericKeychainItemForService(a, "dave", remember("third secret")));
  EXPECT_EQ(m_keychain->keychainItemWithService(a)->label(), "Stellwin Backup password for NAS");
  const std::string listing = itemsAnywhere(a);
  EXPECT_EQ(count(listing, "\n[/"), 1) << listing;
  EXPECT_NE(listing.find("attribute.user = dave"), std::string::npos) << listing;
  EXPECT_NE(listing.find("schema = com.stellwin.Backup.Password"), std::string::npos) << listing;
  EXPECT_EQ(itemsInDefaultCollection(a), 1);

  EXPECT_TRUE(m_keychain->deleteItem(a));
  EXPECT_FALSE(m_keychain->keychainItemWithService(a));
  EXPECT_FALSE(m_keychain->deleteItem(a));
  EXPECT_EQ(count(itemsAnywhere(a), "\n[/"), 0);
  EXPECT_EQ(m_keychain->keychainItemWithService(b)->password(), "bob's secret");
  // An item deleted meanwhile comes back whole from its next change.
  item->setPassword(remember("fourth secret"));
  EXPECT_EQ(m_keychain->keychainItemWithService(a)->label(), "Stellwin Backup password for NAS");
}

TEST_F(QVSecretServiceKeychainTest, KeepsAwkwardPasswordsAndNamesExactly) {
  const std::vector<std::string> passwords = {"with  spaces ", "user@host", "a:b::c", "q\"s'b\\", "Grüße 日本 🔑",
                                              "newline\n", std::string(5000, 'x')};
  for (std::size_t i = 0; i < passwords.size(); ++i)
    ASSERT_TRUE(m_keychain->storeItem(service(std::to_string(i)), "user@example.org:" + std::to_string(i),
                                      remember(passwords[i]), "Büro \"NAS\""));
  for (std::size_t i = 0; i < passwords.size(); ++i) {
    auto item = m_keychain->keychainItemWithService(m_services[i]);
    ASSERT_TRUE(item) << i;
    EXPECT_EQ(item->password(), passwords[i]);
    EXPECT_EQ(item->username(), "user@example.org:" + std::to_string(i));
    EXPECT_EQ(item->label(), "Büro \"NAS\"");
  }
}

TEST_F(QVSecretServiceKeychainTest, ServesWorkerThreadsAtOnce) {
  for (int i = 0; i < 12; ++i) service("thread-" + std::to_string(i));
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([this, t] {
      for (int i = t; i < 12; i += 4) {
        EXPECT_TRUE(m_keychain->addGenericKeychainItemForService(m_services[i], "u", "p" + std::to_string(i)));
        auto item = m_keychain->keychainItemWithService(m_services[i]);
        EXPECT_TRUE(item && item->password() == "p" + std::to_string(i));
      }
    });
  }
  for (auto& thread : threads) thread.join();
}

TEST_F(QVSecretServiceKeychainTest, SharedProxyChoosesTheSecretServiceOnlyWhenTheEnvironmentNamesABus) {
  QVKeychain::setSharedProxy(nullptr);
  EXPECT_EQ(QVKeychain::sharedProxy().backendName(), "secret-service");
  const std::string s = service("shared");
  ASSERT_TRUE(QVKeychain::sharedProxy().addGenericKeychainItemForService(s, "u", remember("shared secret")));
  EXPECT_EQ(m_keychain->keychainItemWithService(s)->password(), "shared secret");
  EXPECT_FALSE(std::filesystem::exists(std::string(std::getenv("XDG_CONFIG_HOME")) + "/stellwin/keychain.json"));

  // The bus still runs, but once the environment no longer names it, it is not used.
  qvtest::IsolatedEnvironment isolated;
  EXPECT_EQ(QVKeychain::sharedProxy().backendName(), "file");
}
