// Runs the built stellwin-backup (QV_TEST_PROGRAM) as a user would, in a home of the fixture's own, and
// captures its exit status (128 + signal when killed by one), standard output and standard error.
#pragma once

#include <fcntl.h>
#include <glib.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <pty.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <filesystem>
#include <functional>
#include <nlohmann/json.hpp>

#include "support/QVTestSupport.h"

namespace qvtest {

struct ProgramResult {
  int status = -1;
  std::string out, err;
};

// Standard input is a pipe holding input; on a terminal, out has both streams and input is unused.
// launcher: a program (absolute path) and its arguments that start the program, e.g. setpriv.
struct RunningProgram : ProgramResult {
  explicit RunningProgram(std::vector<std::string> arguments, const std::string& input = "",
                          const std::string& directory = "", bool terminal = false,
                          const std::vector<std::string>& launcher = {}) {
    arguments.insert(arguments.begin(), QV_TEST_PROGRAM);  // all made before fork: the child may not allocate
    arguments.insert(arguments.begin(), launcher.begin(), launcher.end());
    std::vector<char*> argv(arguments.size() + 1);  // ending with a null pointer
    std::transform(arguments.begin(), arguments.end(), argv.begin(), [](auto& argument) { return argument.data(); });
    int p[6];  // stdin, stdout and stderr, each a pipe of a read and a write end
    if (pipe(p) || pipe(p + 2) || pipe(p + 4) || (pid = terminal ? forkpty(m_fds, 0, 0, 0) : fork()) < 0)
      throw std::runtime_error("cannot start the program");
    if (pid == 0) {
      if (!terminal) dup2(p[0], 0), dup2(p[3], 1), dup2(p[5], 2);
      for (int fd : p) close(fd);
      if (directory.empty() || chdir(directory.c_str()) == 0) execv(argv[0], argv.data());
      _exit(127);
    }
    if (!terminal) m_fds[0] = dup(p[2]), m_fds[1] = dup(p[4]);
    if (write(p[1], input.data(), input.size()) < 0) ADD_FAILURE() << "stdin";  // small inputs fit the pipe
    for (int fd : p) close(fd);
    for (int fd : m_fds) fcntl(fd, F_SETFL, O_NONBLOCK);
  }
  ~RunningProgram() {
    if (status < 0) kill(pid, SIGKILL), waitpid(pid, nullptr, 0);
    close(m_fds[0]), close(m_fds[1]);
  }

  // Reads its output and runs this thread's GLib main context until condition holds, it ends, or time is up.
  bool waitFor(const std::function<bool()>& condition, std::chrono::milliseconds timeout) {
    for (auto deadline = std::chrono::steady_clock::now() + timeout;;) {
      if (int raw = 0; status < 0 && waitpid(pid, &raw, WNOHANG) == pid)
        status = WIFEXITED(raw) ? WEXITSTATUS(raw) : 128 + WTERMSIG(raw);
      for (int i : {0, 1})  // until nothing is left for now, or a terminal is gone
        for (char buffer[8192]; ssize_t n = read(m_fds[i], buffer, sizeof buffer);)
          if (n < 0)
            break;
          else
            (i ? err : out).append(buffer, n);
      if (condition() || status >= 0 || std::chrono::steady_clock::now() > deadline) return condition();
      pollfd fds[2] = {{m_fds[0], POLLIN, 0}, {m_fds[1], POLLIN, 0}};
      for (poll(fds, 2, 10); g_main_context_iteration(nullptr, FALSE);) continue;
    }
  }
  // Waits for the program's end, killing it after the timeout (status 137).
  ProgramResult finish(std::chrono::milliseconds timeout = std::chrono::seconds(120)) {
    if (!waitFor([this] { return status >= 0; }, timeout)) kill(pid, SIGKILL), waitpid(pid, nullptr, 0), status = 137;
    return *this;
  }
  pid_t pid = -1;
  int m_fds[2] = {-1, -1};
};

inline ProgramResult runProgram(const std::vector<std::string>& arguments, const std::string& input = "",
                                const std::string& directory = "") {
  return RunningProgram(arguments, input, directory).finish();
}

// As a user who cannot read a file of mode 000: root runs the program as "nobody" (65534), after making
// the whole test folder its own; anyone else is such a user already.
inline ProgramResult runProgramAsUser(const std::vector<std::string>& arguments, const std::string& root) {
  if (geteuid() != 0) return runProgram(arguments);
  // The runtime folder stays root's: that user gets one of its own, as every user has.
  for (const auto& entry : std::filesystem::recursive_directory_iterator(root))
    if (!entry.path().string().starts_with(root + "/runtime") && lchown(entry.path().c_str(), 65534, 65534) != 0)
      ADD_FAILURE() << entry.path();
  if (lchown(root.c_str(), 65534, 65534) != 0) ADD_FAILURE() << root;
  return RunningProgram(arguments, "", "", false,
                        {"/usr/bin/env", "XDG_RUNTIME_DIR=" + root + "/runtime-user", "/usr/bin/setpriv",
                         "--reuid=65534", "--regid=65534", "--clear-groups"})
      .finish();
}

// A fixture with a home, preferences and keychain of its own, set up through the program itself.
class HostTest : public ::testing::Test {
 protected:
  IsolatedEnvironment m_env;

  std::string backups() const { return m_env.home() + "/Documents/Stellwin Backups"; }
  std::string makeFile(const std::string& name, const std::string& text = "data", std::uintmax_t size = 0) {
    writeFile(m_env.home() + "/" + name, text);
    if (size) std::filesystem::resize_file(m_env.home() + "/" + name, size);  // sparse: long to copy, quick to make
    return m_env.home() + "/" + name;
  }
  nlohmann::json runJSON(const std::vector<std::string>& arguments) {
    ProgramResult result = runProgram(arguments);
    EXPECT_EQ(result.status, 0) << result.err;
    return nlohmann::json::parse(result.out, nullptr, false);
  }
  // Scheduled, and last attempted long ago: due the moment a daemon starts.
  void makeDue(const std::string& title, const std::string& schedule = "daily@03:00") {
    runJSON({"group", "set", title, "--schedule", schedule});
    editStoredGroup(title, [](nlohmann::json& g) {
      g["lastBackupAttemptDate"] = {{"$date", "2020-01-01T00:00:00.000Z"}};
    });
  }
  // Changes the stored record of the group titled title, as a hand edit or an older version would.
  void editStoredGroup(const std::string& title, const std::function<void(nlohmann::json& group)>& change) {
    nlohmann::json preferences = nlohmann::json::parse(readFile(m_env.preferencesPath()));
    for (auto& group : preferences["QVBackupAgent"]["groups"])
      if (group["title"] == title) change(group);
    writeFile(m_env.preferencesPath(), preferences.dump(2));
  }
  bool copying(const std::string& group, const std::string& file) const {  // whether its copy has begun
    std::error_code ec;
    std::filesystem::recursive_directory_iterator all(backups() + "/" + group, ec);
    return std::any_of(begin(all), end(all), [&](const auto& entry) { return entry.path().filename() == file; });
  }
};

}  // namespace qvtest
