// Bad input from every side the program reads: preferences damaged in each way a hand or a crash can
// damage them, item names no file system forbids, and servers whose replies are not what a listing
// should be (not XML, huge, nested without end, reaching for files or the network, cut short, odd or
// enormous FTP listings). Each gets a defined exit status and a clear line; nothing crashes, nothing is
// fetched, and the preferences stay readable.
#include "host/QVProgramRunner.h"
#include "support/QVTestServer.h"

using nlohmann::json;
using namespace qvtest;

namespace {

class QVBadInputTest : public HostTest {
 protected:
  // The program neither crashed nor hung, and said something when it failed.
  static void expectDefined(const ProgramResult& result, const std::string& what) {
    EXPECT_TRUE(result.status == 0 || result.status == 1 || result.status == 2) << what << ": " << result.status << "\n"
                                                                                << result.err;
    EXPECT_TRUE(result.status == 0 || result.err.find("stellwin-backup: ") != std::string::npos) << what << "\n"
                                                                                                 << result.err;
  }
  // A group of one file at a destination of type at 127.0.0.1:port, path case.
  void addRemoteGroup(const std::string& type, int port, const std::string& name) {
    runJSON({"target", "add", "--type", type, "--title", name, "--server", "127.0.0.1", "--port", std::to_string(port),
             "--path", name});
    runJSON({"group", "add", name, makeFile(name + ".txt")});
    runJSON({"group", "set", name, "--target", name});
  }
};

TEST_F(QVBadInputTest, DamagedPreferencesNeverStopTheProgram) {
  runJSON({"group", "add", "Kept", makeFile("k.txt")});
  const std::string good = readFile(m_env.preferencesPath());
  const std::string huge = R"({"QVBackupAgent": {"groups": [], "padding": ")" + std::string(64 << 20, 'x') + "\"}}";
  for (const auto& text : std::vector<std::string>{
           "{{{ not json", good.substr(0, good.size() / 2), "", std::string("\0\xff\xfe", 3), "[1, 2]", huge,
           R"({"QVBackupAgent": []})", R"({"QVBackupAgent": {"groups": 5, "targets": "x"}})",
           R"({"QVBackupAgent": {"groups": [7, null, {"title": 7, "items": "x", "versions": "abc",
               "schedule": [1], "target": {}, "identifier": []}]}})",
           R"({"QVBackupAgent": {"targets": [{"type": 3, "port": "x", "path": [], "isDefault": "yes"}, 1]}})",
           R"({"QVBackupAgent": {"groups": [{"title": "T", "items": ["/x", 3, null], "lastBackupDate": "never",
               "statusCode": "x", "schedule": {"type": "weekly", "day": 99, "hour": -5}}]}})"}) {
    writeFile(m_env.preferencesPath(), text);
    const std::string what = text.substr(0, 60);
    expectDefined(runProgram({"status"}), what);
    expectDefined(runProgram({"menu"}), what);
    const ProgramResult added = runProgram({"group", "add", "New", makeFile("n.txt")});
    EXPECT_EQ(added.status, 0) << what << "\n" << added.err;
    const json stored = json::parse(readFile(m_env.preferencesPath()), nullptr, false);
    ASSERT_FALSE(stored.is_discarded()) << what;
    EXPECT_NE(stored.dump().find("\"New\""), std::string::npos) << what;
  }
}

TEST_F(QVBadInputTest, NamesWithLineBreaksAndInvalidUTF8AreBackedUpAsTheyAre) {
  const std::string folder = m_env.home() + "/odd";
  const std::vector<std::string> names = {"line\nbreak.txt", "\xff\xfe.bin", " lead and trail ", "-dash", "*?[]"};
  for (const auto& name : names) writeFile(folder + "/" + name, "content of " + name);
  // As an item of its own, a name that is not UTF-8 cannot be kept in the preferences: refused, said.
  const ProgramResult refused = runProgram({"group", "add", "Odd", folder, makeFile(names[1])});
  EXPECT_EQ(refused.status, 0) << refused.err;
  EXPECT_NE(refused.err.find("not valid UTF-8"), std::string::npos) << refused.err;
  const ProgramResult run = runProgram({"backup", "Odd"});
  ASSERT_EQ(run.status, 0) << run.err;
  const std::string version = runJSON({"versions", "Odd", "--json"})[0]["name"];
  for (const auto& name : names)
    EXPECT_EQ(readFile(backups() + "/Odd/" + version + "/odd/" + name), "content of " + name) << name;
  EXPECT_EQ(runJSON({"group", "show", "Odd", "--json"})["items"].size(), 1u);
}

