#include "platform/QVUserDefaults.h"

#include <gtest/gtest.h>
#include <sys/resource.h>

#include <csignal>
#include <filesystem>
#include <set>

#include "support/QVTestSupport.h"

namespace fs = std::filesystem;

// The preferences file: typed values, no needless rewrite, atomic replacement, damaged files set aside.
class QVUserDefaultsTest : public ::testing::Test {
 protected:
  qvtest::IsolatedEnvironment m_env;
  std::string m_path = m_env.preferencesPath();
  qvtest::LogCapture m_log;
};

TEST_F(QVUserDefaultsTest, RewritesTheFileOnlyForAChangeAndKeepsTheOldOneWhenTheDiskRefusesTheNew) {
  // A layout the store would never write: any needless rewrite would show.
  const std::string handWritten = "{\"b\":[1,2],  \"a\": {\"$date\": \"2024-01-05T14:30:07.000Z\"}}";
  qvtest::writeFile(m_path, handWritten);
  QVUserDefaults store(m_path);
  store.setObject(QVArray{1, 2}, "b");
  store.setObject(*store.objectForKey("a"), "a");
  store.removeObjectForKey("never there");
  EXPECT_TRUE(store.synchronize());
  EXPECT_EQ(qvtest::readFile(m_path), handWritten);
  // A file-size limit makes the write fail half-way for real, as a full disk would, even for root.
  store.setObject(std::string(64 * 1024, 'n'), "k");
  struct rlimit saved {};
  ASSERT_EQ(::getrlimit(RLIMIT_FSIZE, &saved), 0);
  const struct rlimit small { 4096, saved.rlim_max };
  auto previousHandler = std::signal(SIGXFSZ, SIG_IGN);
  ASSERT_EQ(::setrlimit(RLIMIT_FSIZE, &small), 0);
  const bool written = store.synchronize();
  ::setrlimit(RLIMIT_FSIZE, &saved);
  std::signal(SIGXFSZ, previousHandler);
  EXPECT_FALSE(written);
  EXPECT_EQ(qvtest::readFile(m_path), handWritten);
  EXPECT_EQ(std::distance(fs::directory_iterator(m_env.configDirectory()), {}), 1) << "a temporary file was left";
  const auto logged = m_log.lines();
  ASSERT_EQ(logged.size(), 1u);
  EXPECT_NE(logged[0].find(m_path), std::string::npos) << logged[0];
  EXPECT_TRUE(store.synchronize()) << "still pending: it goes out once the disk takes it";
}

TEST_F(QVUserDefaultsTest, MovesDamagedFilesAsideWithOneLogLineAndStartsEmpty) {
  // All within a second or two: each damaged copy must still get its own name.
  const std::set<std::string> damaged = {"garbage \x01\xff", "{\"k\": [1, 2", "[1, 2]", "", "{\"k\": 1} trailing"};
  for (const std::string& bytes : damaged) {
    qvtest::writeFile(m_path, bytes);
    m_log.lines(true);
    QVUserDefaults store(m_path);
    EXPECT_EQ(store.objectForKey("k"), nullptr) << bytes;
    const auto logged = m_log.lines();
    ASSERT_EQ(logged.size(), 1u) << bytes;
    EXPECT_NE(logged[0].find(m_path + ".damaged-"), std::string::npos) << logged[0];
    EXPECT_FALSE(fs::exists(m_path));
  }
  std::set<std::string> asides;
  for (const auto& entry : fs::directory_iterator(m_env.configDirectory())) {
    EXPECT_EQ(entry.path().filename().string().rfind("preferences.json.damaged-", 0), 0u) << entry.path();
    asides.insert(qvtest::readFile(entry.path()));
  }
  EXPECT_EQ(asides, damaged);
}
