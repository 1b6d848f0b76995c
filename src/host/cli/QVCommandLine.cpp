#include "host/cli/QVCommandLine.h"

#include <functional>

#include <CLI/CLI.hpp>
#include <ostream>

#include "host/cli/QVHostArguments.h"

namespace {

constexpr const char* kProgram = "stellwin-backup";

constexpr const char* kVersionHelp =
    "its name (with or without \".backup\"), a unique beginning of it, or \"latest\"; default: the newest complete "
    "version";
constexpr const char* kGroupHelp =
    "GROUP is a group's identifier or its title; a title that several groups share must be given as an "
    "identifier.";
constexpr const char* kTargetHelp =
    "TARGET is a destination's identifier or its title; a title that several destinations share must be given "
    "as an identifier.";

constexpr const char* kDaemonFooter =
    "Runs the scheduled backups until stopped. One line is logged to stderr per run that starts and per "
    "outcome.\n"
    "Signals:\n"
    "  SIGTERM, SIGINT  cancel the running backups, wait for them to end, save and exit with status 0\n"
    "  SIGUSR1          re-arm every group's timer, as after the computer woke from sleep\n"
    "  SIGHUP           read the preferences again (after the file was changed by hand)\n"
    "While it runs, the other commands are carried out by it (through a socket in $XDG_RUNTIME_DIR);\n"
    "a second daemon for the same user refuses to start.";

constexpr const char* kScheduleHelp =
    "manual, hourly[:MM], daily[@HH:MM], weekly[@DAY[@HH:MM]] (DAY mon..sun or 1..7) or monthly[@D[@HH:MM]]";

}  // namespace

struct QVCommandLine::Impl {
  CLI::App app{
      "Stellwin Backup: copies groups of files and folders to a folder, a WebDAV server or an FTP "
      "server, on request or on a schedule.",
      kProgram};

  // Values as CLI11 fills them; copied into the options after a successful parse.
  std::string name, group, target, title, groupTarget, versions, schedule, type, path, server, port, user, url, caFile;
  std::vector<std::string> paths, groups;
  bool json = false, ids = false, passwordStdin = false, makeDefault = false, yes = false, force = false,
       allowPlainHTTP = false, verbose = false;

  CLI::App* groupCommand = nullptr;
  CLI::App* groupAdd = nullptr;
  CLI::App* groupList = nullptr;
  CLI::App* groupShow = nullptr;
  CLI::App* groupSet = nullptr;
  CLI::App* groupRemove = nullptr;
  CLI::App* groupRemoveItems = nullptr;
  CLI::App* targetCommand = nullptr;
  CLI::App* targetAdd = nullptr;
  CLI::App* targetList = nullptr;
  CLI::App* targetSet = nullptr;
  CLI::App* targetRemove = nullptr;
  CLI::App* versionsCommand = nullptr;
  CLI::App* backup = nullptr;
  CLI::App* daemon = nullptr;
  CLI::App* menu = nullptr;
  CLI::App* restore = nullptr;
  CLI::App* verify = nullptr;
  std::string restoreFolder, version, menuEntry, groupsTo;
  CLI::App* log = nullptr;
  CLI::App* status = nullptr;
  CLI::App* cancel = nullptr;
  CLI::App* files = nullptr;

  // Options given, by the member they fill.
  std::vector<std::pair<CLI::Option*, std::optional<std::string> QVCommandOptions::*>> optionalValues;

  void addJSON(CLI::App* command) { command->add_flag("--json", json, "Print JSON instead of a table"); }
  void addIDs(CLI::App* command) { command->add_flag("--ids", ids, "Show each record's identifier in the table"); }

  void addOptional(CLI::App* command, const std::string& flag, std::string& value,
                   std::optional<std::string> QVCommandOptions::*member, const std::string& help) {
    optionalValues.emplace_back(command->add_option(flag, value, help), member);
  }

