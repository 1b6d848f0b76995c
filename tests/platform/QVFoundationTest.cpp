#include "platform/QVFoundation.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <regex>
#include <set>

#include "platform/QVStatusTexts.h"
#include "support/QVTestSupport.h"

namespace fs = std::filesystem;

namespace {

TEST(QVPathTest, TakesTheLastComponentIgnoringTrailingSlashes) {
  EXPECT_EQ(qv::lastPathComponent("/a/b.txt"), "b.txt");
  EXPECT_EQ(qv::lastPathComponent("/a/b/"), "b");
  EXPECT_EQ(qv::lastPathComponent("/a/b//"), "b");
  EXPECT_EQ(qv::lastPathComponent("/"), "/");
  EXPECT_EQ(qv::lastPathComponent("name with spaces"), "name with spaces");
  EXPECT_EQ(qv::lastPathComponent(""), "");
}

TEST(QVPathTest, DeletesTheLastComponentDownToTheRoot) {
  EXPECT_EQ(qv::stringByDeletingLastPathComponent("/a/b.txt"), "/a");
  EXPECT_EQ(qv::stringByDeletingLastPathComponent("/a/b/"), "/a");
  EXPECT_EQ(qv::stringByDeletingLastPathComponent("/a"), "/");
  EXPECT_EQ(qv::stringByDeletingLastPathComponent("/"), "/");
  EXPECT_EQ(qv::stringByDeletingLastPathComponent("a"), "");
  EXPECT_EQ(qv::stringByDeletingLastPathComponent("a//b"), "a");
}

TEST(QVPathTest, AppendsAComponentWithExactlyOneSlash) {
  EXPECT_EQ(qv::stringByAppendingPathComponent("/a", "b"), "/a/b");
  EXPECT_EQ(qv::stringByAppendingPathComponent("/a/", "/b"), "/a/b");
  EXPECT_EQ(qv::stringByAppendingPathComponent("/", "b"), "/b");
  EXPECT_EQ(qv::stringByAppendingPathComponent("", "b"), "b");
  EXPECT_EQ(qv::stringByAppendingPathComponent("/a", ""), "/a");
  // A title holding a slash makes a nested folder: it is kept as it is.
  EXPECT_EQ(qv::stringByAppendingPathComponent("/d", "2024/Fotos"), "/d/2024/Fotos");
}

TEST(QVPathTest, TreatsOnlyTheLastDotOfTheLastComponentAsTheExtension) {
  EXPECT_EQ(qv::pathExtension("a.tar.gz"), "gz");
  EXPECT_EQ(qv::pathExtension(".profile"), "");
  EXPECT_EQ(qv::pathExtension("/x.d/file"), "");
  EXPECT_EQ(qv::pathExtension("20240105143007.backup/"), "backup");
  EXPECT_EQ(qv::stringByDeletingPathExtension("a.tar.gz"), "a.tar");
  EXPECT_EQ(qv::stringByDeletingPathExtension(".profile"), ".profile");
  EXPECT_EQ(qv::stringByDeletingPathExtension("/x.d/file"), "/x.d/file");
  EXPECT_EQ(qv::stringByAppendingPathExtension("20240105143007", "backup"), "20240105143007.backup");
  EXPECT_EQ(qv::stringByAppendingPathExtension("a/", "txt"), "a.txt");
}

TEST(QVPathTest, JoinsURLsWithoutTouchingTheSchemeOrTheServerRoot) {
  EXPECT_EQ(qv::urlStringByAppendingPathComponent("http://h:80", "a"), "http://h:80/a");
  EXPECT_EQ(qv::urlStringByAppendingPathComponent("http://h/x/", "/y"), "http://h/x/y");
  EXPECT_EQ(qv::urlStringByAppendingPathComponent("http://h/x", "y/"), "http://h/x/y/");
  EXPECT_EQ(qv::urlStringByAppendingPathComponent("ftp://h/", "Group%20A"), "ftp://h/Group%20A");
  // "//" after the host names the server's root; it must survive the join.
  EXPECT_EQ(qv::urlStringByAppendingPathComponent("ftp://h//backup/", "G"), "ftp://h//backup/G");
  EXPECT_EQ(qv::urlStringByAppendingPathComponent("ftp://h//", "G"), "ftp://h//G");
  EXPECT_EQ(qv::urlStringByAppendingPathComponent("http://h/x", ""), "http://h/x");
}

class QVFileSystemTest : public ::testing::Test {
 protected:
  qvtest::TemporaryDirectory m_dir;
};

TEST_F(QVFileSystemTest, SumsRegularFilesOfATreeWithoutFollowingLinks) {
  qvtest::writeFile(m_dir / "tree/a.txt", std::string(100, 'a'));
  qvtest::writeFile(m_dir / "tree/sub/deeper/b.bin", std::string(5000, 'b'));
  qvtest::writeFile(m_dir / "tree/sub/empty.txt", "");
  fs::create_directories(m_dir / "tree/empty folder");
  {
    std::ofstream big(m_dir / "big.bin", std::ios::binary);
    big.seekp(50 * 1024 * 1024 - 1);
    big.put('x');
  }
  fs::create_symlink(m_dir / "big.bin", m_dir / "tree/link to big");
  fs::create_directory_symlink(m_dir.path(), m_dir / "tree/sub/loop");

  EXPECT_EQ(qv::sizeOfItemAtPath(m_dir / "tree"), 5100u);
  EXPECT_EQ(qv::sizeOfItemAtPath(m_dir / "tree/sub/deeper/b.bin"), 5000u);
  EXPECT_EQ(qv::sizeOfItemAtPath(m_dir / "tree/empty folder"), 0u);
  EXPECT_EQ(qv::sizeOfItemAtPath(m_dir / "nothing here"), 0u);
  EXPECT_EQ(qv::sizeOfItemAtPath(""), 0u);
}

TEST_F(QVFileSystemTest, FollowsAFinalLinkWhenAskedWhetherAFileExists) {
  qvtest::writeFile(m_dir / "file", "x");
  fs::create_directories(m_dir / "folder");
  fs::create_directory_symlink(m_dir / "folder", m_dir / "folder link");
  fs::create_symlink(m_dir / "gone", m_dir / "dangling");

  bool isDirectory = true;
  EXPECT_TRUE(qv::fileExistsAtPath(m_dir / "file", &isDirectory));
  EXPECT_FALSE(isDirectory);
  EXPECT_TRUE(qv::fileExistsAtPath(m_dir / "folder link", &isDirectory));
  EXPECT_TRUE(isDirectory);
  EXPECT_FALSE(qv::fileExistsAtPath(m_dir / "dangling", &isDirectory));
  EXPECT_FALSE(qv::fileExistsAtPath(""));
}

TEST_F(QVFileSystemTest, ReportsAFileWithoutReadPermissionAsUnreadable) {
  qvtest::writeFile(m_dir / "secret", "x");
  EXPECT_TRUE(qv::isReadableFileAtPath(m_dir / "secret"));
  EXPECT_FALSE(qv::isReadableFileAtPath(m_dir / "missing"));
  if (geteuid() == 0) GTEST_SKIP() << "root reads every file";
  chmod((m_dir / "secret").c_str(), 0200);
  EXPECT_FALSE(qv::isReadableFileAtPath(m_dir / "secret"));
}

TEST(QVDocumentsDirectoryTest, PrefersTheXDGDocumentsFolderElseHomeDocuments) {
  qvtest::IsolatedEnvironment environment;
  EXPECT_EQ(qv::documentsDirectory(), environment.home() + "/Documents");
  setenv("XDG_DOCUMENTS_DIR", "~/Dokumente", 1);
  EXPECT_EQ(qv::documentsDirectory(), environment.home() + "/Dokumente");
  // No variable and no user-dirs.dirs in the isolated config folder.
  unsetenv("XDG_DOCUMENTS_DIR");
  EXPECT_EQ(qv::documentsDirectory(), environment.home() + "/Documents");
}

TEST(QVUUIDTest, MakesUniqueUpperCaseUUIDs) {
  const std::regex form("[0-9A-F]{8}-[0-9A-F]{4}-4[0-9A-F]{3}-[89AB][0-9A-F]{3}-[0-9A-F]{12}");
  std::set<std::string> seen;
  for (int i = 0; i < 1000; ++i) {
    std::string uuid = qv::stringWithUUID();
    ASSERT_TRUE(std::regex_match(uuid, form)) << uuid;
    seen.insert(uuid);
  }
  EXPECT_EQ(seen.size(), 1000u);
}

TEST(QVDateTextTest, ShowsTheLocalDateAndTimeWithoutSeconds) {
  setenv("TZ", "UTC", 1);
  tzset();
  auto date = qv::dateFromISO8601("2024-01-05T14:30:07.000Z");
  ASSERT_TRUE(date.has_value());
  std::string text = qv::stringFromDate(*date);
  EXPECT_NE(text.find("14:30"), std::string::npos) << text;
  EXPECT_EQ(text.find(":07"), std::string::npos) << text;
  EXPECT_NE(text.find("24"), std::string::npos) << text;
}

TEST(QVStatusTextsTest, MapsFileSystemErrorsAndDescribesKnownNumbersOnly) {
  EXPECT_EQ(qv::statusCodeForErrno(ENOSPC), -1429);
  EXPECT_EQ(qv::statusCodeForErrno(EDQUOT), -1429);
  EXPECT_EQ(qv::statusCodeForErrno(EACCES), -54);
  EXPECT_EQ(qv::statusCodeForErrno(EPERM), -54);
  EXPECT_EQ(qv::statusCodeForErrno(ENOENT), -43);
  EXPECT_EQ(qv::statusCodeForErrno(EIO), EIO);

  for (int status : {-27, -36, -43, -54, -120, -128, -1429}) EXPECT_NE(qv::statusCommentString(status), "") << status;
  EXPECT_NE(qv::statusCommentString(EIO), "");
  EXPECT_EQ(qv::statusCommentString(0), "");
  EXPECT_EQ(qv::statusCommentString(-1), "");
  EXPECT_EQ(qv::statusCommentString(9999), "");
}

}  // namespace
