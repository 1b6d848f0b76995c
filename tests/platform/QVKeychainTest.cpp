#include "platform/QVKeychain.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <mutex>
#include <thread>
#include <vector>

#include <sys/stat.h>

#include "platform/QVLog.h"
#include "support/QVTestSupport.h"

namespace fs = std::filesystem;

namespace {

const std::vector<std::string> kAwkwardPasswords = {
    "with spaces  and  more", "user@host", "a:b::c", "quote\"single'back\\slash", "Grüße, 日本語, emoji 🔑",
    "{\"pass\": \"json\"}",   "",          "trailing newline\n", std::string(5000, 'x')};

}  // namespace

// Everything here runs against the file backend; every log line of a test is checked for passwords.
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

  const std::string& remember(const std::string& password) {
    m_passwords.push_back(password);
    return password;
  }

  std::unique_ptr<QVKeychain> open() { return QVKeychain::makeFileKeychain(m_path); }

  qvtest::IsolatedEnvironment m_env;
  std::string m_path = m_env.configDirectory() + "/keychain.json";
  std::vector<std::string> m_passwords;
  std::mutex m_logMutex;
  std::vector<std::string> m_log;  // guarded by m_logMutex
  qv::QVLogSink m_previousSink;
};

TEST_F(QVKeychainTest, AddsLooksUpUpdatesAndDeletesItems) {
  auto keychain = open();
  EXPECT_EQ(keychain->backendName(), "file");
  EXPECT_FALSE(keychain->keychainItemWithService("com.stellwin.Stellwin.Backup.target.A"));
  EXPECT_FALSE(fs::exists(m_path)) << "a look-up must not create the file";

  ASSERT_TRUE(keychain->addGenericKeychainItemForService("com.stellwin.Stellwin.Backup.target.A", "alice",
                                                         remember("first secret")));
  ASSERT_TRUE(keychain->addGenericKeychainItemForService("com.stellwin.Stellwin.Backup.target.B", "bob",
                                                         remember("bob's secret")));
  auto item = keychain->keychainItemWithService("com.stellwin.Stellwin.Backup.target.A");
  ASSERT_TRUE(item);
  EXPECT_EQ(item->service(), "com.stellwin.Stellwin.Backup.target.A");
  EXPECT_EQ(item->username(), "alice");
  EXPECT_EQ(item->password(), "first secret");
  EXPECT_EQ(item->label(), "com.stellwin.Stellwin.Backup.target.A");

  // Adding over an existing item replaces user and password and keeps its label.
  ASSERT_TRUE(keychain->storeItem("com.stellwin.Stellwin.Backup.target.A", "alice", "first secret", "Label A"));
  ASSERT_TRUE(keychain->addGenericKeychainItemForService("com.stellwin.Stellwin.Backup.target.A", "carol",
                                                         remember("second secret")));
  item = keychain->keychainItemWithService("com.stellwin.Stellwin.Backup.target.A");
  ASSERT_TRUE(item);
  EXPECT_EQ(item->username(), "carol");
  EXPECT_EQ(item->password(), "second secret");
  EXPECT_EQ(item->label(), "Label A");

  EXPECT_TRUE(keychain->deleteItem("com.stellwin.Stellwin.Backup.target.A"));
  EXPECT_FALSE(keychain->keychainItemWithService("com.stellwin.Stellwin.Backup.target.A"));
  EXPECT_FALSE(keychain->deleteItem("com.stellwin.Stellwin.Backup.target.A"));
  auto other = keychain->keychainItemWithService("com.stellwin.Stellwin.Backup.target.B");
  ASSERT_TRUE(other);
  EXPECT_EQ(other->password(), "bob's secret");
}

