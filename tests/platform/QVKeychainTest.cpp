#include "platform/QVKeychain.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <mutex>
#include <thread>
#include <vector>

#include <sys/stat.h>

#include "platform/QVLog.h"
#include "support/QVTestSupport.h"

namespace fs = std::filesystem;

// The file backend. Debug logging is on, and no log line of a test may hold one of its passwords.
class QVKeychainTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ::setenv("STELLWIN_DEBUG", "all", 1);
    m_previousSink = qv::setLogSink([this](const std::string& line) {
      std::lock_guard<std::mutex> lock(m_logMutex);
      m_log.push_back(line);
    });
  }
  void TearDown() override {
    qv::setLogSink(m_previousSink);
    ::unsetenv("STELLWIN_DEBUG");
    for (const std::string& line : m_log)
      for (const std::string& password : m_passwords)
        EXPECT_EQ(line.find(password), std::string::npos) << "password in log line: " << line;
  }
  const std::string& remember(const std::string& password) { return m_passwords.emplace_back(password); }
  std::unique_ptr<QVKeychain> open() { return QVKeychain::makeFileKeychain(m_path); }

  qvtest::IsolatedEnvironment m_env;
  std::string m_path = m_env.configDirectory() + "/keychain.json";
  std::vector<std::string> m_passwords;
  std::mutex m_logMutex;
  std::vector<std::string> m_log;  // guarded by m_logMutex
  qv::QVLogSink m_previousSink;
};

TEST_F(QVKeychainTest, AddsLooksUpUpdatesAndDeletesItemsAndItemsWriteThrough) {
  auto keychain = open();
  EXPECT_FALSE(keychain->keychainItemWithService("A"));
  EXPECT_FALSE(fs::exists(m_path)) << "a look-up must not create the file";
  ASSERT_TRUE(keychain->addGenericKeychainItemForService("A", "alice", remember("first secret")));
  ASSERT_TRUE(keychain->addGenericKeychainItemForService("B", "bob", remember("bob's secret")));
  auto item = keychain->keychainItemWithService("A");
  ASSERT_TRUE(item);
  EXPECT_EQ(item->username(), "alice");
  EXPECT_EQ(item->password(), "first secret");
  EXPECT_EQ(item->label(), "A");

  // A second keychain on the same file stands for another process: it sees each change at once.
  item->setLabel("Stellwin Backup password for NAS");
  item->setUsername("carol");
  item->setPassword(remember("second secret"));
  auto seen = open()->keychainItemWithService("A");
  ASSERT_TRUE(seen);
  EXPECT_EQ(seen->username(), "carol");
  EXPECT_EQ(seen->password(), "second secret");
  EXPECT_EQ(seen->label(), "Stellwin Backup password for NAS");

  // Adding over an item keeps its label.
  ASSERT_TRUE(open()->addGenericKeychainItemForService("A", "dave", remember("third secret")));
  seen = keychain->keychainItemWithService("A");
  EXPECT_EQ(seen->username(), "dave");
  EXPECT_EQ(seen->label(), "Stellwin Backup password for NAS");

  EXPECT_TRUE(keychain->deleteItem("A"));
  EXPECT_FALSE(keychain->keychainItemWithService("A"));
  EXPECT_FALSE(keychain->deleteItem("A"));
  EXPECT_EQ(keychain->keychainItemWithService("B")->password(), "bob's secret");
  // An item deleted meanwhile comes back whole from its next change.
  item->setPassword(remember("fourth secret"));
  EXPECT_EQ(keychain->keychainItemWithService("A")->label(), "Stellwin Backup password for NAS");
}

