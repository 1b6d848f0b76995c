#include "targets/QVFTPBackupTarget.h"

#include <gtest/gtest.h>

#include "support/QVAgentTestSupport.h"
#include "targets/QVFTPSBackupTarget.h"

using Entry = QVFTPListingEntry;

namespace {

QVTarget ftpOptions(const std::string& path, const std::string& type = "ftp") {
  QVTarget options = qvtest::targetRecord("F7E0B6C2-0000-4000-8000-000000000002", "NAS", type, path);
  options.server = "nas.local";
  options.port = 2121;
  return options;
}

struct RecordingProgress : QVTargetProgressDelegate {
  std::vector<double> fractions;
  void backupProgress(double fraction) override { fractions.push_back(fraction); }
  void backupCalculatedFiles(std::uint64_t, std::uint64_t) override {}
};

// Reaches the progress fields that an upload sets, to drive the throttle without a server.
struct ProgressProbe : QVFTPBackupTarget {
  using QVFTPBackupTarget::QVFTPBackupTarget;
  void at(std::uint64_t total, double lastReport) { m_totalSize = total, m_lastProgressDate = lastReport; }
};

class QVFTPBackupTargetTest : public ::testing::Test {
 protected:
  qvtest::IsolatedEnvironment m_env;
  qvtest::LogCapture m_log;
};

TEST_F(QVFTPBackupTargetTest, ReadsDirectoriesAndFilesFromLongListings) {
  const std::vector<std::pair<std::string, std::vector<Entry>>> cases = {
      // As vsftpd sends them.
      {"drwxr-xr-x    2 0        0            4096 Nov 23 00:59 My Folder", {{"My Folder", true}}},
      {"-rw-r--r--    1 65534    65534    100000000 Nov 21 07:00 big.bin", {{"big.bin", false}}},
      {"-rw-r--r--    1 0        0               0 Jan 15  2024 a b.txt", {{"a b.txt", false}}},
      {"lrwxrwxrwx    1 0        0               7 Nov 23 00:59 link -> old.txt", {}},
      // As pyftpdlib sends them.
      {"-rw-r--r--   1 root     root            7 Nov 23 01:04 Grüße.txt", {{"Grüße.txt", false}}},
      {"drwxr-xr-x   2 nobody   nogroup      4096 Nov 21 07:00 20240105143007.backup",
       {{"20240105143007.backup", true}}},
      {"lrwxrwxrwx   1 root     root            7 Nov 23 01:04 link -> old.txt", {}},
      // A further space before the name, and a carriage return, belong to the name.
      {"-rw-r--r-- 1 a b 1 Nov 21 07:00  lead", {{" lead", false}}},
      {"-rw-r--r-- 1 a b 1 Nov 21 07:00 crlf\r", {{"crlf\r", false}}},
      {"total 24", {}}, {"drwxr-xr-x 2 a b 4096 Nov 21 07:00 .", {}}, {"drwxr-xr-x 2 a b 4096 Nov 21 07:00 ..", {}},
      {"-rw-r--r-- 1 a b 1 Nov 21 07:00", {}}, {"drwxr-xr-x 2 a b 4096 Nov 21 07:00 ", {}},
      {"crw-rw-rw- 1 0 0 1, 3 Nov 21 07:00 null", {}}, {"d", {}}, {"", {}}};
  std::vector<std::string> all;
  std::vector<Entry> expectedAll;
  for (const auto& [line, expected] : cases) {
    EXPECT_EQ(QVFTPBackupTarget::parseDirectoryListing({line}), expected) << line;
    all.push_back(line);
    expectedAll.insert(expectedAll.end(), expected.begin(), expected.end());
  }
  EXPECT_EQ(QVFTPBackupTarget::parseDirectoryListing(all), expectedAll) << "in listing order";
}

TEST_F(QVFTPBackupTargetTest, BuildsServerURLsAndGroupFolderNames) {
  // Base path, path(), curlUrlPrefix().
  const std::vector<std::tuple<std::string, std::string, std::string>> cases = {
      {"backup", "backup/", "ftp://nas.local/backup/"},
      {"/backup/", "/backup/", "ftp://nas.local//backup/"},  // from the server's root
      {"", "/", "ftp://nas.local//"},
      {"a b/Grüße", "a b/Grüße/", "ftp://nas.local/a b/Grüße/"}};  // escaped only where a request is made
  for (const auto& [base, path, prefix] : cases) {
    QVFTPBackupTarget target(ftpOptions(base));
    EXPECT_EQ(target.path(), path);
    EXPECT_EQ(target.curlUrlPrefix(), prefix);
    EXPECT_EQ(target.curlUrlPrefixWithoutPath(), "ftp://nas.local/") << "no port, user or password";
  }
  QVFTPSBackupTarget secure(ftpOptions("backup", "ftps"));
  EXPECT_EQ(secure.curlUrlPrefix(), "ftps://nas.local/backup/");

  QVGroup group = QVGroup::fromDictionary({{"id", "0C5D4E1A-0000-4000-8000-000000000003"}, {"title", "Photos 2024"}});
  QVFTPBackupTarget target(ftpOptions("backup"));
  EXPECT_EQ(target.nameForGroup(group), "Photos 2024");
  group.title = "Fotos Grüße";
  EXPECT_EQ(target.nameForGroup(group), group.identifier);
  group.title = "日本";
  EXPECT_EQ(target.nameForGroup(group), group.identifier);
  EXPECT_TRUE(target.isAvailable());
  EXPECT_EQ(target.curlCodeError(), 0);
}

TEST_F(QVFTPBackupTargetTest, GivesLibcurlsTextForACodeAndNamesTheServerOnATimeout) {
  QVFTPSBackupTarget target(ftpOptions("backup", "ftps"));
  const std::vector<std::pair<int, std::string>> cases = {
      {28, "Could not connect to server ftps://nas.local/"}, {7, "Couldn't connect to server"},
      {67, "Login denied"}, {60, "SSL peer certificate or SSH remote key was not OK"}, {0, "No error"}};
  for (const auto& [code, text] : cases) EXPECT_EQ(target.errorStringForCode(code), text) << code;
}

TEST_F(QVFTPBackupTargetTest, ReportsProgressAtMostEveryTwoSeconds) {
  ProgressProbe target(ftpOptions("backup"));
  RecordingProgress progress;
  target.setDelegate(&progress);
  const double longAgo = 0.0, future = 1e300;
  target.at(200, future);
  target.setProgressSize(50);
  EXPECT_EQ(target.progressSize(), 50u);
  EXPECT_TRUE(progress.fractions.empty()) << "too soon after the last report";
  target.at(200, longAgo);
  target.setProgressSize(100);
  target.setProgressSize(150);  // right after a report: held back
  EXPECT_EQ(progress.fractions, std::vector<double>{0.5});
  target.at(0, longAgo);
  target.setProgressSize(0);
  EXPECT_EQ(progress.fractions, (std::vector<double>{0.5, 0.0})) << "an item of no bytes reports 0.0";
}

}  // namespace