TEST_F(QVKeychainTest, ItemSettersWriteThroughForOtherReaders) {
  auto keychain = open();
  ASSERT_TRUE(keychain->addGenericKeychainItemForService("svc", "old user", remember("old pass")));
  auto item = keychain->keychainItemWithService("svc");
  ASSERT_TRUE(item);
  item->setUsername("new user");
  item->setPassword(remember("new pass"));
  item->setLabel("Stellwin Backup password for Office NAS");
  EXPECT_EQ(item->username(), "new user");
  EXPECT_EQ(item->password(), "new pass");

  // A second keychain on the same file stands for another process.
  auto found = open()->keychainItemWithService("svc");
  ASSERT_TRUE(found);
  EXPECT_EQ(found->username(), "new user");
  EXPECT_EQ(found->password(), "new pass");
  EXPECT_EQ(found->label(), "Stellwin Backup password for Office NAS");

  // An item removed meanwhile comes back whole from its next change.
  ASSERT_TRUE(keychain->deleteItem("svc"));
  item->setPassword(remember("third pass"));
  found = keychain->keychainItemWithService("svc");
  ASSERT_TRUE(found);
  EXPECT_EQ(found->username(), "new user");
  EXPECT_EQ(found->password(), "third pass");
  EXPECT_EQ(found->label(), "Stellwin Backup password for Office NAS");
}

TEST_F(QVKeychainTest, SeesChangesMadeByAnotherProcess) {
  auto keychain = open();
  EXPECT_FALSE(keychain->keychainItemWithService("svc"));
  ASSERT_TRUE(open()->addGenericKeychainItemForService("svc", "u", remember("from elsewhere")));
  auto item = keychain->keychainItemWithService("svc");
  ASSERT_TRUE(item);
  EXPECT_EQ(item->password(), "from elsewhere");
}

