// restore and verify from a local destination, through stellwin-backup as a user runs it.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <csignal>
#include <filesystem>

#include "host/QVProgramRunner.h"
#include "support/QVTestServer.h"
#include "support/QVVersionChecks.h"

namespace fs = std::filesystem;
using namespace qvtest;

class QVRestoreCommandTest : public HostTest {
 protected:
  void SetUp() override {
    makeTree(tree());
    fs::create_symlink("a.txt", tree() + "/link to a");
    fs::permissions(tree() + "/with space/b c.txt", fs::perms::owner_read | fs::perms::group_read);
    ASSERT_EQ(runProgram({"group", "add", "Photos", tree()}).status, 0);
  }
  std::string tree() const { return m_env.home() + "/Tree"; }
};

TEST_F(QVRestoreCommandTest, RestoresAndVerifiesKeepingModesTimesAndLinks) {
  ASSERT_EQ(runProgram({"backup", "Photos"}).status, 0);
  const std::string version = backups() + "/Photos/" + namesIn(backups() + "/Photos").at(0);
  TemporaryDirectory scratch;
  expectRestoreAndVerify(tree(), version, scratch / "trip");
  const std::string restored = scratch / "trip/all/Tree";  // the whole version, as the check restored it
  EXPECT_EQ(fs::read_symlink(restored + "/link to a"), "a.txt");
  EXPECT_EQ(fs::status(restored + "/with space/b c.txt").permissions(), fs::perms::owner_read | fs::perms::group_read);
  EXPECT_EQ(fs::last_write_time(restored + "/deep/er/est/x 100%.bin"),
            fs::last_write_time(tree() + "/deep/er/est/x 100%.bin"));

  ProgramResult result = runProgram({"restore", "Photos", "--version", "yesterday", "--to", scratch / "x"});
  EXPECT_EQ(result.status, 2) << result.err;
  result = runProgram({"restore", "Photos", "--version", "20200101000000.backup", "--to", scratch / "x"});
  EXPECT_EQ(result.status, 1) << "a version that is not there";
}

TEST_F(QVRestoreCommandTest, ListsAVersionAndRestoresAFileByItsOwnPath) {
  ASSERT_EQ(runProgram({"backup", "Photos"}).status, 0);
  ProgramResult result = runProgram({"files", "Photos"});
  EXPECT_EQ(result.status, 0) << result.err;
  EXPECT_NE(result.out.find("  Tree/\n"), std::string::npos) << result.out;
  const auto listing = nlohmann::json::parse(runProgram({"files", "Photos", tree(), "--json"}).out, nullptr, false);
  ASSERT_TRUE(listing.contains("entries")) << listing;
  EXPECT_EQ(listing["folder"], "Tree");
  ASSERT_EQ(listing["entries"].size(), 6u) << listing;
  const auto& a = listing["entries"][1];  // after "Grüße": names in byte order
  EXPECT_EQ(a, nlohmann::json({{"name", "a.txt"},
                               {"path", "Tree/a.txt"},
                               {"kind", "file"},
                               {"size", 200000},
                               {"modified", a["modified"]}}));
  EXPECT_TRUE(a["modified"].get<std::string>().starts_with("20")) << a;

  TemporaryDirectory scratch;
  result = runProgram({"restore", "Photos", "--to", scratch / "one", tree() + "/with space/b c.txt"});
  EXPECT_EQ(result.status, 0) << result.err;
  EXPECT_EQ(readFile(scratch / "one/Tree/with space/b c.txt"), readFile(tree() + "/with space/b c.txt"));
  result = runProgram({"restore", "Photos", "--to", scratch / "none", m_env.home() + "/elsewhere.txt"});
  EXPECT_EQ(result.status, 1);
  EXPECT_FALSE(fs::exists(scratch / "none")) << "no empty folder is left behind";
}

TEST_F(QVRestoreCommandTest, CtrlCEndsARestoreAndKeepsWhatWasRestored) {
  makeFile("Tree/zz large.bin", "large", 1ull << 30);
  ASSERT_EQ(runProgram({"backup", "Photos"}).status, 0);
  TemporaryDirectory scratch;
  RunningProgram restore({"restore", "Photos", "--to", scratch / "out", "--json"});
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
  std::uintmax_t kept = 0;
  for (const auto& entry : fs::recursive_directory_iterator(scratch / "out"))
    if (entry.is_regular_file() && !entry.is_symlink()) kept += entry.file_size();
  const nlohmann::json result = nlohmann::json::parse(restore.out, nullptr, false);
  EXPECT_EQ(result.value("bytesWritten", std::uintmax_t{0}), kept)
      << "only what was written and kept counts: " << restore.out;
}

// A WebDAV server that lists names leading out of the folder they stand in: they are refused, the
// rest is restored, and nothing is written outside the restore folder.
TEST_F(QVRestoreCommandTest, RefusesNamesThatLeadOutOfTheRestoreFolder) {
  PythonServer server(R"(import sys
from http.server import BaseHTTPRequestHandler, HTTPServer
def response(href, collection):
    kind = '<D:collection/>' if collection else ''
    return ('<D:response><D:href>%s</D:href><D:propstat><D:prop><D:resourcetype>%s</D:resourcetype>'
            '</D:prop></D:propstat></D:response>' % (href, kind))
class Handler(BaseHTTPRequestHandler):
    def reply(self, status, body):
        self.send_response(status)
        self.send_header('Content-Length', str(len(body)))
        self.end_headers()
        self.wfile.write(body)
    def do_PROPFIND(self):
        v = '/backups/Photos/20240101120000.backup/'
        body = '<D:multistatus xmlns:D="DAV:">' + response(v, True) + response(v + '..%2F..%2Fescaped.txt', False) + \
               response(v + '%2E%2E/', True) + response(v + 'ok.txt', False) + '</D:multistatus>'
        self.reply(207, body.encode())
    def do_GET(self):
        self.reply(200, b'data')
    def log_message(self, *args):
        pass
HTTPServer(('127.0.0.1', int(sys.argv[1])), Handler).serve_forever()
)");
  ASSERT_EQ(runProgram({"target", "add", "--type", "dav", "--title", "Odd", "--server", "127.0.0.1", "--port",
                        std::to_string(server.port()), "--path", "backups"})
                .status,
            0);
  ASSERT_EQ(runProgram({"group", "set", "Photos", "--target", "Odd"}).status, 0);
  TemporaryDirectory scratch;
  const std::string into = scratch / "a/b/out";
  ProgramResult result = runProgram({"restore", "Photos", "--version", "20240101120000.backup", "--to", into});
  EXPECT_EQ(result.status, 1);
  EXPECT_EQ(readFile(into + "/ok.txt"), "data");
  EXPECT_FALSE(fs::exists(scratch / "a/escaped.txt") || fs::exists(scratch / "escaped.txt"));
  EXPECT_NE(result.err.find("../../escaped.txt: a name the destination gave that is not a plain file name"),
            std::string::npos)
      << result.err;
  result = runProgram({"restore", "Photos", "--version", "20240101120000.backup", "--to", scratch / "x", "../etc"});
  EXPECT_EQ(result.status, 1);
  EXPECT_NE(result.err.find("../etc: not in the version"), std::string::npos) << "nor a path given: " << result.err;
}
