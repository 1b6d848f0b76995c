// Runs the built stellwin-backup (QV_TEST_PROGRAM) as a user would, in this process's environment (which
// qvtest::IsolatedEnvironment points at a temporary home), and captures its standard output, standard
// error and exit status. Standard input is a pipe holding the given text, never a terminal.
// A RunningProgram is for the tests that signal the program or talk to it while it runs.
#pragma once

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstring>
#include <functional>
#include <string>
#include <thread>
#include <vector>

namespace qvtest {

struct ProgramResult {
  int status = -1;  // exit status; 128 + signal when killed by one
  std::string out;
  std::string err;

  // The lines of err (without their newlines).
  std::vector<std::string> errLines() const {
    std::vector<std::string> lines;
    std::size_t start = 0;
    while (start < err.size()) {
      std::size_t end = err.find('\n', start);
      if (end == std::string::npos) end = err.size();
      lines.push_back(err.substr(start, end - start));
      start = end + 1;
    }
    return lines;
  }
};

class RunningProgram {
 public:
  explicit RunningProgram(const std::vector<std::string>& arguments, const std::string& input = "",
                          const std::string& workingDirectory = "") {
    // Everything the child needs is made before fork: a threaded parent's child may not allocate.
    std::string program = QV_TEST_PROGRAM;
    std::vector<std::string> copies = arguments;
    std::vector<char*> argv;
    argv.push_back(program.data());
    for (auto& argument : copies) argv.push_back(argument.data());
    argv.push_back(nullptr);
    int in[2], out[2], err[2];
    if (pipe(in) != 0 || pipe(out) != 0 || pipe(err) != 0) return;
    m_pid = fork();
    if (m_pid == 0) {
      dup2(in[0], 0);
      dup2(out[1], 1);
      dup2(err[1], 2);
      for (int fd : {in[0], in[1], out[0], out[1], err[0], err[1]}) close(fd);
      if (!workingDirectory.empty() && chdir(workingDirectory.c_str()) != 0) _exit(126);
      execv(argv[0], argv.data());
      _exit(127);
    }
    close(in[0]);
    close(out[1]);
    close(err[1]);
    // Small inputs fit the pipe; the program reads them when it wants.
    if (!input.empty()) {
      ssize_t ignored = write(in[1], input.data(), input.size());
      (void)ignored;
    }
    close(in[1]);
    m_out = out[0];
    m_err = err[0];
    fcntl(m_out, F_SETFL, O_NONBLOCK);
    fcntl(m_err, F_SETFL, O_NONBLOCK);
  }

  ~RunningProgram() {
    if (m_pid > 0 && m_status < 0) {
      kill(m_pid, SIGKILL);
      waitpid(m_pid, nullptr, 0);
    }
    if (m_out >= 0) close(m_out);
    if (m_err >= 0) close(m_err);
  }

  RunningProgram(const RunningProgram&) = delete;
  RunningProgram& operator=(const RunningProgram&) = delete;

  pid_t pid() const { return m_pid; }
  const std::string& out() const { return m_result.out; }
  const std::string& err() const { return m_result.err; }
  void signal(int number) { kill(m_pid, number); }

  // Reads what the program wrote, waiting up to waitMs for something.
  void pump(int waitMs = 50) {
    pollfd fds[2] = {{m_out, POLLIN, 0}, {m_err, POLLIN, 0}};
    if (poll(fds, 2, waitMs) <= 0) return;
    drain(m_out, m_result.out);
    drain(m_err, m_result.err);
  }

  // Pumps (and calls idle between reads) until condition holds or the time is up.
  bool waitFor(const std::function<bool()>& condition, std::chrono::milliseconds timeout,
               const std::function<void()>& idle = nullptr) {
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    while (std::chrono::steady_clock::now() < deadline) {
      if (condition()) return true;
      pump(idle ? 10 : 50);
      if (idle) idle();
      if (m_status < 0 && exited()) {
        drain(m_out, m_result.out);
        drain(m_err, m_result.err);
        return condition();
      }
    }
    return condition();
  }

  // Waits for the program's end (killing it after the timeout) and returns what it wrote.
  ProgramResult finish(std::chrono::milliseconds timeout = std::chrono::seconds(120),
                       const std::function<void()>& idle = nullptr) {
    if (!waitFor([this] { return m_status >= 0; }, timeout, idle)) {
      kill(m_pid, SIGKILL);
      int raw = 0;
      waitpid(m_pid, &raw, 0);
      m_status = 137;
    }
    drain(m_out, m_result.out);
    drain(m_err, m_result.err);
    m_result.status = m_status;
    return m_result;
  }

 private:
  bool exited() {
    int raw = 0;
    if (waitpid(m_pid, &raw, WNOHANG) != m_pid) return false;
    m_status = WIFEXITED(raw) ? WEXITSTATUS(raw) : 128 + WTERMSIG(raw);
    return true;
  }

  static void drain(int fd, std::string& into) {
    char buffer[8192];
    for (;;) {
      const ssize_t n = read(fd, buffer, sizeof buffer);
      if (n <= 0) return;
      into.append(buffer, static_cast<std::size_t>(n));
    }
  }

  pid_t m_pid = -1;
  int m_out = -1;
  int m_err = -1;
  int m_status = -1;
  ProgramResult m_result;
};

inline ProgramResult runProgram(const std::vector<std::string>& arguments, const std::string& input = "",
                                const std::string& workingDirectory = "") {
  RunningProgram program(arguments, input, workingDirectory);
  return program.finish();
}

}  // namespace qvtest