TEST_F(QVKeychainTest, KeepsTheFilePrivateWhateverTheUmask) {
  mode_t previous = ::umask(0);
  bool added = open()->addGenericKeychainItemForService("svc", "u", remember("p1"));
  ::umask(previous);
  ASSERT_TRUE(added);
  struct stat st {};
  ASSERT_EQ(::stat(m_path.c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 07777, 0600u);
  ASSERT_EQ(::stat(m_env.configDirectory().c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 07777, 0700u);

  // A file that someone opened up is private again after the next change.
  fs::permissions(m_path, fs::perms::owner_read | fs::perms::owner_write | fs::perms::group_read |
                              fs::perms::others_read);
  ASSERT_TRUE(open()->storeItem("svc", "u", remember("p2"), "label"));
  ASSERT_EQ(::stat(m_path.c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 07777, 0600u);
  EXPECT_EQ(std::vector<std::string>{"keychain.json"},
            [&] {
              std::vector<std::string> names;
              for (const auto& e : fs::directory_iterator(m_env.configDirectory())) names.push_back(e.path().filename());
              return names;
            }());
}

TEST_F(QVKeychainTest, KeepsAwkwardPasswordsAndNamesExactly) {
  auto keychain = open();
  for (std::size_t i = 0; i < kAwkwardPasswords.size(); ++i) {
    const std::string service = "service " + std::to_string(i) + " é:@";
    ASSERT_TRUE(keychain->storeItem(service, "user name@example.org:" + std::to_string(i), remember(kAwkwardPasswords[i]),
                                    "Stellwin Backup password for Büro \"NAS\""));
  }
  auto reader = open();
  for (std::size_t i = 0; i < kAwkwardPasswords.size(); ++i) {
    auto item = reader->keychainItemWithService("service " + std::to_string(i) + " é:@");
    ASSERT_TRUE(item) << i;
    EXPECT_EQ(item->password(), kAwkwardPasswords[i]) << i;
    EXPECT_EQ(item->username(), "user name@example.org:" + std::to_string(i));
    EXPECT_EQ(item->label(), "Stellwin Backup password for Büro \"NAS\"");
  }
  // The empty password is dropped from the log check: it occurs in every line.
  m_passwords.erase(std::remove(m_passwords.begin(), m_passwords.end(), std::string()), m_passwords.end());
}

TEST_F(QVKeychainTest, MovesADamagedFileAsideInsteadOfLosingIt) {
  qvtest::writeFile(m_path, "{\"svc\": {\"user\": \"u\", \"pass\": \"" + remember("half-written") + "\"");
  auto keychain = open();
  EXPECT_FALSE(keychain->keychainItemWithService("svc"));
  ASSERT_TRUE(keychain->addGenericKeychainItemForService("svc", "u", remember("fresh")));
  EXPECT_EQ(keychain->keychainItemWithService("svc")->password(), "fresh");

  int asides = 0;
  for (const auto& entry : fs::directory_iterator(m_env.configDirectory())) {
    if (entry.path().filename().string().rfind("keychain.json.damaged-", 0) != 0) continue;
    ++asides;
    EXPECT_NE(qvtest::readFile(entry.path()).find("half-written"), std::string::npos);
  }
  EXPECT_EQ(asides, 1);
}

TEST_F(QVKeychainTest, ReportsAFailedWriteWithoutThePassword) {
  qvtest::writeFile(m_env.configDirectory(), "a file where the folder should be");
  auto keychain = open();
  EXPECT_FALSE(keychain->addGenericKeychainItemForService("svc", "u", remember("never written")));
  EXPECT_FALSE(keychain->storeItem("svc", "u", remember("never written either"), "l"));
  EXPECT_FALSE(keychain->keychainItemWithService("svc"));
  std::lock_guard<std::mutex> lock(m_logMutex);
  EXPECT_FALSE(m_log.empty());
}

TEST_F(QVKeychainTest, LosesNoItemWhenManyThreadsAndKeychainsWriteAtOnce) {
  // Two keychains on one file stand for two processes; each has several worker threads.
  auto first = open();
  auto second = open();
  std::vector<std::thread> threads;
  for (int t = 0; t < 6; ++t) {
    QVKeychain* keychain = t % 2 ? second.get() : first.get();
    threads.emplace_back([keychain, t] {
      for (int i = 0; i < 8; ++i) {
        std::string service = "svc-" + std::to_string(t) + "-" + std::to_string(i);
        EXPECT_TRUE(keychain->addGenericKeychainItemForService(service, "u", "p-" + service));
      }
    });
  }
  for (auto& thread : threads) thread.join();
  for (int t = 0; t < 6; ++t) {
    for (int i = 0; i < 8; ++i) {
      std::string service = "svc-" + std::to_string(t) + "-" + std::to_string(i);
      auto item = first->keychainItemWithService(service);
      ASSERT_TRUE(item) << service;
      EXPECT_EQ(item->password(), "p-" + service);
    }
  }
}

TEST_F(QVKeychainTest, SharedProxyUsesTheFileBesideThePreferencesWithoutABus) {
  QVKeychain& shared = QVKeychain::sharedProxy();
  EXPECT_EQ(shared.backendName(), "file");
  EXPECT_EQ(&shared, &QVKeychain::sharedProxy());
  ASSERT_TRUE(shared.addGenericKeychainItemForService("svc", "u", remember("shared")));
  EXPECT_TRUE(fs::exists(m_path));

  // Choosing again follows the environment of that moment.
  ::setenv("XDG_CONFIG_HOME", (m_env.root() + "/other").c_str(), 1);
  QVKeychain::setSharedProxy(nullptr);
  EXPECT_FALSE(QVKeychain::sharedProxy().keychainItemWithService("svc"));
  ASSERT_TRUE(QVKeychain::sharedProxy().addGenericKeychainItemForService("svc2", "u", remember("other")));
  EXPECT_TRUE(fs::exists(m_env.root() + "/other/stellwin/keychain.json"));
}

TEST_F(QVKeychainTest, NeverStartsABusToFindASecretService) {
  // No address and no socket in the runtime folder: nothing to ask.
  EXPECT_EQ(QVKeychain::makeSecretServiceKeychain(), nullptr);
  // An address that asks for a bus to be launched is refused rather than followed.
  ::setenv("DBUS_SESSION_BUS_ADDRESS", "autolaunch:", 1);
  EXPECT_EQ(QVKeychain::makeSecretServiceKeychain(), nullptr);
  // A bus that is gone answers at once with an error.
  ::setenv("DBUS_SESSION_BUS_ADDRESS", ("unix:path=" + m_env.root() + "/runtime/no-such-bus").c_str(), 1);
  EXPECT_EQ(QVKeychain::makeSecretServiceKeychain(), nullptr);
  QVKeychain::setSharedProxy(nullptr);
  EXPECT_EQ(QVKeychain::sharedProxy().backendName(), "file");
}