TEST_F(QVKeychainTest, KeepsTheFilePrivateWhateverTheUmask) {
  mode_t previousUmask = ::umask(0);
  bool added = open()->addGenericKeychainItemForService("svc", "u", remember("p1"));
  ::umask(previousUmask);
  ASSERT_TRUE(added);
  struct stat st {};
  ASSERT_EQ(::stat(m_path.c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 07777, 0600u);
  ASSERT_EQ(::stat(m_env.configDirectory().c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 07777, 0700u);
  // A file that someone opened up is private again after the next change.
  ::chmod(m_path.c_str(), 0644);
  ASSERT_TRUE(open()->storeItem("svc", "u", remember("p2"), "label"));
  ASSERT_EQ(::stat(m_path.c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 07777, 0600u);
}

TEST_F(QVKeychainTest, KeepsAwkwardPasswordsAndNamesExactly) {
  const std::vector<std::string> passwords = {"with  spaces ", "user@host", "a:b::c", "q\"s'b\\", "Grüße 日本 🔑",
                                              "{\"pass\": 1}", "newline\n", std::string(5000, 'x')};
  for (std::size_t i = 0; i < passwords.size(); ++i)
    ASSERT_TRUE(open()->storeItem("svc é:@ " + std::to_string(i), "user@example.org:" + std::to_string(i),
                                  remember(passwords[i]), "Büro \"NAS\""));
  auto keychain = open();
  for (std::size_t i = 0; i < passwords.size(); ++i) {
    auto item = keychain->keychainItemWithService("svc é:@ " + std::to_string(i));
    ASSERT_TRUE(item) << i;
    EXPECT_EQ(item->password(), passwords[i]);
    EXPECT_EQ(item->username(), "user@example.org:" + std::to_string(i));
    EXPECT_EQ(item->label(), "Büro \"NAS\"");
  }
}

TEST_F(QVKeychainTest, ReportsAFailedWriteWithoutThePassword) {
  qvtest::writeFile(m_env.configDirectory(), "a file where the folder should be");
  EXPECT_FALSE(open()->addGenericKeychainItemForService("svc", "u", remember("never written")));
  EXPECT_FALSE(open()->storeItem("svc", "u", remember("never written either"), "l"));
  std::lock_guard<std::mutex> lock(m_logMutex);
  EXPECT_FALSE(m_log.empty());
}

TEST_F(QVKeychainTest, LosesNoItemWhenThreadsOfTwoProcessesWriteAtOnce) {
  std::unique_ptr<QVKeychain> keychains[] = {open(), open()};
  std::vector<std::thread> threads;
  for (int t = 0; t < 6; ++t) {
    threads.emplace_back([keychain = keychains[t % 2].get(), t] {
      for (int i = 0; i < 8; ++i) {
        std::string service = std::to_string(t) + "-" + std::to_string(i);
        EXPECT_TRUE(keychain->addGenericKeychainItemForService(service, "u", "p" + service));
      }
    });
  }
  for (auto& thread : threads) thread.join();
  for (int t = 0; t < 6; ++t)
    for (int i = 0; i < 8; ++i) {
      std::string service = std::to_string(t) + "-" + std::to_string(i);
      auto item = keychains[0]->keychainItemWithService(service);
      ASSERT_TRUE(item) << service;
      EXPECT_EQ(item->password(), "p" + service);
    }
}

TEST_F(QVKeychainTest, SharedProxyUsesTheFileBesideThePreferencesAndNeverStartsABus) {
  QVKeychain& shared = QVKeychain::sharedProxy();
  EXPECT_EQ(shared.backendName(), "file");
  EXPECT_EQ(&shared, &QVKeychain::sharedProxy());
  ASSERT_TRUE(shared.addGenericKeychainItemForService("svc", "u", remember("shared")));
  EXPECT_TRUE(fs::exists(m_path));

  // Neither an address that asks for a bus to be launched nor one of a bus that is gone is followed.
  for (std::string address : {std::string("autolaunch:"), "unix:path=" + m_env.root() + "/runtime/gone"}) {
    ::setenv("DBUS_SESSION_BUS_ADDRESS", address.c_str(), 1);
    EXPECT_EQ(QVKeychain::makeSecretServiceKeychain(), nullptr) << address;
  }
  // Choosing again follows the environment of that moment.
  ::setenv("XDG_CONFIG_HOME", (m_env.root() + "/other").c_str(), 1);
  QVKeychain::setSharedProxy(nullptr);
  EXPECT_EQ(QVKeychain::sharedProxy().backendName(), "file");
  EXPECT_FALSE(QVKeychain::sharedProxy().keychainItemWithService("svc"));
}
