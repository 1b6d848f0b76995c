#include "platform/QVKeychain.h"

#include <gtest/gtest.h>

#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <mutex>
#include <thread>
#include <vector>

#include "platform/QVLog.h"
#include "support/QVTestSupport.h"

// Runs inside scripts/with-secret-service.sh: a private session bus with an unlocked GNOME keyring.
// The process already has private HOME and XDG folders, so these tests keep the session's bus address.
class QVSecretServiceKeychainTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ::setenv("STELLWIN_DEBUG", "all", 1);
    m_previousSink = qv::setLogSink([this](const std::string& line) {
      std::lock_guard<std::mutex> lock(m_logMutex);
      m_log.push_back(line);
    });
    m_keychain = QVKeychain::makeSecretServiceKeychain();
    // The wrapper guarantees a Secret Service: a missing one is a fault here, not a reason to skip.
    ASSERT_NE(m_keychain, nullptr) << "no Secret Service answered on " << (std::getenv("DBUS_SESSION_BUS_ADDRESS") ?: "(no bus)");
  }

  void TearDown() override {
    if (m_keychain)
      for (const std::string& service : m_services) (void)m_keychain->deleteItem(service);
    QVKeychain::setSharedProxy(nullptr);
    qv::setLogSink(m_previousSink);
    ::unsetenv("STELLWIN_DEBUG");
    for (const std::string& line : m_log)
      for (const std::string& password : m_passwords)
        EXPECT_EQ(line.find(password), std::string::npos) << "password in log line: " << line;
  }

  // A service name of this test alone, removed again afterwards.
  std::string service(const std::string& name) {
    m_services.push_back("com.stellwin.Stellwin.Backup.target.test-" + std::to_string(::getpid()) + "-" + name);
    return m_services.back();
  }

  const std::string& remember(const std::string& password) {
    m_passwords.push_back(password);
    return password;
  }

  // What any other client of the Secret Service sees: one "[path]" line per item, then its attributes.
  static std::string secretToolSearch(const std::string& service) {
    return outputOf("secret-tool search --all service '" + service + "' 2>&1");
  }

  // The items of this service in the collection that the "default" alias names, asked over D-Bus.
  static int itemsInDefaultCollection(const std::string& service) {
    std::string reply = outputOf(
        "dbus-send --session --print-reply --dest=org.freedesktop.secrets /org/freedesktop/secrets/aliases/default "
        "org.freedesktop.Secret.Collection.SearchItems dict:string:string:service,'" + service + "' 2>&1");
    EXPECT_NE(reply.find("method return"), std::string::npos) << reply;
    return count(reply, "object path");
  }

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
    for (std::size_t at = text.find(what); at != std::string::npos; at = text.find(what, at + 1)) ++n;
    return n;
  }

  std::unique_ptr<QVKeychain> m_keychain;
  std::vector<std::string> m_services;
  std::vector<std::string> m_passwords;
  std::mutex m_logMutex;
  std::vector<std::string> m_log;  // guarded by m_logMutex
  qv::QVLogSink m_previousSink;
};

TEST_F(QVSecretServiceKeychainTest, AddsLooksUpUpdatesAndDeletesItems) {
  const std::string a = service("a");
  const std::string b = service("b");
  EXPECT_EQ(m_keychain->backendName(), "secret-service");
  EXPECT_FALSE(m_keychain->keychainItemWithService(a));

  ASSERT_TRUE(m_keychain->addGenericKeychainItemForService(a, "alice", remember("first secret")));
  ASSERT_TRUE(m_keychain->addGenericKeychainItemForService(b, "bob", remember("bob's secret")));
  auto item = m_keychain->keychainItemWithService(a);
  ASSERT_TRUE(item);
  EXPECT_EQ(item->service(), a);
  EXPECT_EQ(item->username(), "alice");
  EXPECT_EQ(item->password(), "first secret");
  EXPECT_EQ(item->label(), a);

  ASSERT_TRUE(m_keychain->storeItem(a, "alice", "first secret", "Label A"));
  ASSERT_TRUE(m_keychain->addGenericKeychainItemForService(a, "carol", remember("second secret")));
  item = m_keychain->keychainItemWithService(a);
  ASSERT_TRUE(item);
  EXPECT_EQ(item->username(), "carol");
  EXPECT_EQ(item->password(), "second secret");
  EXPECT_EQ(item->label(), "Label A");
  EXPECT_EQ(count("\n" + secretToolSearch(a), "\n[/"), 1) << "a changed user must not leave a second item";

  EXPECT_TRUE(m_keychain->deleteItem(a));
  EXPECT_FALSE(m_keychain->keychainItemWithService(a));
  EXPECT_FALSE(m_keychain->deleteItem(a));
  EXPECT_EQ(count("\n" + secretToolSearch(a), "\n[/"), 0);
  auto other = m_keychain->keychainItemWithService(b);
  ASSERT_TRUE(other);
  EXPECT_EQ(other->password(), "bob's secret");
}