  void addTargetOptions(CLI::App* command, bool required) {
    auto add = [&](const std::string& flag, std::string& value, std::optional<std::string> QVCommandOptions::*member,
                   const std::string& help, bool isRequired) {
      CLI::Option* option = command->add_option(flag, value, help);
      if (isRequired) option->required();
      optionalValues.emplace_back(option, member);
    };
    add("--type", type, &QVCommandOptions::type, "Kind of destination: local, dav, webdav, ftp or ftps", required);
    add("--title", title, &QVCommandOptions::title, "Name shown for the destination", required);
    add("--path", path, &QVCommandOptions::path, "Folder (local) or path on the server (all kinds but webdav)", false);
    add("--url", url, &QVCommandOptions::url,
        "webdav: the folder's address as the server shows it, https://host[:port]/path (no credentials)", false);
    add("--ca-file", caFile, &QVCommandOptions::caFile,
        "webdav: a PEM file of one more certificate authority (or a self-signed server's certificate) to trust "
        "for this destination alone",
        false);
    command->add_flag("--allow-plain-http", allowPlainHTTP,
                      "webdav: send the password over plain http:// (anyone on the network can read it)");
    add("--server", server, &QVCommandOptions::server, "Host name of the server (dav, ftp, ftps)", false);
    add("--port", port, &QVCommandOptions::port, "Port of the server, 1-65535 (default: the protocol's own)", false);
    add("--user", user, &QVCommandOptions::user,
        "User name on the server; the password is then asked for on the terminal", false);
    command->add_flag("--password-stdin", passwordStdin,
                      "Read the password from the first line of standard input (never from the arguments)");
    command->add_flag("--default", makeDefault, "Make this the default destination of new groups");
  }

  Impl() {
    addIDs(&app);
    app.set_version_flag("--version", std::string(kProgram) + " " + "0.1.0");
    app.add_flag("--verbose", verbose, "Also print diagnostics (the daemon always writes them to its log)");
    // --verbose may follow the command too; subcommands made from here on pass it up.
    app.fallthrough();

    groupCommand = app.add_subcommand("group", "Add, list, show, change and remove backup groups");
    groupCommand->require_subcommand(1);
    groupAdd = groupCommand->add_subcommand(
        "add", "Add files and folders to the group titled NAME (created when no group has that title)");
    groupAdd->add_option("NAME", name, "Title of the group")->required();
    groupAdd->add_option("PATH", paths, "Files and folders to add")->required();

    groupList = groupCommand->add_subcommand("list", "List the groups with their next scheduled run");
    addJSON(groupList);
    addIDs(groupList);

    groupShow = groupCommand->add_subcommand("show", "Show every field and item of a group");
    groupShow->add_option("GROUP", group, "The group")->required();
    groupShow->footer(kGroupHelp);
    addJSON(groupShow);

    groupSet = groupCommand->add_subcommand("set", "Change a group's title, destination, versions or schedule");
    groupSet->add_option("GROUP", group, "The group")->required();
    addOptional(groupSet, "--title", title, &QVCommandOptions::title, "New title");
    addOptional(groupSet, "--target", groupTarget, &QVCommandOptions::groupTarget, "Destination (identifier or title)");
    addOptional(groupSet, "--versions", versions, &QVCommandOptions::versions,
                "How many versions to keep, 1 to 100000 (0, with --yes, removes each backup right after it is made)");
    groupSet->add_flag("--yes", yes, "Confirm a setting that removes backups (--versions 0)");
    addOptional(groupSet, "--schedule", schedule, &QVCommandOptions::schedule, kScheduleHelp);
    groupSet->footer(kGroupHelp);

    groupRemove = groupCommand->add_subcommand("remove", "Remove a group (its backups stay at the destination)");
    groupRemove->add_option("GROUP", group, "The group")->required();
    groupRemove->footer(kGroupHelp);

    groupRemoveItems = groupCommand->add_subcommand("remove-items", "Remove items from a group");
    groupRemoveItems->add_option("GROUP", group, "The group")->required();
    groupRemoveItems->add_option("PATH", paths, "Items to remove, as added")->required();
    groupRemoveItems->footer(kGroupHelp);

    targetCommand =
        app.add_subcommand("destination", "Add, list, change and remove backup destinations (also: target)");
    targetCommand->alias("target");
    targetCommand->require_subcommand(1);
    targetAdd = targetCommand->add_subcommand("add", "Add a destination");
    addTargetOptions(targetAdd, true);

    targetList = targetCommand->add_subcommand("list", "List the destinations (never their passwords)");
    addJSON(targetList);
    addIDs(targetList);

    targetSet = targetCommand->add_subcommand("set", "Change a destination");
    targetSet->add_option("TARGET", target, "The destination")->required();
    addTargetOptions(targetSet, false);
    targetSet->footer(kTargetHelp);

    targetRemove = targetCommand->add_subcommand(
        "remove", "Remove a destination; one that groups use only with --groups-to or --force");
    targetRemove->add_option("TARGET", target, "The destination")->required();
    addOptional(targetRemove, "--groups-to", groupsTo, &QVCommandOptions::groupsTo,
                "Move the groups that use it to this destination first");
    targetRemove->add_flag(
        "--force", force, "Remove it although groups use it; they cannot be backed up until given another destination");
    targetRemove->footer(kTargetHelp);

    versionsCommand = app.add_subcommand("versions", "List the versions of a group at its destination");
    versionsCommand->add_option("GROUP", group, "The group")->required();
    versionsCommand->footer(kGroupHelp);
    addJSON(versionsCommand);

    backup = app.add_subcommand("backup", "Back up groups now and wait for their outcomes");
    backup->add_option("GROUP", groups, "The groups")->required();
    backup->footer(std::string(kGroupHelp) +
                   "\nCtrl-C (SIGINT) or SIGTERM cancels the running backups; the status is then 130.");
    addJSON(backup);

    daemon = app.add_subcommand(
        "daemon", "Run the user's agent until stopped: the scheduled backups, and every other command meanwhile");
    daemon->footer(kDaemonFooter);

    menu = app.add_subcommand("menu", "Print the status menu, or choose an entry of a group's submenu");
    menu->add_option("GROUP", group, "The group whose submenu holds ENTRY");
    menu->add_option("ENTRY", menuEntry,
                     "The entry to choose, as a click would: \"Backup Now\", \"No destination\", \"Cancel backup\" "
                     "or \"Remove group\"");
    menu->footer(std::string(kGroupHelp) + "\nOnly an entry the menu shows now can be chosen.");
    addJSON(menu);

    status = app.add_subcommand("status", "Show each group's state: idle or running, last outcome, next run");
    addJSON(status);
    addIDs(status);

    cancel = app.add_subcommand("cancel", "Cancel the running backups of groups, wherever they were started");
    cancel->add_option("GROUP", groups, "The groups")->required();
    cancel->footer(std::string(kGroupHelp) + "\nExit status 1 when a group was not being backed up.");

    restore = app.add_subcommand("restore", "Restore a version of a group into a new or empty folder");
    restore->add_option("GROUP", group, "The group")->required();
    restore->add_option("--to", restoreFolder, "Folder to restore into; it must not exist or be empty")->required();
    addOptional(restore, "--version", version, &QVCommandOptions::version,
                std::string("The version to restore: ") + kVersionHelp);
    restore->add_option("PATH", paths,
                        "Only these items or files: paths inside the version, or the files' own absolute paths");
    restore->footer(std::string(kGroupHelp) +
                    "\nNothing is ever overwritten. Ctrl-C cancels; what was restored stays; the status is then 130.");
    addJSON(restore);

    verify = app.add_subcommand("verify", "Check a version of a group against the group's files as they are now");
    verify->add_option("GROUP", group, "The group")->required();
    addOptional(verify, "--version", version, &QVCommandOptions::version,
                std::string("The version to check: ") + kVersionHelp);
    verify->footer(std::string(kGroupHelp) +
                   "\nEvery file of the version is read back. A file unchanged since the version was made must match"
                   "\nbyte for byte; files changed, added or removed since are listed, not counted as errors."
                   "\nExit status 0 when there is no error, 1 otherwise. Nothing is written to the destination.");
    addJSON(verify);
    files = app.add_subcommand("files", "List what a version of a group holds: names, sizes and times");
    files->add_option("GROUP", group, "The group")->required();
    addOptional(files, "--version", version, &QVCommandOptions::version, std::string("The version: ") + kVersionHelp);
    files
        ->add_option("PATH", paths,
                     "A folder inside the version, or its own absolute path (default: the version itself)")
        ->expected(0, 1);
    files->footer(kGroupHelp);
    addJSON(files);

    log = app.add_subcommand("log", "Show the outcomes of past backup runs, newest first");
    log->add_option("GROUP", group, "Only this group's runs");
    log->footer(std::string(kGroupHelp) + " A group that has been removed can be given by its former title.");
    addJSON(log);

    // Last: a subcommand takes its parent's footer when it is made.
    app.footer(
        "Without a command, prints the groups and destinations.\n"
        "Exit status: 0 done, 1 failed, 2 bad usage, 130 interrupted.");
  }

