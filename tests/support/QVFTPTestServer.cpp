#include "support/QVFTPTestServer.h"

#include <sys/stat.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <vector>

namespace fs = std::filesystem;

namespace qvtest {

std::optional<TestCertificates> TestCertificates::fromEnvironment() {
  const char* dir = std::getenv("QV_TEST_CA_DIR");
  if (!dir || !*dir) return std::nullopt;
  const std::string d = dir;
  return TestCertificates{d + "/server.pem", d + "/server.key", d + "/untrusted.pem", d + "/untrusted.key"};
}

VsftpdServer::VsftpdServer(const std::optional<std::pair<std::string, std::string>>& tls) {
  const std::string dir = directory();
  fs::create_directories(root());
  fs::create_directories(dir + "/empty");
  // vsftpd refuses an anonymous root that anonymous users could write to directly; they write below it.
  ::chmod(root().c_str(), 0755);
  const int port = freePort();
  const int passive = freePort(10);
  // anon_umask 022: an anonymous user lists only what everybody may read.
  std::string conf = "listen=YES\nbackground=NO\nlisten_address=127.0.0.1\nlisten_port=" + std::to_string(port) +
                     "\nrun_as_launching_user=YES\nanonymous_enable=YES\nno_anon_password=YES\nanon_root=" + root() +
                     "\nwrite_enable=YES\nanon_upload_enable=YES\nanon_mkdir_write_enable=YES\n"
                     "anon_other_write_enable=YES\nanon_umask=022\nsecure_chroot_dir=" +
                     dir +
                     "/empty\n"
                     "pasv_min_port=" +
                     std::to_string(passive) + "\npasv_max_port=" + std::to_string(passive + 9) +
                     "\npasv_address=127.0.0.1\nseccomp_sandbox=NO\nxferlog_enable=YES\nvsftpd_log_file=" + dir +
                     "/vsftpd.log\n";
  if (tls)
    conf +=
        "ssl_enable=YES\nimplicit_ssl=YES\nallow_anon_ssl=YES\nforce_anon_logins_ssl=YES\n"
        "force_anon_data_ssl=YES\nssl_ciphers=HIGH\nrequire_ssl_reuse=NO\nrsa_cert_file=" +
        tls->first + "\nrsa_private_key_file=" + tls->second + "\n";
  writeFile(dir + "/vsftpd.conf", conf);
  writeFile(dir + "/vsftpd.log", "");
  // vsftpd loses the tail of uploads over TLS 1.3 (libcurl then reports 18 for the file), so the
  // server alone is held to TLS 1.2; vsftpd has no setting of its own for that.
  writeFile(dir + "/openssl.cnf",
            "openssl_conf = conf\n[conf]\nssl_conf = ssl\n[ssl]\nsystem_default = tls\n[tls]\n"
            "MaxProtocol = TLSv1.2\n");
  start({"/usr/bin/env", "OPENSSL_CONF=" + dir + "/openssl.cnf", "/usr/sbin/vsftpd", dir + "/vsftpd.conf"}, port,
        dir + "/vsftpd.log");
}

PyftpdlibServer::PyftpdlibServer(const std::string& user, const std::string& password, std::uint64_t bytesPerSecond) {
  const std::string dir = directory();
  fs::create_directories(root());
  const int port = freePort();
  const int passive = freePort(10);
  writeFile(dir + "/secret", password);
  ::chmod((dir + "/secret").c_str(), 0600);
  const std::string script =
      "import logging, sys\n"
      "from pyftpdlib.authorizers import DummyAuthorizer\n"
      "from pyftpdlib.handlers import FTPHandler, ThrottledDTPHandler\n"
      "from pyftpdlib.servers import FTPServer\n"
      "port, low, high, root, user, secret, limit = sys.argv[1:]\n"
      "with open(secret, encoding='utf-8') as f:\n"
      "    password = f.read()\n"
      "authorizer = DummyAuthorizer()\n"
      "authorizer.add_user(user, password, root, perm='elradfmwMT')\n"
      "FTPHandler.authorizer = authorizer\n"
      "FTPHandler.passive_ports = range(int(low), int(high) + 1)\n"
      "if int(limit):\n"
      "    ThrottledDTPHandler.read_limit = int(limit)\n"
      "    FTPHandler.dtp_handler = ThrottledDTPHandler\n"
      "logging.basicConfig(filename=root + '/../pyftpdlib.log', level=logging.INFO)\n"
      "FTPServer(('127.0.0.1', int(port)), FTPHandler).serve_forever()\n";
  writeFile(dir + "/server.py", script);
  writeFile(dir + "/pyftpdlib.log", "");
  start({"/usr/bin/python3", dir + "/server.py", std::to_string(port), std::to_string(passive),
         std::to_string(passive + 9), root(), user, dir + "/secret", std::to_string(bytesPerSecond)},
        port, dir + "/pyftpdlib.log");
}

}  // namespace qvtest
