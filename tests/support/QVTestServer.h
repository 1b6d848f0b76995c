// Real servers for the integration tests, each started for one test on 127.0.0.1 at a port picked at
// run time, with its configuration, data and logs in a temporary folder of its own. A server runs in a
// process group of its own; it is stopped (the whole group) when the object goes, and it dies with the
// test process if that ends first, so a failed test leaves nothing running. Main thread of a test.
#pragma once

#include <sys/types.h>

#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "support/QVTestSupport.h"

namespace qvtest {

// A TCP port on 127.0.0.1 that nothing listens on now; `count` consecutive ones when asked.
int freePort(int count = 1);

class TestServer {
 public:
  virtual ~TestServer();
  TestServer(const TestServer&) = delete;
  TestServer& operator=(const TestServer&) = delete;

  int port() const { return m_port; }
  // The server's own folder: configuration, logs and, below it, what it serves.
  const std::string& directory() const { return m_dir.path(); }
  // The last lines of the server's log, for a failure message.
  std::string logTail() const;

  // Stops the server and its children (SIGTERM, then SIGKILL after a few seconds) and waits for them.
  void stop();
  // Starts it again as before, on the same port. Requires: stopped.
  void restart();
  bool isRunning() const { return m_pid > 0; }

 protected:
  TestServer() = default;
  // Starts the program of argv (argv[0] an absolute path) in directory() and waits until the port accepts
  // connections. Throws std::runtime_error naming the log's tail when it does not within 20 s.
  void start(std::vector<std::string> argv, int port, std::string logFile);

  TemporaryDirectory m_dir;
  int m_port = 0;

 private:
  std::vector<std::string> m_argv;
  std::string m_logFile;
  pid_t m_pid = -1;
};

// A certificate authority made for one test (openssl), and a server certificate it signed for hostName
// (127.0.0.1 as its address too, unless hostName is another name). Files in a temporary folder.
class TestCertificateAuthority {
 public:
  explicit TestCertificateAuthority(const std::string& hostName = "127.0.0.1");
  std::string caFile() const { return m_dir.path() + "/ca.pem"; }
  std::string certificateFile() const { return m_dir.path() + "/server.pem"; }
  std::string keyFile() const { return m_dir.path() + "/server.key"; }

 private:
  TemporaryDirectory m_dir;
};

// Apache httpd with mod_dav serving root() at "/", optionally behind HTTP Basic authentication, and
// optionally refusing request bodies larger than maxBody bytes (413); over HTTPS with tls's certificate
// when given; refusing (403) every name that matches the regular expression refusedNames when given.
class ApacheDAVServer : public TestServer {
 public:
  explicit ApacheDAVServer(const std::optional<std::pair<std::string, std::string>>& basicUser = std::nullopt,
                           long maxBody = 0, const TestCertificateAuthority* tls = nullptr,
                           const std::string& refusedNames = "");
  std::string root() const { return directory() + "/www"; }
};

// SabreDAV (the WebDAV engine of Nextcloud and ownCloud) under "php -S", serving root() at basePath,
// behind HTTP Basic authentication. Its replies write the DAV namespace with the prefix "d:".
class SabreDAVServer : public TestServer {
 public:
  SabreDAVServer(const std::string& basePath, const std::string& user, const std::string& password);
  std::string root() const { return directory() + "/www"; }
};

// nginx with the dav-ext module serving root() at "/", optionally refusing bodies over maxBody bytes (413).
class NginxDAVServer : public TestServer {
 public:
  explicit NginxDAVServer(long maxBody = 0);
  std::string root() const { return directory() + "/www"; }
};

// A server of a few lines of Python, for replies no real server gives: script reads its port from
// sys.argv[1].
class PythonServer : public TestServer {
 public:
  explicit PythonServer(const std::string& script);
};

// Accepts connections and never reads or writes: a server that stopped answering.
class SilentServer : public PythonServer {
 public:
  SilentServer();
};

// Whether the server programs of the integration tests are installed (scripts/setup.sh --tests).
bool haveProgram(const std::string& path);

}  // namespace qvtest
