// QVProgram wires stellwin-backup together for one command: the host application first, then the agent
// on it, then the run monitor as the agent's delegate; it runs the command and, unless the command
// refused its arguments, writes the preferences (only when something changed) before the agent goes.
// On the first run the agent makes the default destination in memory: it is saved then, so that later
// runs find the same one. Main thread.
#pragma once

#include <string>
#include <vector>

#include "host/QVCommandLine.h"

class QVProgram {
 public:
  // arguments: the program's own argv (the daemon starts itself anew with it).
  explicit QVProgram(std::vector<std::string> arguments);
  // Returns the exit status.
  int run(const QVCommandOptions& options);

 private:
  std::vector<std::string> m_arguments;
};
