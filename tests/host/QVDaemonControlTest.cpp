// One agent per user, end to end: with a daemon running, every command is carried out by it (changes
// survive its saves and restarts, runs started from the command line show in its status and menu and
// can be cancelled from anywhere); without one, commands take turns; a second daemon, another user and
// broken messages are all turned away without disturbing it.
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>

#include <thread>

#include "host/QVProgramRunner.h"
#include "host/cli/QVCommandLine.h"
#include "host/control/QVControlClient.h"
#include "support/QVTestServer.h"

using nlohmann::json;
using namespace qvtest;
using std::chrono::seconds;

namespace {

class QVDaemonControlTest : public HostTest {
 protected:
  // Where the daemon serves, as its lock record names it (read once: another user cannot read it).
  std::string socketPath() {
    const std::string record = readFile(m_env.configDirectory() + "/agent.lock");
    const std::size_t line = record.find('\n');
    if (m_socket.empty() && line != std::string::npos)
      m_socket = record.substr(line + 1, record.find('\n', line + 1) - line - 1);
    return m_socket;
  }
  std::string m_socket;

  // Starts the daemon and waits until it answers on its socket.
  std::unique_ptr<RunningProgram> startDaemon() {
    auto daemon = std::make_unique<RunningProgram>(std::vector<std::string>{"daemon"});
    EXPECT_TRUE(daemon->waitFor([&] { return daemon->err.find("started with") != std::string::npos; }, seconds(20)))
        << daemon->err;
    return daemon;
  }
  static void stop(RunningProgram& daemon) {
    kill(daemon.pid, SIGTERM);
    EXPECT_EQ(daemon.finish(seconds(60)).status, 0) << daemon.err;
  }
  json group(const std::string& title) {
    for (const auto& record : runJSON({"status", "--json"}))
      if (record["groupTitle"] == title) return record;
    return nullptr;
  }
  // Runs the commands all at once and waits for every one.
  static void runTogether(const std::vector<std::vector<std::string>>& commands) {
    std::vector<std::unique_ptr<RunningProgram>> running;
    for (const auto& arguments : commands) running.push_back(std::make_unique<RunningProgram>(arguments));
    for (auto& program : running) EXPECT_EQ(program->finish().status, 0) << program->err;
  }
  // A raw connection that sends bytes, optionally half-closes, and returns what comes back before the
  // daemon hangs up (within the daemon's own request timeout).
  std::string exchange(const std::string& bytes, bool halfClose) {
    const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::snprintf(address.sun_path, sizeof address.sun_path, "%s", socketPath().c_str());
    if (connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) return "(no connection)";
    timeval timeout{20, 0};
    setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &timeout, sizeof timeout);
    std::string reply;
    std::thread writer([&] {  // the daemon may stop reading long before an oversized message is out
      for (std::size_t at = 0; at < bytes.size();) {
        const ssize_t n = send(fd, bytes.data() + at, bytes.size() - at, MSG_NOSIGNAL);
        if (n <= 0) break;
        at += static_cast<std::size_t>(n);
      }
      if (halfClose) shutdown(fd, SHUT_WR);
    });
    for (char buffer[4096]; ssize_t n = recv(fd, buffer, sizeof buffer, 0);)
      if (n < 0)
        break;
      else
        reply.append(buffer, static_cast<std::size_t>(n));
    writer.join();
    close(fd);
    return reply;
  }
};

