#include "platform/QVUserDefaults.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <limits>
#include <mutex>
#include <vector>

#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include "platform/QVLog.h"
#include "support/QVTestSupport.h"

namespace fs = std::filesystem;

namespace {

class LogCapture {
 public:
  LogCapture() {
    m_previous = qv::setLogSink([this](const std::string& line) {
      std::lock_guard<std::mutex> lock(m_mutex);
      m_lines.push_back(line);
    });
  }
  ~LogCapture() { qv::setLogSink(m_previous); }
  std::vector<std::string> lines() {
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_lines;
  }

 private:
  qv::QVLogSink m_previous;
  std::mutex m_mutex;
  std::vector<std::string> m_lines;
};

struct FileStamp {
  ino_t inode;
  timespec mtime;
  std::string bytes;
};

FileStamp stampOf(const std::string& path) {
  struct stat st {};
  EXPECT_EQ(::stat(path.c_str(), &st), 0) << path;
  return {st.st_ino, st.st_mtim, qvtest::readFile(path)};
}

void expectUntouched(const FileStamp& before, const std::string& path) {
  FileStamp after = stampOf(path);
  EXPECT_EQ(after.bytes, before.bytes);
  EXPECT_EQ(after.inode, before.inode) << "the file was replaced";
  EXPECT_EQ(after.mtime.tv_sec, before.mtime.tv_sec);
  EXPECT_EQ(after.mtime.tv_nsec, before.mtime.tv_nsec);
}

std::vector<std::string> namesIn(const std::string& folder) {
  std::vector<std::string> names;
  for (const auto& entry : fs::directory_iterator(folder)) names.push_back(entry.path().filename().string());
  std::sort(names.begin(), names.end());
  return names;
}

QVDate dateAt(std::int64_t milliseconds) {
  return QVDate(std::chrono::duration_cast<QVDate::duration>(std::chrono::milliseconds(milliseconds)));
}

}  // namespace

class QVUserDefaultsTest : public ::testing::Test {
 protected:
  qvtest::IsolatedEnvironment m_env;
  std::string m_path = m_env.preferencesPath();
};

TEST_F(QVUserDefaultsTest, RoundTripsEveryValueTypeThroughTheFile) {
  QVDictionary nested{{"when", dateAt(1704465007123)},
                      {"inner", QVDictionary{{"empty", QVDictionary{}}, {"list", QVArray{}}}},
                      {"mixed", QVArray{QVValue(), 1, 2.5, "x", dateAt(-1)}}};
  QVDictionary all{{"null", QVValue()},
                   {"yes", true},
                   {"no", false},
                   {"zero", 0},
                   {"max", std::numeric_limits<std::int64_t>::max()},
                   {"min", std::numeric_limits<std::int64_t>::min()},
                   {"real", 0.1},
                   {"negative real", -1e300},
                   {"empty", ""},
                   {"text", "Zürich \"quoted\" \\ back\nslash\ttab 日本"},
                   {"date", dateAt(1704465007999)},
                   {"never", qv::distantPast()},
                   {"nested", nested}};
  {
    QVUserDefaults store(m_path);
    for (const auto& [key, value] : all) store.setObject(value, key);
    ASSERT_TRUE(store.synchronize());
  }
  QVUserDefaults reloaded(m_path);
  for (const auto& [key, value] : all) {
    const QVValue* read = reloaded.objectForKey(key);
    ASSERT_NE(read, nullptr) << key;
    EXPECT_EQ(*read, value) << key;
  }
  EXPECT_TRUE(reloaded.objectForKey("real")->isReal());
  EXPECT_TRUE(reloaded.objectForKey("zero")->isInteger());
  ASSERT_TRUE(reloaded.dictionaryForKey("nested"));
  EXPECT_TRUE(reloaded.dictionaryForKey("nested")->at("when").isDate());
  EXPECT_FALSE(reloaded.dictionaryForKey("date"));
  EXPECT_FALSE(reloaded.dictionaryForKey("missing"));
  EXPECT_EQ(reloaded.objectForKey("missing"), nullptr);
}

TEST_F(QVUserDefaultsTest, WritesPrettyJSONInKeyOrderWhateverTheOrderOfChanges) {
  QVUserDefaults first(m_env.root() + "/a.json");
  first.setObject("1", "b");
  first.setObject(QVDictionary{{"y", 1}, {"x", 2}}, "a");
  ASSERT_TRUE(first.synchronize());
  QVUserDefaults second(m_env.root() + "/b.json");
  second.setObject(QVDictionary{{"x", 2}, {"y", 1}}, "a");
  second.setObject("1", "b");
  second.setObject("gone", "c");
  second.removeObjectForKey("c");
  ASSERT_TRUE(second.synchronize());

  std::string text = qvtest::readFile(m_env.root() + "/a.json");
  EXPECT_EQ(text, qvtest::readFile(m_env.root() + "/b.json"));
  ASSERT_FALSE(text.empty());
  EXPECT_EQ(text.back(), '\n');
  EXPECT_NE(text.find("\n  \"a\""), std::string::npos) << text;
  EXPECT_LT(text.find("\"a\""), text.find("\"b\""));
}