TEST_F(QVSecretServiceKeychainTest, StoresTheItemWhereOtherClientsFindIt) {
  const std::string s = service("visible");
  ASSERT_TRUE(m_keychain->storeItem(s, "nas-user", remember("visible secret"), "Stellwin Backup password for NAS"));
  const std::string listing = secretToolSearch(s);
  EXPECT_NE(listing.find("label = Stellwin Backup password for NAS"), std::string::npos) << listing;
  EXPECT_NE(listing.find("attribute.user = nas-user"), std::string::npos) << listing;
  EXPECT_NE(listing.find("schema = com.stellwin.Backup.Password"), std::string::npos) << listing;
  EXPECT_NE(listing.find("secret = visible secret"), std::string::npos) << listing;
  EXPECT_EQ(itemsInDefaultCollection(s), 1) << "not in the default collection";
}

TEST_F(QVSecretServiceKeychainTest, ItemSettersWriteThroughForOtherReaders) {
  const std::string s = service("setters");
  ASSERT_TRUE(m_keychain->addGenericKeychainItemForService(s, "old user", remember("old pass")));
  auto item = m_keychain->keychainItemWithService(s);
  ASSERT_TRUE(item);
  item->setUsername("new user");
  item->setPassword(remember("new pass"));
  item->setLabel("Stellwin Backup password for Office NAS");

  auto found = QVKeychain::makeSecretServiceKeychain()->keychainItemWithService(s);
  ASSERT_TRUE(found);
  EXPECT_EQ(found->username(), "new user");
  EXPECT_EQ(found->password(), "new pass");
  EXPECT_EQ(found->label(), "Stellwin Backup password for Office NAS");
  EXPECT_EQ(count("\n" + secretToolSearch(s), "\n[/"), 1);

  ASSERT_TRUE(m_keychain->deleteItem(s));
  item->setPassword(remember("third pass"));
  found = m_keychain->keychainItemWithService(s);
  ASSERT_TRUE(found);
  EXPECT_EQ(found->username(), "new user");
  EXPECT_EQ(found->password(), "third pass");
  EXPECT_EQ(found->label(), "Stellwin Backup password for Office NAS");
}

TEST_F(QVSecretServiceKeychainTest, KeepsAwkwardPasswordsAndNamesExactly) {
  const std::vector<std::string> passwords = {"with spaces  and  more", "user@host", "a:b::c",
                                              "quote\"single'back\\slash", "Grüße, 日本語, emoji 🔑",
                                              "trailing newline\n", std::string(5000, 'x')};
  for (std::size_t i = 0; i < passwords.size(); ++i) {
    ASSERT_TRUE(m_keychain->storeItem(service(std::to_string(i)), "user name@example.org:" + std::to_string(i),
                                      remember(passwords[i]), "Stellwin Backup password for Büro \"NAS\""));
  }
  for (std::size_t i = 0; i < passwords.size(); ++i) {
    auto item = m_keychain->keychainItemWithService(m_services[i]);
    ASSERT_TRUE(item) << i;
    EXPECT_EQ(item->password(), passwords[i]) << i;
    EXPECT_EQ(item->username(), "user name@example.org:" + std::to_string(i));
    EXPECT_EQ(item->label(), "Stellwin Backup password for Büro \"NAS\"");
  }
}

TEST_F(QVSecretServiceKeychainTest, ServesWorkerThreadsAtOnce) {
  std::vector<std::string> services;
  for (int i = 0; i < 12; ++i) services.push_back(service("thread-" + std::to_string(i)));
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([this, t, &services] {
      for (int i = t; i < 12; i += 4) {
        EXPECT_TRUE(m_keychain->addGenericKeychainItemForService(services[i], "u", "p-" + std::to_string(i)));
        auto item = m_keychain->keychainItemWithService(services[i]);
        EXPECT_TRUE(item && item->password() == "p-" + std::to_string(i));
      }
    });
  }
  for (auto& thread : threads) thread.join();
  for (int i = 0; i < 12; ++i) EXPECT_TRUE(m_keychain->keychainItemWithService(services[i])) << i;
}

TEST_F(QVSecretServiceKeychainTest, SharedProxyChoosesTheSecretServiceWhenOneAnswers) {
  QVKeychain::setSharedProxy(nullptr);
  EXPECT_EQ(QVKeychain::sharedProxy().backendName(), "secret-service");
  const std::string s = service("shared");
  ASSERT_TRUE(QVKeychain::sharedProxy().addGenericKeychainItemForService(s, "u", remember("shared secret")));
  EXPECT_EQ(m_keychain->keychainItemWithService(s)->password(), "shared secret");
  EXPECT_FALSE(std::filesystem::exists(std::string(std::getenv("XDG_CONFIG_HOME")) + "/stellwin/keychain.json"));
}

TEST_F(QVSecretServiceKeychainTest, SharedProxyFallsBackToTheFileWithoutABusInTheEnvironment) {
  // The bus still runs, but the environment no longer names it: it must not be used.
  qvtest::IsolatedEnvironment isolated;
  EXPECT_EQ(QVKeychain::sharedProxy().backendName(), "file");
}
