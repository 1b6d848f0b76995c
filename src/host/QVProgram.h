// QVProgram wires stellwin-backup together for one command. When a daemon runs for the user, the
// command goes to it (QVControlClient) and this process loads no agent of its own; restore and verify
// only have the daemon hold their group and read the destination here, without writing the preferences.
// Otherwise the program takes the user's agent lock (QVAgentLock) (waiting up to kLockWait for another command to
// finish), then makes the host application, the agent on it and the run monitor as the agent's delegate;
// it runs the command and, unless the command refused its arguments, writes the preferences (only when
// something changed) before the agent goes. The daemon runs this way too, and keeps the lock.
// On the first run the agent makes the default destination in memory: it is saved then, so that later
// runs find the same one. Main thread.
#pragma once

#include <chrono>
#include <string>
#include <vector>

#include "host/cli/QVCommandLine.h"

class QVAgentLock;

class QVProgram {
 public:
  static constexpr std::chrono::seconds kLockWait{10};

  // arguments: the program's own argv (the daemon starts itself anew with it).
  explicit QVProgram(std::vector<std::string> arguments);
  // Returns the exit status.
  int run(const QVCommandOptions& options);

 private:
  // Runs the command with an agent in this process. lock: held by this process (nullptr: read only).
  int runHere(const QVCommandOptions& options, QVAgentLock* lock, const std::string& socketPath);

  std::vector<std::string> m_arguments;
};