TEST_F(QVDaemonControlTest, EveryChangeIsKeptWithAndWithoutADaemon) {
  std::vector<std::vector<std::string>> adds;
  for (int i = 0; i < 6; ++i) adds.push_back({"group", "add", "Alone" + std::to_string(i), makeFile("a.txt")});
  runTogether(adds);  // no daemon: they take turns with the lock

  auto daemon = startDaemon();
  adds.clear();
  for (int i = 0; i < 6; ++i) adds.push_back({"group", "add", "Served" + std::to_string(i), makeFile("s.txt")});
  runTogether(adds);
  // Started without the daemon's runtime folder (as from cron), a command still finds it.
  RunningProgram elsewhere({"group", "add", "Elsewhere", makeFile("e.txt")}, "", "", false,
                           {"/usr/bin/env", "XDG_RUNTIME_DIR=" + m_env.root() + "/other-runtime"});
  EXPECT_EQ(elsewhere.finish().status, 0) << elsewhere.err;
  // The daemon's next save (an outcome) keeps them, and so does a restart.
  EXPECT_EQ(runProgram({"backup", "Served0"}).status, 0);
  stop(*daemon);
  daemon = startDaemon();
  const json groups = runJSON({"status", "--json"});
  EXPECT_EQ(groups.size(), 13u) << groups;
  EXPECT_EQ(group("Served0")["statusCode"], 0);

  // A hand edit while the daemon runs is read (it starts itself anew), then served like any other.
  editStoredGroup("Alone0", [](json& record) { record["title"] = "Edited"; });
  EXPECT_TRUE(daemon->waitFor([&] { return daemon->err.find("starting anew") != std::string::npos; }, seconds(20)));
  ProgramResult renamed = runProgram({"group", "set", "Edited", "--versions", "2"});
  EXPECT_EQ(renamed.status, 0) << renamed.err;
  EXPECT_EQ(runProgram({"daemon"}).status, 1) << "a second daemon refuses to start";
  stop(*daemon);
  EXPECT_FALSE(group("Edited").is_null());
}

TEST_F(QVDaemonControlTest, RunsStartedAnywhereShowEverywhereAndCanBeCancelledFromAnywhere) {
  runJSON({"group", "add", "Big", makeFile("big.bin", "", 8ull << 30)});
  runJSON({"group", "add", "Small", makeFile("small.txt")});
  auto daemon = startDaemon();

  RunningProgram backup({"backup", "Big"});
  ASSERT_TRUE(backup.waitFor([&] { return group("Big")["state"] == "running"; }, seconds(30))) << backup.err;
  EXPECT_TRUE(group("Big")["progress"].is_number());
  const ProgramResult menu = runProgram({"menu"});
  EXPECT_TRUE(menu.out.find("Backing up...") != std::string::npos ||
              menu.out.find("Backup progress:") != std::string::npos)
      << menu.out;
  EXPECT_EQ(runProgram({"restore", "Big", "--to", m_env.root() + "/r"}).status, 1) << "not while it is backed up";
  EXPECT_EQ(runProgram({"cancel", "Big"}).status, 0);
  ProgramResult cancelled = backup.finish();
  EXPECT_EQ(cancelled.status, 1);
  EXPECT_NE(cancelled.err.find("cancelled in the daemon"), std::string::npos) << cancelled.err;
  EXPECT_EQ(group("Big")["statusCode"], -128);
  EXPECT_EQ(runProgram({"cancel", "Big"}).status, 1) << "no longer running";

  // Ctrl-C in the waiting command cancels the run in the daemon.
  RunningProgram interrupted({"backup", "Big"});
  ASSERT_TRUE(interrupted.waitFor([&] { return copying("Big", "big.bin"); }, seconds(30)));
  kill(interrupted.pid, SIGINT);
  EXPECT_EQ(interrupted.finish().status, 130) << interrupted.err;

  // The submenu's entries, as clicks: only those shown now.
  EXPECT_EQ(runProgram({"menu", "Small", "Cancel backup"}).status, 1) << "hidden while idle";
  EXPECT_EQ(runProgram({"menu", "Small", "Format"}).status, 2);
  const ProgramResult clicked = runProgram({"menu", "Small", "Backup Now"});
  EXPECT_EQ(clicked.status, 0);
  EXPECT_TRUE(clicked.out.starts_with("chose \"Backup Now\" for group \"Small\"\nSmall: complete, 1 file, "))
      << "waited for, as without a daemon: " << clicked.out;
  EXPECT_EQ(runJSON({"versions", "Small", "--json"}).size(), 1u);

  // Asked for while a verify holds the group, a run waits, and starts once the verify has gone.
  const auto completions = [&] {
    std::size_t count = 0;
    for (std::size_t at = 0; (at = daemon->err.find("\"Small\" complete", at)) != std::string::npos; ++at) ++count;
    return count;
  };
  {
    QVCommandOptions verify;
    verify.command = QVCommand::verify, verify.group = "Small";
    std::ostringstream out, err;
    auto holder = QVControlClient::connect(socketPath());
    ASSERT_TRUE(holder && holder->run(verify, out, err).answer == QVControlClient::Answer::held) << err.str();
    const ProgramResult waits = runProgram({"menu", "Small", "Backup Now"});
    EXPECT_EQ(waits.status, 0);
    EXPECT_NE(waits.err.find("\"Small\" waits until the restore or verify"), std::string::npos) << waits.err;
    EXPECT_TRUE(daemon->waitFor([&] { return daemon->err.find("\"Small\": the run waits") != std::string::npos; },
                                seconds(10)));
    EXPECT_EQ(completions(), 1u);
  }
  EXPECT_TRUE(daemon->waitFor([&] { return completions() == 2; }, seconds(30))) << daemon->err;

  // Killed during a run: started again, it has the preferences and runs the group.
  RunningProgram orphan({"backup", "Big"});
  ASSERT_TRUE(orphan.waitFor([&] { return copying("Big", "big.bin"); }, seconds(30)));
  kill(daemon->pid, SIGKILL);
  ProgramResult lost = orphan.finish();
  EXPECT_EQ(lost.status, 1);
  EXPECT_NE(lost.err.find("the daemon stopped"), std::string::npos) << lost.err;
  daemon->finish();
  daemon = startDaemon();
  EXPECT_EQ(runProgram({"backup", "Small"}).status, 0);
  EXPECT_EQ(runJSON({"status", "--json"}).size(), 2u);
  stop(*daemon);
}