TEST_F(QVBadInputTest, HostileWebDAVRepliesAreRefusedWithoutHarm) {
  const std::string leak = m_env.root() + "/fetched";
  PythonServer server(R"(import sys, http.server
port = int(sys.argv[1])
class Handler(http.server.BaseHTTPRequestHandler):
    protocol_version = 'HTTP/1.1'
    def log_message(self, *args): pass
    def do_GET(self):
        open(')" + leak +
                      R"(', 'a').write(self.path + '\n')
        self.send_response(404); self.send_header('Content-Length', '0'); self.end_headers()
    def do_PROPFIND(self):
        self.rfile.read(int(self.headers.get('Content-Length', 0)))
        kind = self.path.strip('/').split('/')[0]
        head = b'<?xml version="1.0"?>'
        if kind == 'notxml': body = b'this is not XML'
        elif kind == 'huge': body = head + b'<D:multistatus xmlns:D="DAV:">' + b'<D:response><D:href>/h/x</D:href></D:response>' * 2200000 + b'</D:multistatus>'
        elif kind == 'deep': body = head + b'<a>' * 100000 + b'</a>' * 100000
        elif kind == 'entity': body = head + ('<!DOCTYPE m [<!ENTITY f SYSTEM "file:///etc/passwd"><!ENTITY n SYSTEM "http://127.0.0.1:%d/entity">]><D:multistatus xmlns:D="DAV:"><D:response><D:href>/entity/&f;&n;</D:href></D:response></D:multistatus>' % port).encode()
        else: body = head + b'<D:multistatus xmlns:D="DAV:"><D:response>'
        self.send_response(207)
        self.send_header('Content-Length', str(len(body) + (1000 if kind == 'short' else 0)))
        self.end_headers()
        self.wfile.write(body)
        if kind == 'short': self.close_connection = True
    def do_MKCOL(self):
        self.send_response(405); self.send_header('Content-Length', '0'); self.end_headers()
    do_PUT = do_MKCOL
http.server.ThreadingHTTPServer(('127.0.0.1', port), Handler).serve_forever()
)");
  for (const std::string kind : {"notxml", "huge", "deep", "entity", "short"}) {
    addRemoteGroup("dav", server.port(), kind);
    const ProgramResult listed = runProgram({"versions", kind});
    expectDefined(listed, kind);
    EXPECT_EQ((listed.out + listed.err).find("root:"), std::string::npos) << kind << ": a local file was read";
    const ProgramResult run = runProgram({"backup", kind});
    EXPECT_EQ(run.status, 1) << kind << "\n" << run.err;
  }
  EXPECT_EQ(readFile(leak), "") << "an entity was fetched";
}

TEST_F(QVBadInputTest, OddAndEnormousFTPListingsAreReadOrRefusedWithoutHarm) {
  if (!haveProgram("/usr/bin/python3")) GTEST_SKIP();
  const std::string root = m_env.root() + "/ftp";
  std::filesystem::create_directories(root + "/odd/odd");
  std::filesystem::create_directories(root + "/huge/huge");
  PythonServer server(R"(import sys
from pyftpdlib.authorizers import DummyAuthorizer
from pyftpdlib.handlers import FTPHandler
from pyftpdlib.servers import FTPServer
line = b'-rw-r--r-- 1 u g 1 Jan 01 00:00 20240105143007.backup\r\n'
odd = [b'', b'garbage', b'total 0', b'drwxr-xr-x', b'\xff\xfe\r', b'd-------- 1 u g 0 Jan 01 00:00 ' + b'x' * 5000,
       b'-rw-r--r-- 1 u g 99999999999999999999999999 Jan 01 00:00 20240105143007.backup', b'l 1 u g 0 ../../etc']
class Handler(FTPHandler):
    def listing(self, path):
        return line * 1800000 if 'huge' in path else b'\r\n'.join(odd) + b'\r\n'
    def ftp_NLST(self, path): self.push_dtp_data(self.listing(path), cmd='NLST')
    def ftp_LIST(self, path): self.push_dtp_data(self.listing(path), cmd='LIST')
authorizer = DummyAuthorizer()
authorizer.add_anonymous(')" +
                      root + R"(', perm='elradfmwMT')
Handler.authorizer = authorizer
FTPServer(('127.0.0.1', int(sys.argv[1])), Handler).serve_forever()
)");
  for (const std::string kind : {"odd", "huge"}) {
    addRemoteGroup("ftp", server.port(), kind);
    expectDefined(runProgram({"versions", kind}), kind);
    expectDefined(runProgram({"backup", kind}), kind);
    expectDefined(runProgram({"restore", kind, "--to", m_env.root() + "/restored-" + kind}), kind);
  }
}

}  // namespace
