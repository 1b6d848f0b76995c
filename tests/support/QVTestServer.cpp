#include "support/QVTestServer.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <stdexcept>
#include <thread>

namespace fs = std::filesystem;

namespace qvtest {

namespace {

// Connects to the port (whether something accepts there) or binds it (whether it is free).
bool tryPort(int port, bool connecting) {
  int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (fd < 0) return false;
  int yes = 1;
  if (!connecting) ::setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &yes, sizeof yes);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(static_cast<std::uint16_t>(port));
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  auto* raw = reinterpret_cast<sockaddr*>(&address);
  bool done = connecting ? ::connect(fd, raw, sizeof address) == 0 : ::bind(fd, raw, sizeof address) == 0;
  ::close(fd);
  return done;
}

bool portAccepts(int port) { return tryPort(port, true); }
bool portIsFree(int port) { return tryPort(port, false); }

}  // namespace

int freePort(int count) {
  // Ports from a range of our own, spread by process so that parallel test programs rarely meet: a
  // hundred each, since a test may start several servers with passive port ranges, and test programs
  // started one after another have neighbouring process ids.
  static int next = 20000 + static_cast<int>(::getpid() % 400) * 100;
  for (int attempt = 0; attempt < 4000; ++attempt) {
    if (next + count > 60000) next = 20000;
    int first = next;
    next += count;
    bool allFree = true;
    for (int p = first; p < first + count && allFree; ++p) allFree = portIsFree(p);
    if (allFree) return first;
  }
  throw std::runtime_error("no free port on 127.0.0.1");
}

bool haveProgram(const std::string& path) { return ::access(path.c_str(), X_OK) == 0; }

TestServer::~TestServer() { stop(); }

std::string TestServer::logTail() const {
  std::string log = readFile(m_logFile);
  return log.size() > 2000 ? log.substr(log.size() - 2000) : log;
}

void TestServer::start(std::vector<std::string> argv, int port, std::string logFile) {
  m_argv = std::move(argv);
  m_port = port;
  m_logFile = std::move(logFile);
  restart();
}