TEST_F(QVDaemonControlTest, TurnsAwayBrokenMessagesAndOtherUsersAndGoesOnServing) {
  auto daemon = startDaemon();
  ASSERT_FALSE(socketPath().empty());
  std::string random(4096, '\0');
  for (std::size_t i = 0; i < random.size(); ++i) random[i] = static_cast<char>((i * 7919 + 13) % 251);
  const std::string truncated = std::string("\0\0\0\x40{\"protocol\":1,", 18);
  const std::string huge = std::string("\0\x80\0\0", 4) + std::string(8 << 20, '{');
  for (const auto& [bytes, halfClose] : {std::pair{random, false}, {truncated, true}, {huge, false}}) {
    const std::string reply = exchange(bytes, halfClose);
    EXPECT_NE(reply.find("\"type\":\"error\""), std::string::npos) << reply.substr(0, 200);
    EXPECT_EQ(runProgram({"status"}).status, 0);
  }
  // A client that connects and says nothing holds up nobody, and is dropped in time.
  const int stalled = socket(AF_UNIX, SOCK_STREAM, 0);
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  std::snprintf(address.sun_path, sizeof address.sun_path, "%s", socketPath().c_str());
  ASSERT_EQ(connect(stalled, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
  EXPECT_EQ(runProgram({"status"}).status, 0);
  char byte;
  EXPECT_EQ(recv(stalled, &byte, 1, 0), 0) << "dropped after its request timeout";
  close(stalled);
  // Nor does a listing of a server that never answers: it is read in the command's own process.
  SilentServer silent;
  runJSON({"target", "add", "--type", "dav", "--title", "Mute", "--server", "127.0.0.1", "--port",
           std::to_string(silent.port()), "--path", "b"});
  runJSON({"group", "add", "Mute", makeFile("m.txt")});
  runJSON({"group", "set", "Mute", "--target", "Mute"});
  RunningProgram listing({"versions", "Mute"});
  std::this_thread::sleep_for(std::chrono::seconds(1));
  const auto asked = std::chrono::steady_clock::now();
  EXPECT_EQ(runProgram({"status"}).status, 0);
  EXPECT_LT(std::chrono::steady_clock::now() - asked, seconds(5)) << "the daemon waited on the listing";
  kill(listing.pid, SIGKILL);
  listing.finish();

  // Private by mode, and by the peer's credentials even where the modes are opened up.
  struct stat info {};
  ASSERT_EQ(stat(socketPath().c_str(), &info), 0);
  EXPECT_EQ(info.st_mode & 0777, 0600u);
  if (geteuid() == 0) {
    chmod(m_env.root().c_str(), 0755);
    chmod((m_env.root() + "/runtime").c_str(), 0755);
    chmod((m_env.root() + "/runtime/stellwin-backup").c_str(), 0755);
    chmod(socketPath().c_str(), 0666);
    const pid_t child = fork();
    if (child == 0) {
      if (setresgid(65534, 65534, 65534) != 0 || setresuid(65534, 65534, 65534) != 0) _exit(3);
      const std::string reply = exchange(std::string("\0\0\0\x02{}", 6), false);
      _exit(reply.find("connection refused") != std::string::npos ? 0 : 1);
    }
    int raw = 0;
    waitpid(child, &raw, 0);
    EXPECT_TRUE(WIFEXITED(raw) && WEXITSTATUS(raw) == 0) << "another user was served: " << raw;
  }
  stop(*daemon);
}

TEST_F(QVDaemonControlTest, APasswordHandedToTheDaemonIsKeptOnlyInTheKeychain) {
  const std::string password = "s3cret-Pa55-word";
  auto daemon = startDaemon();
  // Nothing listens on that port: the run fails, and its failure is told in the daemon's log.
  RunningProgram add({"target", "add", "--type", "dav", "--title", "NAS", "--server", "127.0.0.1", "--port", "9",
                      "--path", "b", "--user", "ann", "--password-stdin", "--default"},
                     password + "\n");
  bool argvClean = true;
  add.waitFor(
      [&] {
        for (const auto& entry : std::filesystem::directory_iterator("/proc")) {
          const std::string arguments = readFile(entry.path().string() + "/cmdline");
          argvClean = argvClean && arguments.find(password) == std::string::npos;
        }
        return false;
      },
      std::chrono::milliseconds(300));
  EXPECT_EQ(add.finish().status, 0) << add.err;
  EXPECT_TRUE(argvClean) << "the password was in a process's arguments";
  runJSON({"group", "add", "Docs", makeFile("d.txt")});
  const ProgramResult run = runProgram({"backup", "Docs"});
  EXPECT_EQ(run.status, 1) << run.err;
  std::string everything = add.out + add.err + run.out + run.err + daemon->err;
  for (const auto& shown : {runProgram({"target", "list", "--json"}), runProgram({"target", "list"}), runProgram({})})
    everything += shown.out + shown.err;
  stop(*daemon);

  for (const auto& entry : std::filesystem::recursive_directory_iterator(m_env.root()))
    if (entry.is_regular_file() && entry.path().filename() != "keychain.json") everything += readFile(entry.path());
  EXPECT_EQ(everything.find(password), std::string::npos) << "the password was written outside the keychain";
  EXPECT_NE(readFile(m_env.configDirectory() + "/keychain.json").find(password), std::string::npos);
  // What holds secrets or the user's history is the user's alone.
  for (const std::string& path : {m_env.configDirectory() + "/keychain.json", m_env.journalPath(),
                                  m_env.configDirectory() + "/agent.lock", m_env.root() + "/runtime/stellwin-backup"}) {
    struct stat info {};
    ASSERT_EQ(stat(path.c_str(), &info), 0) << path;
    EXPECT_EQ(info.st_mode & 077, 0u) << path;
  }

  // Without the daemon: other changes keep it; a new one from stdin replaces it, without its line ending.
  runJSON({"target", "set", "NAS", "--type", "ftp", "--port", "2121"});
  EXPECT_NE(readFile(m_env.configDirectory() + "/keychain.json").find(password), std::string::npos);
  ASSERT_EQ(runProgram({"target", "set", "NAS", "--password-stdin"}, "other-secret\r\n").status, 0);
  const std::string renewed = readFile(m_env.configDirectory() + "/keychain.json");
  EXPECT_TRUE(renewed.find(password) == std::string::npos && renewed.find("\"other-secret\"") != std::string::npos);
}

}  // namespace
