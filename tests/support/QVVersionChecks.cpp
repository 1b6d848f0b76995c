#include "support/QVVersionChecks.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <random>

#include "host/QVProgramRunner.h"
#include "support/QVTestSupport.h"

namespace fs = std::filesystem;

namespace qvtest {

namespace {

std::string randomBytes(std::size_t size, unsigned seed) {
  std::mt19937 random(seed);
  std::string bytes(size, '\0');
  for (char& c : bytes) c = static_cast<char>(random());
  return bytes;
}

}  // namespace

void makeTree(const std::string& root) {
  writeFile(root + "/a.txt", randomBytes(200000, 1));
  writeFile(root + "/with space/b c.txt", randomBytes(1000, 2));
  writeFile(root + "/Grüße/日本 #1?.txt", randomBytes(3000, 3));
  writeFile(root + "/empty.bin", "");
  writeFile(root + "/deep/er/est/x 100%.bin", randomBytes(70000, 4));
  const auto past = fs::file_time_type::clock::now() - std::chrono::hours(24 * 365 * 5);
  for (const auto& entry : fs::recursive_directory_iterator(root))
    if (entry.is_regular_file()) fs::last_write_time(entry.path(), past);
}

bool sameTree(const std::string& a, const std::string& b, std::string* why) {
  std::error_code ec;
  for (const auto& entry : fs::recursive_directory_iterator(a)) {
    const fs::path relative = entry.path().lexically_relative(a);
    const fs::path other = fs::path(b) / relative;
    if (!fs::exists(other, ec) || entry.is_directory() != fs::is_directory(other, ec))
      return *why = "missing or of another kind: " + relative.string(), false;
    if (entry.is_regular_file() && readFile(entry.path()) != readFile(other))
      return *why = "different: " + relative.string(), false;
  }
  for (const auto& entry : fs::recursive_directory_iterator(b))
    if (!fs::exists(fs::path(a) / entry.path().lexically_relative(b), ec))
      return *why = "extra: " + entry.path().lexically_relative(b).string(), false;
  return true;
}

void expectRestoreAndVerify(const std::string& tree, const std::string& versionFolder, const std::string& scratch,
                            const std::string& group) {
  fs::create_directories(scratch);
  const std::string before = scratch + "/before";
  fs::copy(tree, before, fs::copy_options::recursive);
  writeFile(tree + "/a.txt", "changed since");
  writeFile(tree + "/new.txt", "added since");

  ProgramResult result = runProgram({"verify", group});
  EXPECT_EQ(result.status, 0) << result.out << result.err;
  EXPECT_NE(result.out.find("changed: Tree/a.txt"), std::string::npos) << result.out;
  EXPECT_NE(result.out.find("added: Tree/new.txt"), std::string::npos) << result.out;

  result = runProgram({"restore", group, "--to", scratch + "/all"});
  EXPECT_EQ(result.status, 0) << result.err;
  std::string why;
  EXPECT_TRUE(sameTree(before, scratch + "/all/Tree", &why)) << why;
  result = runProgram({"restore", group, "--to", scratch + "/one", "Tree/Grüße/日本 #1?.txt"});
  EXPECT_EQ(result.status, 0) << result.err;
  EXPECT_EQ(readFile(scratch + "/one/Tree/Grüße/日本 #1?.txt"), readFile(before + "/Grüße/日本 #1?.txt"));
  EXPECT_EQ(std::distance(fs::recursive_directory_iterator(scratch + "/one"), {}), 3) << "that file alone";
  const std::string kept = readFile(scratch + "/one/Tree/Grüße/日本 #1?.txt");
  result = runProgram({"restore", group, "--to", scratch + "/one"});
  EXPECT_EQ(result.status, 2) << "a folder that is not empty is refused";
  EXPECT_EQ(readFile(scratch + "/one/Tree/Grüße/日本 #1?.txt"), kept);

  // One byte changed, one file cut short, one removed, at the destination.
  {
    std::fstream file(versionFolder + "/Tree/deep/er/est/x 100%.bin", std::ios::in | std::ios::out | std::ios::binary);
    file.seekp(1234);
    file.put('\x5A' ^ readFile(before + "/deep/er/est/x 100%.bin")[1234]);
  }
  fs::resize_file(versionFolder + "/Tree/with space/b c.txt", 10);
  fs::remove(versionFolder + "/Tree/Grüße/日本 #1?.txt");
  result = runProgram({"verify", group});
  EXPECT_EQ(result.status, 1);
  for (const char* damaged : {"Tree/deep/er/est/x 100%.bin: differs", "Tree/with space/b c.txt: differs",
                              "Tree/Grüße/日本 #1?.txt: missing"})
    EXPECT_NE(result.err.find(damaged), std::string::npos) << damaged << "\n" << result.err;
}

}  // namespace qvtest
