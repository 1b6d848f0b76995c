// restore and verify from a local destination, through stellwin-backup as a user runs it.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <csignal>
#include <filesystem>

#include "host/QVProgramRunner.h"
#include "support/QVVersionChecks.h"

namespace fs = std::filesystem;

class QVRestoreCommandTest : public qvtest::HostTest {
 protected:
  void SetUp() override {
    qvtest::makeTree(tree());
    fs::create_symlink("a.txt", tree() + "/link to a");
    fs::permissions(tree() + "/with space/b c.txt", fs::perms::owner_read | fs::perms::group_read);
    ASSERT_EQ(qvtest::runProgram({"group", "add", "Photos", tree()}).status, 0);
  }
  std::string tree() const { return m_env.home() + "/Tree"; }
  std::string onlyVersion() const {
    fs::directory_iterator versions(backups() + "/Photos");
    return versions->path().string();
  }
};

TEST_F(QVRestoreCommandTest, RestoresAndVerifiesKeepingModesTimesAndLinks) {
  ASSERT_EQ(qvtest::runProgram({"backup", "Photos"}).status, 0);
  const std::string version = onlyVersion();
  qvtest::TemporaryDirectory scratch;
  ASSERT_EQ(qvtest::runProgram({"restore", "Photos", "--to", scratch / "kept"}).status, 0);
  const std::string restored = scratch / "kept/Tree";
  EXPECT_EQ(fs::read_symlink(restored + "/link to a"), "a.txt");
  EXPECT_EQ(fs::status(restored + "/with space/b c.txt").permissions(), fs::perms::owner_read | fs::perms::group_read);
  EXPECT_EQ(fs::last_write_time(restored + "/deep/er/est/x 100%.bin"),
            fs::last_write_time(tree() + "/deep/er/est/x 100%.bin"));

  qvtest::expectRestoreAndVerify(tree(), version, scratch / "trip");

  qvtest::ProgramResult result = qvtest::runProgram({"restore", "Photos", "--version", "yesterday", "--to", scratch / "x"});
  EXPECT_EQ(result.status, 2) << result.err;
  result = qvtest::runProgram({"restore", "Photos", "--version", "20200101000000.backup", "--to", scratch / "x"});
  EXPECT_EQ(result.status, 1) << "a version that is not there";
}

TEST_F(QVRestoreCommandTest, CtrlCEndsARestoreAndKeepsWhatWasRestored) {
  makeFile("Tree/zz large.bin", "large", 1ull << 30);
  ASSERT_EQ(qvtest::runProgram({"backup", "Photos"}).status, 0);
  qvtest::TemporaryDirectory scratch;
  qvtest::RunningProgram restore({"restore", "Photos", "--to", scratch / "out"});
  const std::string large = scratch / "out/Tree/zz large.bin";
  auto restoring = [&] {
    std::error_code ec;
    return fs::file_size(large, ec) > (64u << 20) && !ec;
  };
  ASSERT_TRUE(restore.waitFor(restoring, std::chrono::seconds(60))) << restore.err;
  ::kill(restore.pid, SIGINT);
  const auto sent = std::chrono::steady_clock::now();
  EXPECT_EQ(restore.finish().status, 130);
  EXPECT_LT(std::chrono::steady_clock::now() - sent, std::chrono::seconds(1));
  EXPECT_TRUE(fs::exists(scratch / "out/Tree/a.txt")) << "what was restored stays";
  EXPECT_FALSE(fs::exists(large)) << "a file half restored is not left behind";
}
