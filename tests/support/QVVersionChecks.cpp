#include "support/QVVersionChecks.h"

#include <gtest/gtest.h>

#include <algorithm>
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

std::string makeTree(const std::string& root) {
  writeFile(root + "/a.txt", randomBytes(200000, 1));
  writeFile(root + "/with space/b c.txt", randomBytes(1000, 2));
  writeFile(root + "/Grüße/日本 #1?.txt", randomBytes(3000, 3));
  writeFile(root + "/empty.bin", "");
  writeFile(root + "/deep/er/est/x 100%.bin", randomBytes(70000, 4));
  const auto past = fs::file_time_type::clock::now() - std::chrono::hours(24 * 365 * 5);
  for (const auto& entry : fs::recursive_directory_iterator(root))
    if (entry.is_regular_file()) fs::last_write_time(entry.path(), past);
  return root;
}

std::string treeListing(const std::string& folder) {
  // Short contents as they are, long ones as their size and a hash: a failure message stays readable.
  auto summary = [](const std::string& contents) {
    if (contents.size() <= 40) return contents;
    std::uint64_t hash = 1469598103934665603ull;
    for (unsigned char c : contents) hash = (hash ^ c) * 1099511628211ull;
    return std::to_string(contents.size()) + " bytes, hash " + std::to_string(hash);
  };
  std::vector<std::string> lines;
  std::error_code ec;
  for (fs::recursive_directory_iterator it(folder, ec), end; !ec && it != end; it.increment(ec)) {
    const std::string relative = it->path().lexically_relative(folder).string();
    lines.push_back(it->is_directory() ? relative + "/" : relative + " = " + summary(readFile(it->path().string())));
  }
  std::sort(lines.begin(), lines.end());
  std::string text;
  for (const auto& line : lines) text += line + "\n";
  return text;
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
  EXPECT_EQ(treeListing(scratch + "/all/Tree"), treeListing(before));
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
  for (const char* damaged :
       {"Tree/deep/er/est/x 100%.bin: differs", "Tree/with space/b c.txt: differs", "Tree/Grüße/日本 #1?.txt: missing"})
    EXPECT_NE(result.err.find(damaged), std::string::npos) << damaged << "\n" << result.err;
}

}  // namespace qvtest
