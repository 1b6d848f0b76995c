#include "host/cli/QVPasswordInput.h"

#include <termios.h>
#include <unistd.h>

#include <csignal>

namespace {

// The terminal's settings while echo is off, so that an interrupt does not leave it silent.
termios g_savedTerminal{};

void restoreTerminalAndDie(int signal) {
  tcsetattr(STDIN_FILENO, TCSAFLUSH, &g_savedTerminal);
  std::signal(signal, SIG_DFL);
  std::raise(signal);
}

}  // namespace

namespace qv {

std::optional<std::string> readPasswordLine(std::FILE* stream) {
  std::string line;
  for (;;) {
    const int c = std::fgetc(stream);
    if (c == EOF) {
      if (std::ferror(stream)) return std::nullopt;
      break;
    }
    if (c == '\n') break;
    line.push_back(static_cast<char>(c));
  }
  if (!line.empty() && line.back() == '\r') line.pop_back();
  return line;
}

bool canPromptForPassword() { return isatty(STDIN_FILENO) == 1; }

std::optional<std::string> promptForPassword(const std::string& prompt) {
  if (!canPromptForPassword()) return std::nullopt;
  if (tcgetattr(STDIN_FILENO, &g_savedTerminal) != 0) return std::nullopt;
  std::fputs(prompt.c_str(), stderr);
  std::fflush(stderr);
  termios quiet = g_savedTerminal;
  quiet.c_lflag &= ~static_cast<tcflag_t>(ECHO);
  quiet.c_lflag |= ECHONL;
  auto previousInt = std::signal(SIGINT, restoreTerminalAndDie);
  auto previousTerm = std::signal(SIGTERM, restoreTerminalAndDie);
  std::optional<std::string> line;
  if (tcsetattr(STDIN_FILENO, TCSAFLUSH, &quiet) == 0) {
    line = readPasswordLine(stdin);
    tcsetattr(STDIN_FILENO, TCSAFLUSH, &g_savedTerminal);
  }
  std::signal(SIGINT, previousInt);
  std::signal(SIGTERM, previousTerm);
  return line;
}

}  // namespace qv
