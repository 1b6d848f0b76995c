#include "targets/QVFTPBackupTarget.h"

#include <gtest/gtest.h>

using Entry = QVFTPListingEntry;

namespace {

TEST(QVFTPBackupTargetTest, ReadsDirectoriesAndFilesFromLongListings) {
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
      {"total 24", {}},
      {"drwxr-xr-x 2 a b 4096 Nov 21 07:00 .", {}},
      {"drwxr-xr-x 2 a b 4096 Nov 21 07:00 ..", {}},
      {"-rw-r--r-- 1 a b 1 Nov 21 07:00", {}},
      {"drwxr-xr-x 2 a b 4096 Nov 21 07:00 ", {}},
      {"crw-rw-rw- 1 0 0 1, 3 Nov 21 07:00 null", {}},
      {"d", {}},
      {"", {}}};
  std::vector<std::string> all;
  std::vector<Entry> expectedAll;
  for (const auto& [line, expected] : cases) {
    EXPECT_EQ(QVFTPBackupTarget::parseDirectoryListing({line}), expected) << line;
    all.push_back(line);
    expectedAll.insert(expectedAll.end(), expected.begin(), expected.end());
  }
  EXPECT_EQ(QVFTPBackupTarget::parseDirectoryListing(all), expectedAll) << "in listing order";
}

}  // namespace
