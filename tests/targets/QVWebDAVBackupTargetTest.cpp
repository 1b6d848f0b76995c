#include "targets/QVWebDAVBackupTarget.h"

#include <gtest/gtest.h>

#include "support/QVAgentTestSupport.h"
#include "support/QVTestServer.h"

namespace {

// Answers as the file "propfind" in its folder says (207 with its content; 500 when there is none), 201
// to MKCOL, 500 to PUT (so every item fails), 204 to DELETE; every request is written to "requests".
const char* kScript = R"(import http.server, os, sys
class H(http.server.BaseHTTPRequestHandler):
    protocol_version = 'HTTP/1.1'
    def answer(self, code, body=b''):
        if self.headers.get('Content-Length'): self.rfile.read(int(self.headers['Content-Length']))
        with open('requests', 'a') as f: f.write(self.command + ' ' + self.path + '\n')
        self.send_response(code); self.send_header('Content-Length', str(len(body))); self.end_headers()
        self.wfile.write(body)
    def do_PROPFIND(self):
        if os.path.exists('propfind'): self.answer(207, open('propfind', 'rb').read())
        else: self.answer(500)
    def do_MKCOL(self): self.answer(201)
    def do_PUT(self): self.answer(500)
    def do_DELETE(self): self.answer(204)
    def log_message(self, *a): pass
http.server.ThreadingHTTPServer(('127.0.0.1', int(sys.argv[1])), H).serve_forever()
)";

}  // namespace

class QVWebDAVBackupTargetTest : public ::testing::Test {
 protected:
  qvtest::IsolatedEnvironment m_env;
  qvtest::LogCapture m_log;
};

// As a failed run drives it: the item fails, the group is listed, the failed version and then the group's
// folder are removed, the folder only when a listing that worked showed nothing else.
TEST_F(QVWebDAVBackupTargetTest, RemovesTheGroupsFolderOnlyWhenAListingShowedNothingElse) {
  const std::string version = "20240101120000.backup";
  const std::string open = "<d:multistatus xmlns:d=\"DAV:\">", close = "</d:multistatus>";
  const std::string self = "<d:response><d:href>/dav/G/</d:href></d:response>";
  const std::string only = "<d:response><d:href>/dav/G/" + version +
                           "/</d:href><d:propstat><d:prop><d:resourcetype>"
                           "<d:collection/></d:resourcetype></d:prop></d:propstat></d:response>";
  const std::string other = "<d:response><d:href>/dav/G/notes.txt</d:href></d:response>";
  const std::vector<std::tuple<std::optional<std::string>, bool, std::string>> cases = {
      {std::nullopt, false, "no listing of it worked"},  // 500 to PROPFIND
      {"<html>busy</html>", false, "no listing of it worked"},
      {open + self + only + other + close, false, ""},
      {open + self + only + close, true, ""},
  };
  qvtest::writeFile(m_env.home() + "/a.txt", "a");
  for (const auto& [listing, removed, note] : cases) {
    qvtest::PythonServer server(kScript);
    if (listing) qvtest::writeFile(server.directory() + "/propfind", *listing);
    QVTarget options = qvtest::targetRecord("W1", "Cloud", "webdav", "");
    options.otherKeys[kQVWebDAVURLKey] = "http://127.0.0.1:" + std::to_string(server.port()) + "/dav";
    QVWebDAVBackupTarget target(options);
    QVGroup group;
    group.title = "G";
    QVError error;
    EXPECT_FALSE(target.backupItem(m_env.home() + "/a.txt", group, "a.txt", version, &error));
    EXPECT_EQ(error.code, -27);
    auto entries = target.entriesInDirectoryForItem(group);
    EXPECT_EQ(entries.has_value(), listing && listing->find("<html>") == std::string::npos);
    if (entries && std::find(entries->begin(), entries->end(), version) != entries->end())
      target.removeEntry(version, group);
    target.removeRootEntryForGroup(group);
    const std::string requests = qvtest::readFile(server.directory() + "/requests");
    EXPECT_EQ(requests.find("DELETE /dav/G/\n") != std::string::npos, removed) << requests;
    std::string notes;
    for (const auto& line : target.notes()) notes += line + "\n";
    EXPECT_NE(notes.find(note), std::string::npos) << notes;
  }
}

TEST_F(QVWebDAVBackupTargetTest, RefusesAPasswordOverPlainHTTPUnlessAllowed) {
  QVTarget options = qvtest::targetRecord("W2", "Home", "webdav", "");
  options.otherKeys[kQVWebDAVURLKey] = "http://127.0.0.1:9/dav";
  QVKeychain::sharedProxy().storeItem(QVBackupTarget(options).keychainServiceName(), "ann", "secret", "");
  EXPECT_FALSE(QVWebDAVBackupTarget(options).isAvailable());
  EXPECT_NE(QVWebDAVBackupTarget(options).errorString().find("--allow-plain-http"), std::string::npos);
  options.otherKeys[kQVWebDAVAllowPlainHTTPKey] = true;
  EXPECT_TRUE(QVWebDAVBackupTarget(options).isAvailable());
}
