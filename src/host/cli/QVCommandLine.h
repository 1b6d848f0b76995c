// QVCommandLine is the grammar of stellwin-backup: its commands, their arguments and options, and their
// --help texts (CLI11). It only reads the arguments into QVCommandOptions; whether a group or a
// destination exists is for the commands to check. Parse errors never escape as exceptions: they end
// in one line on stderr and exit status 2. Main thread.
#pragma once

#include <iosfwd>
#include <memory>
#include <optional>
#include <string>
#include <vector>

enum class QVCommand {
  summary,  // no command: the groups and destinations at a glance
  groupAdd,
  groupList,
  groupShow,
  groupSet,
  groupRemove,
  groupRemoveItems,
  targetAdd,
  targetList,
  targetSet,
  targetRemove,
  versions,
  backup,
  daemon,
  menu,
  restore,
  verify,
  log,
  status,
  cancel,
  files,
};

// The arguments of the chosen command. Options that were not given stay nullopt.
struct QVCommandOptions {
  QVCommand command = QVCommand::summary;
  bool json = false;
  bool ids = false;      // --ids: tables show each record's identifier
  bool verbose = false;  // --verbose: diagnostics on stderr too

  std::string name;                 // group add NAME
  std::string group;                // GROUP of group show/set/remove/remove-items, versions, log ("" for all)
  std::string target;               // TARGET of target set/remove
  std::vector<std::string> paths;   // PATH... of group add/remove-items
  std::vector<std::string> groups;  // GROUP... of backup, cancel
  std::string menuEntry;            // menu GROUP ENTRY (GROUP in group): the entry to perform

  // group set
  std::optional<std::string> title;
  std::optional<std::string> groupTarget;
  std::optional<std::string> versions;
  std::optional<std::string> schedule;
  bool yes = false;  // --yes: the user means a setting that removes backups

  // target add / target set (title shared with group set)
  std::optional<std::string> type;
  std::optional<std::string> path;
  std::optional<std::string> server;
  std::optional<std::string> port;
  std::optional<std::string> user;
  bool passwordStdin = false;
  bool makeDefault = false;
  std::optional<std::string> url;     // webdav
  std::optional<std::string> caFile;  // webdav
  bool allowPlainHTTP = false;        // webdav

  // target remove
  std::optional<std::string> groupsTo;  // --groups-to: the destination its groups move to
  bool force = false;                   // --force: remove it although groups use it

  // restore / verify (GROUP in group, PATH... of restore in paths)
  std::optional<std::string> version;
  std::string restoreFolder;

  // Filled by the program, not from arguments: the password read before a command is handed to the
  // daemon, whether the command runs in the daemon for another process (which then never reads the
  // terminal or standard input itself), and whether the output may carry colours.
  std::optional<std::string> suppliedPassword;
  bool remote = false;
  bool colour = false;
  // The folder that relative paths in the arguments are read from: the working folder of the process
  // that was invoked ("" for this process's own).
  std::string folder;
};

class QVCommandLine {
 public:
  QVCommandLine();
  ~QVCommandLine();
  QVCommandLine(const QVCommandLine&) = delete;
  QVCommandLine& operator=(const QVCommandLine&) = delete;

  // Reads argv. nullopt: go on with options(). Otherwise the program ends with the returned status:
  // 0 after --help or --version (printed to out), 2 after a usage error (one line on err).
  std::optional<int> parse(int argc, char** argv, std::ostream& out, std::ostream& err);
  const QVCommandOptions& options() const { return m_options; }

  // The top-level help text.
  std::string help() const;

 private:
  struct Impl;
  std::unique_ptr<Impl> m_impl;
  QVCommandOptions m_options;
};
