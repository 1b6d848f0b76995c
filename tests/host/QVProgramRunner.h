// Runs the built stellwin-backup (QV_TEST_PROGRAM) as a user would, in a home of the fixture's own, and
// captures its exit status (128 + signal when killed by one), standard output and standard error.
#pragma once

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <pty.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <functional>
#include <nlohmann/json.hpp>
#include <stdexcept>

#include "support/QVTestSupport.h"

namespace qvtest {

struct ProgramResult {
  int status = -1;
  std::string out, err;
};

// Standard input is a pipe holding input; on a terminal, both streams go to out() and input is unused.
class RunningProgram {
 public:
  explicit RunningProgram(std::vector<std::string> arguments, const std::string& input = "",
                          const std::string& directory = "", bool terminal = false) {
    // Everything the child needs is made before fork: a threaded parent's child may not allocate.
    arguments.insert(arguments.begin(), QV_TEST_PROGRAM);
    std::vector<char*> argv;
    for (auto& argument : arguments) argv.push_back(argument.data());
    argv.push_back(nullptr);
    int in[2], out[2], err[2];
    if (pipe(in) || pipe(out) || pipe(err)) throw std::runtime_error("pipe");
    m_pid = terminal ? forkpty(&m_fds[0], nullptr, nullptr, nullptr) : fork();
    if (m_pid < 0) throw std::runtime_error("fork");
    if (m_pid == 0) {
      if (!terminal) dup2(in[0], 0), dup2(out[1], 1), dup2(err[1], 2);
      for (int fd : {in[0], in[1], out[0], out[1], err[0], err[1]}) close(fd);
      if (directory.empty() || chdir(directory.c_str()) == 0) execv(argv[0], argv.data());
      _exit(127);
    }
    if (!terminal) m_fds[0] = dup(out[0]), m_fds[1] = dup(err[0]);
    if (write(in[1], input.data(), input.size()) < 0) ADD_FAILURE() << "stdin";  // small inputs fit the pipe
    for (int fd : {in[0], in[1], out[0], out[1], err[0], err[1]}) close(fd);
    for (int fd : m_fds) fcntl(fd, F_SETFL, O_NONBLOCK);
  }
  ~RunningProgram() {
    if (m_result.status < 0) kill(m_pid, SIGKILL), waitpid(m_pid, nullptr, 0);
    for (int fd : m_fds) close(fd);
  }
  RunningProgram(const RunningProgram&) = delete;

  const std::string& out() const { return m_result.out; }
  const std::string& err() const { return m_result.err; }
  void signal(int number) { kill(m_pid, number); }

  // Reads what the program writes (calling idle between reads) until condition holds, it ends, or time is up.
  bool waitFor(const std::function<bool()>& condition, std::chrono::milliseconds timeout,
               const std::function<void()>& idle = nullptr) {
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    for (;;) {
      int raw = 0;
      if (m_result.status < 0 && waitpid(m_pid, &raw, WNOHANG) == m_pid)
        m_result.status = WIFEXITED(raw) ? WEXITSTATUS(raw) : 128 + WTERMSIG(raw);
      for (int i : {0, 1})
        for (char buffer[8192]; int n = read(m_fds[i], buffer, sizeof buffer);) {
          if (n < 0) break;  // nothing more for now, or a terminal that is gone
          (i ? m_result.err : m_result.out).append(buffer, n);
        }
      if (condition() || m_result.status >= 0 || std::chrono::steady_clock::now() > deadline) return condition();
      pollfd fds[2] = {{m_fds[0], POLLIN, 0}, {m_fds[1], POLLIN, 0}};
      poll(fds, 2, idle ? 10 : 50);
      if (idle) idle();
    }
  }

  // Waits for the program's end, killing it after the timeout (status 137).
  ProgramResult finish(std::chrono::milliseconds timeout = std::chrono::seconds(120),
                       const std::function<void()>& idle = nullptr) {
    if (!waitFor([this] { return m_result.status >= 0; }, timeout, idle))
      kill(m_pid, SIGKILL), waitpid(m_pid, nullptr, 0), m_result.status = 137;
    return m_result;
  }

 private:
  pid_t m_pid = -1;
  int m_fds[2] = {-1, -1};
  ProgramResult m_result;
};

inline ProgramResult runProgram(const std::vector<std::string>& arguments, const std::string& input = "",
                                const std::string& directory = "") {
  return RunningProgram(arguments, input, directory).finish();
}

// A fixture with a home, preferences and keychain of its own, set up through the program itself.
class HostTest : public ::testing::Test {
 protected:
  IsolatedEnvironment m_env;

  std::string backups() const { return m_env.home() + "/Documents/Stellwin Backups"; }
  std::string makeFile(const std::string& relative, const std::string& text = "data") {
    writeFile(m_env.home() + "/" + relative, text);
    return m_env.home() + "/" + relative;
  }
  std::string makeSparseFile(const std::string& relative, std::uintmax_t size) {  // long to copy, quick to make
    std::filesystem::resize_file(makeFile(relative, ""), size);
    return m_env.home() + "/" + relative;
  }
  // Runs a command that must succeed; returns its output parsed as JSON (if it is).
  nlohmann::json runJSON(const std::vector<std::string>& arguments, const std::string& directory = "") {
    ProgramResult result = runProgram(arguments, "", directory);
    EXPECT_EQ(result.status, 0) << result.err;
    return nlohmann::json::parse(result.out, nullptr, false);
  }
  // Scheduled, and last attempted long ago: due the moment a daemon starts.
  void makeDue(const std::string& title, const std::string& schedule = "daily@03:00") {
    runJSON({"group", "set", title, "--schedule", schedule});
    nlohmann::json preferences = nlohmann::json::parse(readFile(m_env.preferencesPath()));
    for (auto& group : preferences["QVBackupAgent"]["groups"])
      if (group["title"] == title) group["lastBackupAttemptDate"] = {{"$date", "2020-01-01T00:00:00.000Z"}};
    writeFile(m_env.preferencesPath(), preferences.dump(2));
  }
  // Whether the copy of a group's file has begun.
  bool copying(const std::string& group, const std::string& file) const {
    std::error_code ec;
    for (const auto& entry : std::filesystem::recursive_directory_iterator(backups() + "/" + group, ec))
      if (entry.path().filename() == file) return true;
    return false;
  }
};

}  // namespace qvtest
