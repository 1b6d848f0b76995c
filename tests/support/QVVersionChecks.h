// Checks shared by the tests of every destination kind: a tree worth backing up, a comparison of two
// trees, and the round trip of restore and verify through stellwin-backup. Main thread of a test.
#pragma once

#include <string>

namespace qvtest {

// Makes at root a tree of nested folders, names with spaces, non-ASCII and URL-special characters, an
// empty file and an empty folder, every file dated 2020 (older than any version made now).
void makeTree(const std::string& root);

// Whether two trees hold the same folders and files, byte for byte; the first difference in *why.
bool sameTree(const std::string& a, const std::string& b, std::string* why);

// Given group "Photos", whose only item is the tree made by makeTree at tree, backed up once into the
// version whose folder the destination keeps at versionFolder: changes the source, restores and verifies
// through the program, then damages three files at the destination and verifies again. scratch is an
// empty folder of the test's own.
void expectRestoreAndVerify(const std::string& tree, const std::string& versionFolder, const std::string& scratch);

}  // namespace qvtest
