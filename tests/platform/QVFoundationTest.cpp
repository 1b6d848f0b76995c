#include "platform/QVFoundation.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>

#include "support/QVTestSupport.h"

namespace fs = std::filesystem;
using namespace qv;

TEST(QVFileSystemTest, SumsRegularFilesOfATreeWithoutFollowingLinks) {
  qvtest::TemporaryDirectory dir;
  qvtest::writeFile(dir / "tree/a.txt", std::string(100, 'a'));
  qvtest::writeFile(dir / "tree/sub/deeper/b.bin", std::string(5000, 'b'));
  fs::create_directories(dir / "tree/empty folder");
  std::ofstream(dir / "big.bin").seekp(50 * 1024 * 1024) << 'x';
  fs::create_symlink(dir / "big.bin", dir / "tree/link to big");
  fs::create_directory_symlink(dir.path(), dir / "tree/sub/loop");
  EXPECT_EQ(sizeOfItemAtPath(dir / "tree"), 5100u);
  EXPECT_EQ(sizeOfItemAtPath(dir / "tree/sub/deeper/b.bin"), 5000u);
  EXPECT_EQ(sizeOfItemAtPath(dir / "tree/empty folder") + sizeOfItemAtPath(dir / "nothing here"), 0u);
  // Asked whether a file exists, a final link is followed.
  bool isDirectory = false;
  EXPECT_TRUE(fileExistsAtPath(dir / "tree/sub/loop", &isDirectory) && isDirectory);
  fs::create_symlink(dir / "gone", dir / "dangling");
  EXPECT_FALSE(fileExistsAtPath(dir / "dangling"));
}
