#include "platform/QVUserDefaults.h"

#include <gtest/gtest.h>

#include <csignal>
#include <filesystem>
#include <limits>
#include <set>

#include <sys/resource.h>
#include <sys/stat.h>

#include "platform/QVLog.h"
#include "support/QVTestSupport.h"

namespace fs = std::filesystem;

class QVUserDefaultsTest : public ::testing::Test {
 protected:
  void SetUp() override {
    m_previousSink = qv::setLogSink([this](const std::string& line) { m_log.push_back(line); });
  }
  void TearDown() override { qv::setLogSink(m_previousSink); }

  std::set<std::string> namesInConfig() {
    std::set<std::string> names;
    for (const auto& entry : fs::directory_iterator(m_env.configDirectory())) names.insert(entry.path().filename());
    return names;
  }

  qvtest::IsolatedEnvironment m_env;
  std::string m_path = m_env.preferencesPath();
  std::vector<std::string> m_log;
  qv::QVLogSink m_previousSink;
};

TEST_F(QVUserDefaultsTest, RoundTripsEveryValueTypeInAPrivateFile) {
  auto ms = [](std::int64_t n) { return QVDate(std::chrono::milliseconds(n)); };
  QVDictionary all{{"null", QVValue()}, {"yes", true}, {"no", false}, {"zero", 0}, {"real", 0.1},
                   {"max", std::numeric_limits<std::int64_t>::max()},
                   {"min", std::numeric_limits<std::int64_t>::min()},
                   {"text", "Zürich \"quoted\" \\ \n\t 日本"}, {"empty", ""}, {"date", ms(1704465007999)},
                   {"nested", QVDictionary{{"when", ms(-1)}, {"inner", QVDictionary{{"list", QVArray{}}}},
                                           {"mixed", QVArray{QVValue(), 1, 2.5, "x", ms(1)}}}}};
  mode_t previousUmask = ::umask(0);
  QVUserDefaults store(m_path);
  for (auto it = all.rbegin(); it != all.rend(); ++it) store.setObject(it->second, it->first);
  bool written = store.synchronize();
  ::umask(previousUmask);
  ASSERT_TRUE(written);

  QVUserDefaults reloaded(m_path);
  for (const auto& [key, value] : all) {
    ASSERT_NE(reloaded.objectForKey(key), nullptr) << key;
    EXPECT_EQ(*reloaded.objectForKey(key), value) << key;
  }
  EXPECT_TRUE(reloaded.objectForKey("real")->isReal());
  EXPECT_TRUE(reloaded.dictionaryForKey("nested")->at("when").isDate());
  EXPECT_FALSE(reloaded.dictionaryForKey("date"));

  // Pretty, in key order whatever the order of the changes, ending in a newline.
  std::string text = qvtest::readFile(m_path);
  EXPECT_LT(text.find("\n  \"date\""), text.find("\n  \"zero\""));
  EXPECT_EQ(text.back(), '\n');
  struct stat st {};
  ASSERT_EQ(::stat(m_path.c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 07777, 0600u);
  ASSERT_EQ(::stat(m_env.configDirectory().c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 07777, 0700u);
  EXPECT_EQ(namesInConfig(), std::set<std::string>{"preferences.json"}) << "a temporary file was left";
}

TEST_F(QVUserDefaultsTest, LeavesTheFileAloneWhenNothingChanged) {
  QVUserDefaults empty(m_path);  // no file: empty, quietly
  EXPECT_EQ(empty.objectForKey("a"), nullptr);
  EXPECT_TRUE(empty.synchronize());
  EXPECT_FALSE(fs::exists(m_env.configDirectory()));
  EXPECT_TRUE(m_log.empty());

  // A layout the store would never write: any rewrite would show.
  const std::string handWritten = "{\"b\":[1,2],  \"a\": {\"$date\": \"2024-01-05T14:30:07.000Z\"}}";
  qvtest::writeFile(m_path, handWritten);
  struct stat before {}, after {};
  ASSERT_EQ(::stat(m_path.c_str(), &before), 0);
  QVUserDefaults store(m_path);
  store.setObject(QVArray{1, 2}, "b");
  store.setObject(*store.objectForKey("a"), "a");
  store.removeObjectForKey("never there");
  EXPECT_TRUE(store.synchronize());
  ASSERT_EQ(::stat(m_path.c_str(), &after), 0);
  EXPECT_EQ(qvtest::readFile(m_path), handWritten);
  EXPECT_EQ(after.st_ino, before.st_ino);
  EXPECT_EQ(after.st_mtim.tv_nsec, before.st_mtim.tv_nsec);

  store.removeObjectForKey("b");
  EXPECT_TRUE(store.synchronize());
  EXPECT_EQ(QVUserDefaults(m_path).objectForKey("b"), nullptr);
}

TEST_F(QVUserDefaultsTest, KeepsTheOldFileWhenTheDiskRefusesTheNewOne) {
  QVUserDefaults store(m_path);
  store.setObject("old", "k");
  ASSERT_TRUE(store.synchronize());
  const std::string old = qvtest::readFile(m_path);
  store.setObject(std::string(64 * 1024, 'n'), "k");

  // A file-size limit makes the write fail half-way for real, as a full disk would, even for root.
  struct rlimit saved {};
  ASSERT_EQ(::getrlimit(RLIMIT_FSIZE, &saved), 0);
  auto previousHandler = std::signal(SIGXFSZ, SIG_IGN);
  struct rlimit small = saved;
  small.rlim_cur = 4096;
  ASSERT_EQ(::setrlimit(RLIMIT_FSIZE, &small), 0);
  bool written = store.synchronize();
  ::setrlimit(RLIMIT_FSIZE, &saved);
  std::signal(SIGXFSZ, previousHandler);

  EXPECT_FALSE(written);
  EXPECT_EQ(qvtest::readFile(m_path), old);
  EXPECT_EQ(namesInConfig(), std::set<std::string>{"preferences.json"});
  ASSERT_EQ(m_log.size(), 1u);
  EXPECT_NE(m_log[0].find(m_path), std::string::npos) << m_log[0];
  // Still pending: it goes out once the disk takes it.
  EXPECT_TRUE(store.synchronize());
  EXPECT_EQ(QVUserDefaults(m_path).objectForKey("k")->string()->size(), 64u * 1024);
}

TEST_F(QVUserDefaultsTest, FailsWithOneLogLineWhenTheConfigFolderIsAFile) {
  qvtest::writeFile(m_env.configDirectory(), "not a folder");
  QVUserDefaults store(m_path);
  store.setObject(1, "k");
  EXPECT_FALSE(store.synchronize());
  EXPECT_EQ(m_log.size(), 1u);
  EXPECT_EQ(qvtest::readFile(m_env.configDirectory()), "not a folder");
}

TEST_F(QVUserDefaultsTest, MovesDamagedFilesAsideWithoutReplacingEarlierOnes) {
  // All within the same second or two: each damaged copy must still get its own name.
  const std::set<std::string> damaged = {"garbage \x01\xff", "{\"k\": [1, 2", "[1, 2]", "\"text\"", "",
                                         "{\"k\": 1} trailing"};
  std::set<std::string> asides;
  for (const std::string& bytes : damaged) {
    SCOPED_TRACE(bytes);
    qvtest::writeFile(m_path, bytes);
    m_log.clear();
    QVUserDefaults store(m_path);
    EXPECT_EQ(store.objectForKey("k"), nullptr);
    EXPECT_FALSE(fs::exists(m_path));
    ASSERT_EQ(m_log.size(), 1u);
    EXPECT_NE(m_log[0].find(m_path + " "), std::string::npos) << m_log[0];
    EXPECT_NE(m_log[0].find(m_path + ".damaged-"), std::string::npos) << m_log[0];
    store.setObject(1, "fresh");
    ASSERT_TRUE(store.synchronize());
    fs::remove(m_path);
  }
  for (const std::string& name : namesInConfig()) {
    EXPECT_EQ(name.rfind("preferences.json.damaged-", 0), 0u) << name;
    asides.insert(qvtest::readFile(m_env.configDirectory() + "/" + name));
  }
  EXPECT_EQ(asides, damaged);
}

TEST_F(QVUserDefaultsTest, FindsItsFolderFromTheEnvironmentAndDropsTheStandardStoreUnwritten) {
  EXPECT_EQ(QVUserDefaults::standardUserDefaults().filePath(), m_path);
  QVUserDefaults::standardUserDefaults().setObject("unsaved", "k");
  for (const char* invalid : {"", "relative/config"}) {
    ::setenv("XDG_CONFIG_HOME", invalid, 1);
    EXPECT_EQ(QVUserDefaults::configDirectory(), m_env.home() + "/.config/stellwin");
  }
  ::unsetenv("XDG_CONFIG_HOME");
  EXPECT_EQ(QVUserDefaults::configDirectory(), m_env.home() + "/.config/stellwin");
  EXPECT_EQ(QVUserDefaults::standardUserDefaults().filePath(), m_path) << "made once, kept until reset";

  QVUserDefaults::resetStandardUserDefaults();
  EXPECT_FALSE(fs::exists(m_path));
  EXPECT_EQ(QVUserDefaults::standardUserDefaults().filePath(), m_env.home() + "/.config/stellwin/preferences.json");
  EXPECT_EQ(QVUserDefaults::standardUserDefaults().objectForKey("k"), nullptr);
}
