// QVRestoreCommand carries out `restore`, `verify` and `files`. Each reads a version of a group back from
// the group's destination, a folder level at a time, and never writes to the destination:
//   restore  writes the version (or the given paths of it) into a folder that is new or empty, keeping
//            contents byte for byte, and modes, times and symbolic links where the destination kept them;
//   verify   compares every file of the version with the group's sources as they are now: a source
//            unchanged since the version was made must match byte for byte; files changed, added or
//            gone since are reported, not counted as errors;
//   files    lists one folder of the version (its top by default), with sizes and times.
// Each takes the newest complete version unless --version names another; a partial one (its run was
// cancelled or failed) only when named, with a warning. Paths may be given inside the version or as
// the files' own absolute paths.
// Exit status: 0 done (verify: no error), 1 failed, 2 bad usage or a refused target folder, 130 after
// Ctrl-C, which cancels the reading and removes nothing already restored.
// Main thread; the reading runs on a thread of its own while the main loop waits for it and for Ctrl-C.
#pragma once

#include <iosfwd>
#include <string>

#include "host/cli/QVCommandLine.h"

class QVBackupAgent;
class QVBackupTarget;
struct QVGroup;

class QVRestoreCommand {
 public:
  QVRestoreCommand(QVBackupAgent& agent, std::ostream& out, std::ostream& err);
  int run(const QVCommandOptions& options);

 private:
  struct Reading;  // one reading of a version, shared by its worker and the main thread

  // files: the entries of one folder of the version (or one file), with sizes and times.
  int listFiles(QVBackupTarget& target, const QVGroup& group, const std::string& version,
                const QVCommandOptions& options);
  // The version to read: the one --version names, else the newest complete one. 0, or the exit status
  // of a refusal already told.
  int chooseVersion(QVBackupTarget& target, const QVGroup& group, const QVCommandOptions& options,
                    std::string& version);
  // What the reading did: JSON, or the problems on stderr and a summary line.
  void report(Reading& reading, bool restoring, bool interrupted, bool json);
  // "stellwin-backup: <line>" on stderr; returns status.
  int fail(const std::string& line, int status);

  QVBackupAgent& m_agent;
  std::ostream& m_out;
  std::ostream& m_err;
};
