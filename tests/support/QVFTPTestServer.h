// FTP servers for the integration tests, on 127.0.0.1 at ports picked at run time, each serving a
// folder of its own that the tests read on disk: vsftpd with anonymous write access (plain, or with
// implicit TLS under a certificate of the test authority), and pyftpdlib with a user name and password
// (read from a file, so no command line holds it), optionally throttled. Main thread of a test.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "support/QVTestServer.h"

namespace qvtest {

// The test certificate authority that scripts/with-test-ca.sh made and that the test process alone
// trusts; nullopt when the program does not run under it (QV_TEST_CA_DIR unset).
struct TestCertificates {
  std::string trustedCertificate, trustedKey;      // signed by the test authority, for 127.0.0.1
  std::string untrustedCertificate, untrustedKey;  // self-signed: nobody trusts it
  static std::optional<TestCertificates> fromEnvironment();
};

// Serves root() as the anonymous user's login folder. Not chrooted (it runs as the launching user), so
// a path from the server's root ("/backup/") would reach the machine's own root: use relative paths.
class VsftpdServer : public TestServer {
 public:
  // Plain FTP; with a certificate and key, implicit TLS on the control and data connections.
  explicit VsftpdServer(const std::optional<std::pair<std::string, std::string>>& tls = std::nullopt);
  std::string root() const { return directory() + "/root"; }
};

class PyftpdlibServer : public TestServer {
 public:
  // bytesPerSecond limits what the server reads from each upload (0: as fast as it can).
  PyftpdlibServer(const std::string& user, const std::string& password, std::uint64_t bytesPerSecond = 0);
  std::string root() const { return directory() + "/root"; }
};

}  // namespace qvtest