void TestServer::restart() {
  std::vector<char*> argv;
  for (auto& argument : m_argv) argv.push_back(argument.data());
  argv.push_back(nullptr);
  const std::string output = directory() + "/output.log";
  const pid_t parent = ::getpid();
  pid_t pid = ::fork();
  if (pid < 0) throw std::runtime_error("cannot fork for " + m_argv[0]);
  if (pid == 0) {
    ::setpgid(0, 0);
    ::prctl(PR_SET_PDEATHSIG, SIGKILL);
    if (::getppid() != parent) _exit(127);
    int fd = ::open(output.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0600);
    if (fd >= 0) ::dup2(fd, 1), ::dup2(fd, 2);
    int null = ::open("/dev/null", O_RDONLY);
    if (null >= 0) ::dup2(null, 0);
    if (::chdir(directory().c_str()) != 0) _exit(126);
    ::execv(argv[0], argv.data());
    _exit(127);
  }
  ::setpgid(pid, pid);
  m_pid = pid;
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
  while (!portAccepts(m_port)) {
    int status = 0;
    if (::waitpid(m_pid, &status, WNOHANG) == m_pid || std::chrono::steady_clock::now() > deadline) {
      stop();
      throw std::runtime_error(m_argv[0] + " did not start on port " + std::to_string(m_port) + ":\n" + logTail() +
                               readFile(output));
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
}

void TestServer::stop() {
  if (m_pid <= 0) return;
  ::kill(-m_pid, SIGTERM);
  ::kill(m_pid, SIGTERM);
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(5);
  int status = 0;
  while (::waitpid(m_pid, &status, WNOHANG) == 0) {
    if (std::chrono::steady_clock::now() > deadline) {
      ::kill(-m_pid, SIGKILL);
      ::waitpid(m_pid, &status, 0);
      break;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
  ::kill(-m_pid, SIGKILL);  // children that outlived their parent
  m_pid = -1;
  // The port is free again once nothing answers there.
  for (int i = 0; i < 250 && portAccepts(m_port); ++i) std::this_thread::sleep_for(std::chrono::milliseconds(20));
}

TestCertificateAuthority::TestCertificateAuthority(const std::string& hostName) {
  const std::string d = m_dir.path();
  const std::string altName = hostName == "127.0.0.1" ? "IP:127.0.0.1,DNS:localhost" : "DNS:" + hostName;
  writeFile(d + "/ext.cnf", "subjectAltName=" + altName + "\nbasicConstraints=CA:FALSE\n");
  const std::string command =
      "cd '" + d +
      "' && openssl req -x509 -newkey rsa:2048 -nodes -keyout ca.key -out ca.pem -days 2 "
      "-subj '/CN=Stellwin Test CA' && openssl req -newkey rsa:2048 -nodes -keyout server.key -out server.csr "
      "-subj '/CN=" +
      hostName +
      "' && openssl x509 -req -in server.csr -CA ca.pem -CAkey ca.key -CAcreateserial "
      "-out server.pem -days 2 -extfile ext.cnf";
  if (std::system(("(" + command + ") >/dev/null 2>&1").c_str()) != 0)
    throw std::runtime_error("openssl could not make the test certificates");
}

SabreDAVServer::SabreDAVServer(const std::string& basePath, const std::string& user, const std::string& password) {
  const std::string dir = directory();
  fs::create_directories(root());
  // The credentials reach PHP in a file, never on a command line.
  writeFile(dir + "/user", user);
  writeFile(dir + "/password", password);
  writeFile(
      dir + "/server.php",
      "<?php\nrequire_once 'Sabre/autoload.php';\n"
      "class TestAuth extends \\Sabre\\DAV\\Auth\\Backend\\AbstractBasic {\n"
      "  protected function validateUserPass($u, $p) {\n"
      "    return $u === file_get_contents(__DIR__ . '/user') && $p === file_get_contents(__DIR__ . '/password');\n"
      "  }\n}\n"
      "$server = new \\Sabre\\DAV\\Server(new \\Sabre\\DAV\\FS\\Directory(__DIR__ . '/www'));\n"
      "$server->setBaseUri('" +
          basePath +
          "');\n"
          "$server->addPlugin(new \\Sabre\\DAV\\Auth\\Plugin(new TestAuth(), 'realm'));\n"
          "$server->exec();\n");
  writeFile(dir + "/server.log", "");
  const int port = freePort();
  start({"/usr/bin/php", "-d", "upload_max_filesize=0", "-d", "post_max_size=0", "-d", "memory_limit=-1", "-S",
         "127.0.0.1:" + std::to_string(port), dir + "/server.php"},
        port, dir + "/server.log");
}

ApacheDAVServer::ApacheDAVServer(const std::optional<std::pair<std::string, std::string>>& basicUser, long maxBody,
                                 const TestCertificateAuthority* tls, const std::string& refusedNames) {
  const std::string dir = directory();
  fs::create_directories(root());
  const int port = freePort();
  std::string access = "    Require all granted\n";
  if (basicUser) {
    // htpasswd takes the password on standard input (-i), never on its command line.
    const std::string command =
        "/usr/bin/htpasswd -ciB '" + dir + "/htpasswd' '" + basicUser->first + "' >/dev/null 2>&1";
    FILE* pipe = ::popen(command.c_str(), "w");
    if (!pipe) throw std::runtime_error("cannot run htpasswd");
    std::fputs(basicUser->second.c_str(), pipe);
    if (::pclose(pipe) != 0) throw std::runtime_error("htpasswd failed");
    access = "    AuthType Basic\n    AuthName \"backups\"\n    AuthBasicProvider file\n    AuthUserFile " + dir +
             "/htpasswd\n    Require valid-user\n";
  }
  const std::string modules = "/usr/lib/apache2/modules/";
  std::string conf = "ServerRoot " + dir + "\nPidFile " + dir + "/httpd.pid\nErrorLog " + dir +
                     "/error.log\nListen 127.0.0.1:" + std::to_string(port) + "\nServerName 127.0.0.1\n";
  for (const char* module :
       {"mpm_event", "authz_core", "authz_user", "authn_core", "authn_file", "auth_basic", "dav", "dav_fs"})
    conf += std::string("LoadModule ") + module + "_module " + modules + "mod_" + module + ".so\n";
  if (tls)
    conf += "LoadModule ssl_module " + modules + "mod_ssl.so\nLoadModule socache_shmcb_module " + modules +
            "mod_socache_shmcb.so\nSSLSessionCache shmcb:" + dir +
            "/ssl_scache(512000)\nSSLEngine on\n"
            "SSLCertificateFile " +
            tls->certificateFile() + "\nSSLCertificateKeyFile " + tls->keyFile() + "\n";
  conf += "StartServers 1\nServerLimit 1\nThreadsPerChild 16\nMaxRequestWorkers 16\nLimitRequestBody " +
          std::to_string(maxBody) +
          "\n"
          "KeepAlive On\nMaxKeepAliveRequests 0\nKeepAliveTimeout 30\nTimeout 60\n"
          "DavLockDB " +
          dir + "/davlock\nDocumentRoot " + root() + "\n<Directory " + root() + ">\n    Dav On\n" + access +
          "</Directory>\n";
  if (!refusedNames.empty()) conf += "<FilesMatch \"" + refusedNames + "\">\n    Require all denied\n</FilesMatch>\n";
  writeFile(dir + "/httpd.conf", conf);
  start({"/usr/sbin/apache2", "-f", dir + "/httpd.conf", "-DFOREGROUND"}, port, dir + "/error.log");
}

NginxDAVServer::NginxDAVServer(long maxBody) {
  const std::string dir = directory();
  fs::create_directories(root());
  fs::create_directories(dir + "/temp");
  const int port = freePort();
  std::string conf =
      "load_module /usr/lib/nginx/modules/ngx_http_dav_ext_module.so;\ndaemon off;\n"
      "master_process off;\npid " +
      dir + "/nginx.pid;\nerror_log " + dir + "/error.log;\n";
  if (::geteuid() == 0) conf += "user root root;\n";
  conf += "events { worker_connections 64; }\nhttp {\n  access_log off;\n  client_body_temp_path " + dir +
          "/temp;\n  proxy_temp_path " + dir + "/temp;\n  fastcgi_temp_path " + dir + "/temp;\n  uwsgi_temp_path " +
          dir + "/temp;\n  scgi_temp_path " + dir + "/temp;\n  server {\n    listen 127.0.0.1:" + std::to_string(port) +
          ";\n    root " + root() + ";\n    client_max_body_size " + std::to_string(maxBody) +
          ";\n    dav_methods PUT DELETE MKCOL COPY MOVE;\n"
          "    dav_ext_methods PROPFIND OPTIONS;\n    create_full_put_path off;\n  }\n}\n";
  writeFile(dir + "/nginx.conf", conf);
  start({"/usr/sbin/nginx", "-p", dir, "-c", dir + "/nginx.conf", "-e", dir + "/error.log"}, port, dir + "/error.log");
}

PythonServer::PythonServer(const std::string& script) {
  const int port = freePort();
  writeFile(directory() + "/server.py", script);
  writeFile(directory() + "/server.log", "");
  start({"/usr/bin/python3", directory() + "/server.py", std::to_string(port)}, port, directory() + "/server.log");
}

SilentServer::SilentServer()
    : PythonServer(
          "import socket, sys\n"
          "listener = socket.create_server(('127.0.0.1', int(sys.argv[1])))\n"
          "held = []\n"
          "while True:\n"
          "    held.append(listener.accept())\n") {}

}  // namespace qvtest