  // Why argv names no command, or "" when its command words are known: CLI11 would take an unknown
  // command for a stray argument and ask for a subcommand instead.
  std::string unknownCommand(int argc, char** argv) const {
    if (argc < 2 || argv[1][0] == '-') return "";
    const std::string first = argv[1];
    const CLI::App* command = nullptr;
    std::vector<std::string> names;
    for (const CLI::App* candidate : app.get_subcommands([](const CLI::App*) { return true; })) {
      if (candidate->check_name(first)) command = candidate;
      names.push_back(candidate->get_name());
    }
    if (!command)
      return "unknown command " + qv::quoted(first) + qv::didYouMean(first, names) + " (see \"" + kProgram +
             " --help\")";
    if ((command != groupCommand && command != targetCommand) || argc < 3 || argv[2][0] == '-') return "";
    const std::string second = argv[2];
    names.clear();
    for (const CLI::App* candidate : command->get_subcommands([](const CLI::App*) { return true; })) {
      if (candidate->get_name() == second) return "";
      names.push_back(candidate->get_name());
    }
    return "unknown command " + qv::quoted(first + " " + second) + qv::didYouMean(second, names) + " (see \"" +
           kProgram + " " + first + " --help\")";
  }

  QVCommand chosen() const {
    const std::pair<const CLI::App*, QVCommand> table[] = {
        {groupAdd, QVCommand::groupAdd},
        {groupList, QVCommand::groupList},
        {groupShow, QVCommand::groupShow},
        {groupSet, QVCommand::groupSet},
        {groupRemove, QVCommand::groupRemove},
        {groupRemoveItems, QVCommand::groupRemoveItems},
        {targetAdd, QVCommand::targetAdd},
        {targetList, QVCommand::targetList},
        {targetSet, QVCommand::targetSet},
        {targetRemove, QVCommand::targetRemove},
        {versionsCommand, QVCommand::versions},
        {backup, QVCommand::backup},
        {daemon, QVCommand::daemon},
        {menu, QVCommand::menu},
        {restore, QVCommand::restore},
        {verify, QVCommand::verify},
        {log, QVCommand::log},
        {status, QVCommand::status},
        {cancel, QVCommand::cancel},
        {files, QVCommand::files},
    };
    for (const auto& [command, value] : table)
      if (command->parsed()) return value;
    return QVCommand::summary;
  }
};

