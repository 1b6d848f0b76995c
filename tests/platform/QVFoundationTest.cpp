#include "platform/QVFoundation.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <filesystem>
#include <fstream>

#include "platform/QVStatusTexts.h"
#include "support/QVTestSupport.h"

namespace fs = std::filesystem;
using namespace qv;

TEST(QVPathTest, SplitsAndJoinsPathsAndURLs) {
  const std::vector<std::pair<std::string, std::string>> cases = {
      {lastPathComponent("/a/b//"), "b"}, {lastPathComponent("/"), "/"}, {lastPathComponent(""), ""},
      {stringByDeletingLastPathComponent("/a/b/"), "/a"}, {stringByDeletingLastPathComponent("/a"), "/"},
      {stringByDeletingLastPathComponent("/"), "/"}, {stringByDeletingLastPathComponent("a//b"), "a"},
      {stringByAppendingPathComponent("/a/", "/b"), "/a/b"}, {stringByAppendingPathComponent("/", "b"), "/b"},
      {stringByAppendingPathComponent("", "b"), "b"}, {stringByAppendingPathComponent("/a", ""), "/a"},
      {stringByAppendingPathComponent("/d", "2024/Fotos"), "/d/2024/Fotos"},  // a title with a slash nests
      {pathExtension("a.tar.gz"), "gz"}, {pathExtension(".profile"), ""}, {pathExtension("/x.d/file"), ""},
      {pathExtension("1.backup/"), "backup"}, {stringByDeletingPathExtension(".profile"), ".profile"},
      {stringByDeletingPathExtension("/x.d/file"), "/x.d/file"}, {stringByAppendingPathExtension("a/", "txt"), "a.txt"},
      // The scheme, and "//" after the host (the server's root), survive a join.
      {urlStringByAppendingPathComponent("http://h:80", "a"), "http://h:80/a"},
      {urlStringByAppendingPathComponent("http://h/x/", "/y"), "http://h/x/y"},
      {urlStringByAppendingPathComponent("http://h/x", "y/"), "http://h/x/y/"},
      {urlStringByAppendingPathComponent("ftp://h//backup/", "G"), "ftp://h//backup/G"},
      {urlStringByAppendingPathComponent("ftp://h//", "G"), "ftp://h//G"},
      {urlStringByAppendingPathComponent("http://h/x", ""), "http://h/x"},
  };
  for (std::size_t i = 0; i < cases.size(); ++i) EXPECT_EQ(cases[i].first, cases[i].second) << "case " << i;
}

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

TEST(QVStatusTextsTest, MapsFileSystemErrorsToStatusesThatHaveATextAndNoOthers) {
  for (auto [error, status] : std::vector<std::pair<int, int>>{
           {ENOSPC, -1429}, {EDQUOT, -1429}, {EACCES, -54}, {EPERM, -54}, {ENOENT, -43}, {EIO, EIO}}) {
    EXPECT_EQ(statusCodeForErrno(error), status) << error;
    EXPECT_NE(statusCommentString(status), "") << status;
  }
  EXPECT_EQ(statusCommentString(0) + statusCommentString(-1) + statusCommentString(9999), "");
}