TEST_F(QVUserDefaultsTest, CreatesAPrivateFileAndFolderWhateverTheUmask) {
  mode_t previous = ::umask(0);
  QVUserDefaults store(m_path);
  store.setObject(1, "k");
  bool written = store.synchronize();
  ::umask(previous);
  ASSERT_TRUE(written);
  struct stat st {};
  ASSERT_EQ(::stat(m_path.c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 07777, 0600u);
  ASSERT_EQ(::stat(m_env.configDirectory().c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 07777, 0700u);
}

TEST_F(QVUserDefaultsTest, LeavesTheFileAloneWhenNothingChanged) {
  // Written by hand, in a layout the store would not produce: any rewrite would show.
  const std::string handWritten = "{\"b\":[1,2],  \"a\": {\"$date\": \"2024-01-05T14:30:07.000Z\"}, \"s\":\"x\"}";
  qvtest::writeFile(m_path, handWritten);
  FileStamp before = stampOf(m_path);

  QVUserDefaults store(m_path);
  EXPECT_TRUE(store.synchronize());
  store.setObject(QVArray{1, 2}, "b");
  store.setObject(*store.objectForKey("a"), "a");
  store.setObject("x", "s");
  store.removeObjectForKey("never there");
  EXPECT_TRUE(store.synchronize());
  expectUntouched(before, m_path);

  store.setObject("y", "s");
  EXPECT_TRUE(store.synchronize());
  EXPECT_NE(qvtest::readFile(m_path), handWritten);
  EXPECT_EQ(*QVUserDefaults(m_path).objectForKey("s"), QVValue("y"));
}

TEST_F(QVUserDefaultsTest, DoesNotCreateAFileForAnUnchangedEmptyStore) {
  QVUserDefaults store(m_path);
  EXPECT_TRUE(store.synchronize());
  EXPECT_FALSE(fs::exists(m_env.configDirectory()));
}

TEST_F(QVUserDefaultsTest, ReplacesTheFileWithoutLeavingTemporaryFiles) {
  QVUserDefaults store(m_path);
  for (int i = 0; i < 5; ++i) {
    store.setObject(i, "count");
    ASSERT_TRUE(store.synchronize());
  }
  EXPECT_EQ(namesIn(m_env.configDirectory()), std::vector<std::string>{"preferences.json"});
  EXPECT_EQ(*QVUserDefaults(m_path).objectForKey("count"), QVValue(4));
}

TEST_F(QVUserDefaultsTest, KeepsTheOldFileWhenTheDiskRefusesTheNewOne) {
  {
    QVUserDefaults store(m_path);
    store.setObject("old", "k");
    ASSERT_TRUE(store.synchronize());
  }
  const std::string old = qvtest::readFile(m_path);
  LogCapture log;
  QVUserDefaults store(m_path);
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
  EXPECT_EQ(namesIn(m_env.configDirectory()), std::vector<std::string>{"preferences.json"});
  ASSERT_EQ(log.lines().size(), 1u);
  EXPECT_NE(log.lines()[0].find(m_path), std::string::npos) << log.lines()[0];

  // The change is still pending and goes out once the disk takes it.
  EXPECT_TRUE(store.synchronize());
  EXPECT_EQ(QVUserDefaults(m_path).objectForKey("k")->string()->size(), 64u * 1024);
}

TEST_F(QVUserDefaultsTest, FailsWithOneLogLineWhenTheConfigFolderIsAFile) {
  qvtest::writeFile(m_env.configDirectory(), "not a folder");
  LogCapture log;
  QVUserDefaults store(m_path);
  EXPECT_TRUE(log.lines().empty());
  store.setObject(1, "k");
  EXPECT_FALSE(store.synchronize());
  EXPECT_EQ(log.lines().size(), 1u);
  EXPECT_EQ(qvtest::readFile(m_env.configDirectory()), "not a folder");
}

TEST_F(QVUserDefaultsTest, FailsAndKeepsTheOldFileInAReadOnlyFolder) {
  if (::geteuid() == 0) GTEST_SKIP() << "root writes into read-only folders";
  {
    QVUserDefaults store(m_path);
    store.setObject("old", "k");
    ASSERT_TRUE(store.synchronize());
  }
  const std::string old = qvtest::readFile(m_path);
  QVUserDefaults store(m_path);
  store.setObject("new", "k");
  fs::permissions(m_env.configDirectory(), fs::perms::owner_read | fs::perms::owner_exec);
  LogCapture log;
  EXPECT_FALSE(store.synchronize());
  fs::permissions(m_env.configDirectory(), fs::perms::owner_all);
  EXPECT_EQ(log.lines().size(), 1u);
  EXPECT_EQ(qvtest::readFile(m_path), old);
}

TEST_F(QVUserDefaultsTest, MovesADamagedFileAsideAndStartsEmpty) {
  const std::vector<std::string> damaged = {"garbage \x01\xff", "{\"groups\": [1, 2", "[1, 2, 3]", "\"text\"", "",
                                            "{\"a\": 1} trailing"};
  for (const std::string& bytes : damaged) {
    SCOPED_TRACE(bytes);
    fs::remove_all(m_env.configDirectory());
    qvtest::writeFile(m_path, bytes);
    LogCapture log;
    QVUserDefaults store(m_path);

    EXPECT_EQ(store.objectForKey("groups"), nullptr);
    EXPECT_EQ(store.objectForKey("a"), nullptr);
    EXPECT_FALSE(fs::exists(m_path));
    std::vector<std::string> names = namesIn(m_env.configDirectory());
    ASSERT_EQ(names.size(), 1u);
    EXPECT_EQ(names[0].rfind("preferences.json.damaged-", 0), 0u) << names[0];
    const std::string aside = m_env.configDirectory() + "/" + names[0];
    EXPECT_EQ(qvtest::readFile(aside), bytes);
    ASSERT_EQ(log.lines().size(), 1u);
    EXPECT_NE(log.lines()[0].find(m_path), std::string::npos) << log.lines()[0];
    EXPECT_NE(log.lines()[0].find(aside), std::string::npos) << log.lines()[0];

    store.setObject(1, "fresh");
    ASSERT_TRUE(store.synchronize());
    EXPECT_EQ(qvtest::readFile(aside), bytes);
  }
}

TEST_F(QVUserDefaultsTest, NeverReplacesAnEarlierDamagedCopy) {
  // Several in the same second must all be kept.
  for (int i = 0; i < 3; ++i) {
    qvtest::writeFile(m_path, "damaged " + std::to_string(i));
    LogCapture log;
    QVUserDefaults store(m_path);
  }
  std::vector<std::string> contents;
  for (const std::string& name : namesIn(m_env.configDirectory()))
    contents.push_back(qvtest::readFile(m_env.configDirectory() + "/" + name));
  std::sort(contents.begin(), contents.end());
  EXPECT_EQ(contents, (std::vector<std::string>{"damaged 0", "damaged 1", "damaged 2"}));
}

TEST_F(QVUserDefaultsTest, ReadsAMissingFileAsEmptyWithoutALogLine) {
  LogCapture log;
  QVUserDefaults store(m_path);
  EXPECT_EQ(store.objectForKey("anything"), nullptr);
  EXPECT_TRUE(log.lines().empty());
  EXPECT_FALSE(fs::exists(m_env.configDirectory()));
}

TEST_F(QVUserDefaultsTest, FindsItsFolderFromXDGConfigHomeElseHome) {
  EXPECT_EQ(QVUserDefaults::configDirectory(), m_env.configDirectory());
  EXPECT_EQ(QVUserDefaults::standardUserDefaults().filePath(), m_path);

  ::unsetenv("XDG_CONFIG_HOME");
  EXPECT_EQ(QVUserDefaults::configDirectory(), m_env.home() + "/.config/stellwin");
  ::setenv("XDG_CONFIG_HOME", "", 1);
  EXPECT_EQ(QVUserDefaults::configDirectory(), m_env.home() + "/.config/stellwin");
  ::setenv("XDG_CONFIG_HOME", "relative/config", 1);
  EXPECT_EQ(QVUserDefaults::configDirectory(), m_env.home() + "/.config/stellwin");

  // The standard store keeps the folder it was made with until it is reset.
  EXPECT_EQ(QVUserDefaults::standardUserDefaults().filePath(), m_path);
  QVUserDefaults::resetStandardUserDefaults();
  EXPECT_EQ(QVUserDefaults::standardUserDefaults().filePath(), m_env.home() + "/.config/stellwin/preferences.json");
}

TEST_F(QVUserDefaultsTest, DropsTheStandardStoreWithoutWritingIt) {
  QVUserDefaults::standardUserDefaults().setObject("unsaved", "k");
  QVUserDefaults::resetStandardUserDefaults();
  EXPECT_FALSE(fs::exists(m_path));
  EXPECT_EQ(QVUserDefaults::standardUserDefaults().objectForKey("k"), nullptr);

  QVUserDefaults::standardUserDefaults().setObject("saved", "k");
  ASSERT_TRUE(QVUserDefaults::standardUserDefaults().synchronize());
  QVUserDefaults::resetStandardUserDefaults();
  EXPECT_EQ(*QVUserDefaults::standardUserDefaults().objectForKey("k"), QVValue("saved"));
}
