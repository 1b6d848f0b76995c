#include "platform/QVKeychain.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <thread>
#include <tuple>
#include <vector>

#include "support/QVTestSupport.h"

// The file backend, with debug logging on: no log line may hold a password (each holds "P4ss").
class QVKeychainTest : public ::testing::Test {
 protected:
  void SetUp() override { ::setenv("STELLWIN_DEBUG", "all", 1); }
  void TearDown() override {
    for (const auto& line : m_log.lines()) EXPECT_EQ(line.find("P4ss"), std::string::npos) << line;
  }
  std::unique_ptr<QVKeychain> open() { return QVKeychain::makeFileKeychain(m_path); }
  static auto fields(const QVKeychainItem& item) { return std::tie(item.username(), item.password(), item.label()); }

  qvtest::IsolatedEnvironment m_env;
  std::string m_path = m_env.configDirectory() + "/keychain.json";
  qvtest::LogCapture m_log;
};

TEST_F(QVKeychainTest, AddsLooksUpUpdatesAndDeletesAndItemSettersWriteThrough) {
  QVKeychain* keychain = &QVKeychain::sharedProxy();  // the file beside the preferences
  EXPECT_EQ(keychain->backendName(), "file");
  ASSERT_TRUE(keychain->addGenericKeychainItemForService("A", "alice", "P4ss 1"));
  ASSERT_TRUE(keychain->addGenericKeychainItemForService("B", "bob", "P4ss B"));
  auto item = keychain->keychainItemWithService("A");
  // A second keychain on the same file stands for another process: it sees each change at once, and adding
  // over an item keeps its label.
  item.value().setLabel("NAS");
  item->setUsername("carol");
  item->setPassword("P4ss 2");
  EXPECT_EQ(fields(open()->keychainItemWithService("A").value()), std::make_tuple("carol", "P4ss 2", "NAS"));
  ASSERT_TRUE(open()->addGenericKeychainItemForService("A", "dave", "P4ss 3"));
  EXPECT_EQ(fields(keychain->keychainItemWithService("A").value()), std::make_tuple("dave", "P4ss 3", "NAS"));
  EXPECT_TRUE(keychain->deleteItem("A"));
  EXPECT_FALSE(keychain->keychainItemWithService("A"));
  EXPECT_FALSE(keychain->deleteItem("A"));
  EXPECT_EQ(keychain->keychainItemWithService("B")->password(), "P4ss B");
  // Neither an address that asks for a bus to be launched nor one of a bus that is gone is followed.
  for (std::string address : {std::string("autolaunch:"), "unix:path=" + m_env.root() + "/gone"}) {
    ::setenv("DBUS_SESSION_BUS_ADDRESS", address.c_str(), 1);
    EXPECT_EQ(QVKeychain::makeSecretServiceKeychain(), nullptr) << address;
  }
}

// Two keychains on one file stand for two processes; their threads write at once, with service names and
// passwords awkward to store, under a umask that would let anyone read.
TEST_F(QVKeychainTest, KeepsEveryItemExactlyInAPrivateFileWhenThreadsOfTwoProcessesWriteAtOnce) {
  const std::string passwords[] = {
      "with  spaces ", "a:b::c", "q\"s'b\\", "Grüße 日本 🔑", "{\"p\": 1}", "newline\n", std::string(5000, 'x')};
  const auto service = [](int i) { return "é:@ \"N\" " + std::to_string(i); };
  std::unique_ptr<QVKeychain> keychains[] = {open(), open()};
  const mode_t previousUmask = ::umask(0);
  std::vector<std::thread> threads;
  for (int t = 0; t < 6; ++t)
    threads.emplace_back([&, keychain = keychains[t % 2].get(), t] {
      for (int i = t * 8; i < t * 8 + 8; ++i)
        EXPECT_TRUE(keychain->addGenericKeychainItemForService(service(i), "user@host:1", "P4ss" + passwords[i % 7]));
    });
  for (auto& thread : threads) thread.join();
  ::umask(previousUmask);
  for (int i = 0; i < 48; ++i)
    EXPECT_EQ(fields(open()->keychainItemWithService(service(i)).value()),
              std::make_tuple("user@host:1", "P4ss" + passwords[i % 7], service(i)))
        << i;
  struct stat st {};
  ASSERT_EQ(::stat(m_path.c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 07777, 0600u);
}
