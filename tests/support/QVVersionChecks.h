// Checks shared by the tests of every destination kind: a tree worth backing up, a comparison of two
// trees, and the round trip of restore and verify through stellwin-backup. Main thread of a test.
#pragma once

#include <string>

namespace qvtest {

// Makes at root a tree of nested folders, names with spaces, non-ASCII and URL-special characters and an
// empty file, every file dated five years back (older than any version made now). No empty folder: an FTP
// destination keeps none.
std::string makeTree(const std::string& root);  // returns root

// The whole tree below a folder, one sorted line per entry: "relative path = contents" (long ones as
// their size and a hash), "folder/". Two trees are the same when their listings are.
std::string treeListing(const std::string& folder);

// Given a group, whose only item is the tree made by makeTree at tree (a folder named "Tree"), backed up
// once into the version whose folder the destination keeps at versionFolder: changes the source, restores
// and verifies through the program, then damages three files at the destination and verifies again.
// scratch is a folder of the test's own that does not exist yet or is empty.
void expectRestoreAndVerify(const std::string& tree, const std::string& versionFolder, const std::string& scratch,
                            const std::string& group = "Photos");

}  // namespace qvtest