QVCommandLine::QVCommandLine() : m_impl(std::make_unique<Impl>()) {
  // --verbose may stand anywhere after the program's name.
  std::function<void(CLI::App*)> letThrough = [&](CLI::App* app) {
    for (CLI::App* command : app->get_subcommands([](CLI::App*) { return true; })) {
      command->fallthrough();
      letThrough(command);
    }
  };
  letThrough(&m_impl->app);
}

QVCommandLine::~QVCommandLine() = default;

std::string QVCommandLine::help() const { return m_impl->app.help(); }

std::optional<int> QVCommandLine::parse(int argc, char** argv, std::ostream& out, std::ostream& err) {
  Impl& impl = *m_impl;
  if (std::string unknown = impl.unknownCommand(argc, argv); !unknown.empty()) {
    err << kProgram << ": " << unknown << std::endl;
    return 2;
  }
  try {
    impl.app.parse(argc, argv);
  } catch (const CLI::CallForHelp& e) {
    std::string text = impl.app.help();
    out << text << (text.empty() || text.back() != '\n' ? "\n" : "");
    return 0;
  } catch (const CLI::CallForAllHelp& e) {
    std::string text = impl.app.help("", CLI::AppFormatMode::All);
    out << text << (text.empty() || text.back() != '\n' ? "\n" : "");
    return 0;
  } catch (const CLI::CallForVersion& e) {
    out << e.what() << "\n";
    return 0;
  } catch (const CLI::ParseError& e) {
    // The command whose --help explains the mistake.
    // (The command words are known: unknown ones were refused above.)
    std::string command = kProgram;
    if (argc > 1 && argv[1][0] != '-') {
      command += std::string(" ") + argv[1];
      const std::string first = argv[1];
      if (argc > 2 && argv[2][0] != '-' && (first == "group" || first == "target" || first == "destination"))
        command += std::string(" ") + argv[2];
    }
    err << kProgram << ": " << qv::singleLine(e.what()) << " (see \"" << command << " --help\")" << std::endl;
    return 2;
  } catch (const std::exception& e) {
    err << kProgram << ": " << qv::singleLine(e.what()) << std::endl;
    return 2;
  }

  QVCommandOptions options;
  options.command = impl.chosen();
  options.json = impl.json;
  options.ids = impl.ids;
  options.verbose = impl.verbose;
  options.name = impl.name;
  options.group = impl.group;
  options.target = impl.target;
  options.paths = impl.paths;
  options.groups = impl.groups;
  options.passwordStdin = impl.passwordStdin;
  options.makeDefault = impl.makeDefault;
  options.restoreFolder = impl.restoreFolder;
  options.yes = impl.yes;
  options.force = impl.force;
  options.menuEntry = impl.menuEntry;
  options.allowPlainHTTP = impl.allowPlainHTTP;
  options.verbose = impl.verbose;
  if (options.command == QVCommand::menu && options.group.empty() != options.menuEntry.empty()) {
    err << kProgram << ": menu needs both GROUP and ENTRY, or neither (see \"" << kProgram << " menu --help\")"
        << std::endl;
    return 2;
  }
  for (const auto& [option, member] : impl.optionalValues) {
    if (option->count() == 0) continue;
    // Only the parsed command's options have a count.
    options.*member = option->as<std::string>();
  }
  m_options = std::move(options);
  return std::nullopt;
}
