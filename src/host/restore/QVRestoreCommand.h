// QVRestoreCommand carries out `restore` and `verify`. Both read a version of a group back from the
// group's destination, a folder level at a time, and never write to the destination:
//   restore  writes the version (or the given paths of it) into a folder that is new or empty, keeping
//            contents byte for byte, and modes, times and symbolic links where the destination kept them;
//   verify   compares every file of the version with the group's sources as they are now: a source
//            unchanged since the version was made must match byte for byte; files changed, added or
//            gone since are reported, not counted as errors.
// Exit status: 0 done (verify: no error), 1 failed, 2 bad usage or a refused target folder, 130 after
// Ctrl-C, which cancels the reading and removes nothing already restored.
// Main thread; the reading runs on a thread of its own while the main loop waits for it and for Ctrl-C.
#pragma once

#include <iosfwd>
#include <string>

#include "host/cli/QVCommandLine.h"

class QVBackupAgent;

class QVRestoreCommand {
 public:
  QVRestoreCommand(QVBackupAgent& agent, std::ostream& out, std::ostream& err);
  int run(const QVCommandOptions& options);

 private:
  QVBackupAgent& m_agent;
  std::ostream& m_out;
  std::ostream& m_err;
};
