#include "host/cli/QVRegistryCommands.h"

#include <sys/stat.h>

#include <algorithm>
#include <cctype>
#include <chrono>
#include <cstdio>
#include <functional>
#include <map>
#include <ostream>

#include "agent/QVBackupAgent.h"
#include "host/cli/QVBackupCommand.h"
#include "host/cli/QVDestinationChecks.h"
#include "host/cli/QVHostArguments.h"
#include "host/cli/QVPasswordInput.h"
#include "host/cli/QVRecordPrinter.h"
#include "host/run/QVReadableText.h"
#include "host/run/QVRecords.h"
#include "host/run/QVRunJournal.h"
#include "host/run/QVRunMonitor.h"
#include "host/run/QVVersionNames.h"
#include "platform/QVFoundation.h"
#include "platform/QVLog.h"
#include "platform/QVMenu.h"
#include "platform/QVPassedOverFolders.h"
#include "platform/QVSchedule.h"
#include "platform/QVStatusTexts.h"
#include "targets/QVWebDAVBackupTarget.h"

namespace {

constexpr const char* kProgram = "stellwin-backup";

bool isNetworkedType(const std::string& type) {
  return type == "dav" || type == "webdav" || type == "ftp" || type == "ftps";
}
bool isKnownType(const std::string& type) { return type == "local" || isNetworkedType(type); }

// A webdav destination's settings: its URL, the certificate file it trusts, and whether it may send a
// password over plain http. Another kind has none of them. "" when they are right, else why not.
std::string applyWebDAVOptions(const QVCommandOptions& options, QVTarget& target) {
  if (target.type != "webdav") {
    if (options.url) return "--url applies to a webdav destination only";
    if (options.caFile) return "--ca-file applies to a webdav destination only";
    if (options.allowPlainHTTP) return "--allow-plain-http applies to a webdav destination only";
    target.otherKeys.erase(kQVWebDAVURLKey);
    target.otherKeys.erase(kQVWebDAVCAFileKey);
    target.otherKeys.erase(kQVWebDAVAllowPlainHTTPKey);
    return "";
  }
  if (options.server || options.port || options.path)
    return "a webdav destination is given by --url (with its server, port and path), not by --server, --port or --path";
  if (options.url) {
    if (std::string problem = QVWebDAVBackupTarget::urlProblem(*options.url); !problem.empty())
      return "--url: " + problem;
    target.otherKeys[kQVWebDAVURLKey] = *options.url;
  }
  if (QVWebDAVBackupTarget::urlOfTarget(target).empty()) return "--url is required for a webdav destination";
  if (options.caFile) {
    if (options.caFile->empty()) {
      target.otherKeys.erase(kQVWebDAVCAFileKey);
    } else {
      const std::string path = qv::absolutePath(*options.caFile, options.folder);
      if (!qv::isReadableFileAtPath(path)) return "--ca-file: " + qv::quoted(path) + " cannot be read";
      target.otherKeys[kQVWebDAVCAFileKey] = path;
    }
  }
  if (options.allowPlainHTTP) target.otherKeys[kQVWebDAVAllowPlainHTTPKey] = true;
  return "";
}

bool contains(const std::vector<std::string>& list, const std::string& value) {
  return std::find(list.begin(), list.end(), value) != list.end();
}

QVDate now() { return std::chrono::system_clock::now(); }

// Whether two paths name one place: the same folder where both exist, else the same text without
// trailing slashes.
bool samePath(const std::string& a, const std::string& b) {
  struct stat first, second;
  if (::stat(a.c_str(), &first) == 0 && ::stat(b.c_str(), &second) == 0)
    return first.st_dev == second.st_dev && first.st_ino == second.st_ino;
  auto trimmed = [](std::string path) {
    while (path.size() > 1 && path.back() == '/') path.pop_back();
    return path;
  };
  return trimmed(a) == trimmed(b);
}

}  // namespace

QVRegistryCommands::QVRegistryCommands(QVBackupAgent& agent, std::ostream& out, std::ostream& err)
    : m_agent(agent), m_out(out), m_err(err) {}

int QVRegistryCommands::refuse(const std::string& line) {
  m_err << kProgram << ": " << qv::singleLine(line) << std::endl;
  return 2;
}

int QVRegistryCommands::fail(const std::string& line) {
  m_err << kProgram << ": " << qv::singleLine(line) << std::endl;
  return 1;
}

void QVRegistryCommands::warn(const std::string& line) {
  m_err << kProgram << ": warning: " << qv::singleLine(line) << std::endl;
}

int QVRegistryCommands::run(const QVCommandOptions& options) {
  switch (options.command) {
    case QVCommand::groupAdd:
      return groupAdd(options);
    case QVCommand::groupList:
      return groupList(options);
    case QVCommand::groupShow:
      return groupShow(options);
    case QVCommand::groupSet:
      return groupSet(options);
    case QVCommand::groupRemove:
      return groupRemove(options);
    case QVCommand::groupRemoveItems:
      return groupRemoveItems(options);
    case QVCommand::targetAdd:
      return targetAdd(options);
    case QVCommand::targetList:
      return targetList(options);
    case QVCommand::targetSet:
      return targetSet(options);
    case QVCommand::targetRemove:
      return targetRemove(options);
    case QVCommand::versions:
      return versions(options);
    case QVCommand::menu:
      return menu(options);
    case QVCommand::log:
      return log(options);
    case QVCommand::summary:
      return summary(options);
    case QVCommand::status:
      return status(options);
    case QVCommand::cancel:
      return cancel(options);
    case QVCommand::backup:
    case QVCommand::daemon:
    case QVCommand::restore:
    case QVCommand::verify:
    case QVCommand::files:
      break;
  }
  return refuse("internal error: not a registry command");
}

// ---------------------------------------------------------------------------------------------------
// Groups

std::string QVRegistryCommands::groupTitleRefusal(const std::string& title, const std::string& groupID) const {
  if (std::string problem = qv::groupTitleProblem(title); !problem.empty()) return problem;
  if (QVGroupRef other = qv::otherGroupTitled(m_agent, title, groupID))
    return "a group titled " + qv::quoted(title) + " exists already (" + other->identifier +
           "); groups with one title would share one folder at the destination and remove each other's versions";
  return "";
}

int QVRegistryCommands::groupAdd(const QVCommandOptions& options) {
  if (options.name.empty()) return refuse("a group needs a title; NAME must not be empty");
  // The agent adds to the first group with this title, or makes one with it.
  std::size_t titled = 0;
  for (const auto& group : m_agent.groups()) titled += group->title == options.name ? 1 : 0;
  if (titled == 0) {
    if (std::string problem = qv::groupTitleProblem(options.name); !problem.empty()) return refuse(problem);
  } else if (titled > 1) {
    return refuse(std::to_string(titled) + " groups are titled " + qv::quoted(options.name) +
                  "; give all but one a new title with \"stellwin-backup group set ID --title NEW\" first");
  }

  std::vector<std::string> existing;
  for (const auto& given : options.paths) {
    const std::string path = qv::absolutePath(given, options.folder);
    if (!qv::fileExistsAtPath(path)) {
      warn(qv::quoted(path) + " does not exist; not added");
      continue;
    }
    // The preferences hold text: such a path would be stored changed, and its item then be missing.
    if (!qv::isValidUTF8(path)) {
      warn(qv::quoted(path) +
           " is not added: its name is not valid UTF-8, which the preferences cannot keep; "
           "add the folder that holds it instead");
      continue;
    }
    if (!contains(existing, path)) existing.push_back(path);
  }
  if (existing.empty())
    return fail("nothing was added to " + qv::quoted(options.name) + ": none of the given paths exists");

  // The agent adds to the first group with this title, or makes one.
  std::vector<std::string> itemsBefore;
  for (const auto& group : m_agent.groups()) {
    if (group->title == options.name) {
      itemsBefore = group->items;
      break;
    }
  }
  m_agent.addItemsAtPaths(existing, options.name);

  QVGroupRef group;
  for (const auto& candidate : m_agent.groups()) {
    if (candidate->title == options.name) {
      group = candidate;
      break;
    }
  }
  if (!group) return fail("the group " + qv::quoted(options.name) + " could not be made");
  for (const auto& path : existing) {
    if (contains(itemsBefore, path))
      m_out << "already in the group: " << path << "\n";
    else if (contains(group->items, path))
      m_out << "added: " << path << "\n";
    else
      m_out << "already covered by a folder of the group: " << path << "\n";
  }
  // A version that held its destination would hold every version before it.
  qv::passOverOwnFolders(m_agent);
  for (const auto& path : existing)
    for (const auto& folder : qv::foldersPassedOverInside(path))
      m_out << "will be passed over (a backup destination or this program's own folder): " << folder << "\n";
  m_out << "group " << qv::quoted(group->title) << " (" << group->identifier << ") has " << group->items.size()
        << (group->items.size() == 1 ? " item" : " items") << "\n";
  if (!group->target || *group->target == "nil" || !m_agent.targetWithIdentifier(*group->target))
    warn("group " + qv::quoted(group->title) + " has no destination; set one with \"stellwin-backup group set " +
         group->identifier + " --target TARGET\"");
  return 0;
}

int QVRegistryCommands::groupList(const QVCommandOptions& options) {
  m_out << (options.json ? qv::groupsJSON(m_agent, now()) : qv::groupsTable(m_agent, now(), options.ids));
  noteWithoutDaemon(options, m_agent.groups());
  return 0;
}

void QVRegistryCommands::noteWithoutDaemon(const QVCommandOptions& options, const std::vector<QVGroupRef>& groups) {
  // A command carried out by the daemon comes from another process; any other runs without one.
  if (options.remote || options.json) return;
  const bool scheduled = std::any_of(groups.begin(), groups.end(), [&](const QVGroupRef& group) {
    return m_agent.timerFireDateForGroupWithID(group->identifier).has_value();
  });
  if (scheduled)
    m_out << "\nNo daemon is running, so scheduled backups will not start. Start it with \"stellwin-backup daemon\", "
             "or for every login with \"systemctl --user enable --now stellwin-backup\".\n";
}

int QVRegistryCommands::groupShow(const QVCommandOptions& options) {
  auto found = qv::findGroup(m_agent, options.group);
  if (!found.record) return refuse(found.error);
  m_out << (options.json ? qv::groupJSON(*found.record) : qv::groupDetails(m_agent, *found.record, now()));
  noteWithoutDaemon(options, {found.record});
  return 0;
}

int QVRegistryCommands::groupSet(const QVCommandOptions& options) {
  auto found = qv::findGroup(m_agent, options.group);
  if (!found.record) return refuse(found.error);
  if (!options.title && !options.groupTarget && !options.versions && !options.schedule)
    return refuse("nothing to change; give --title, --target, --versions or --schedule");

  // Everything is read before anything changes.
  auto changed = std::make_shared<QVGroup>(*found.record);
  if (options.title && *options.title != found.record->title) {
    if (std::string problem = groupTitleRefusal(*options.title, changed->identifier); !problem.empty())
      return refuse(problem);
    changed->title = *options.title;
  }
  if (options.groupTarget) {
    auto target = qv::findTarget(m_agent, *options.groupTarget);
    if (!target.record) return refuse(target.error);
    changed->target = target.record->identifier;
  }
  if (options.versions) {
    auto versions = qv::versionsArgument(*options.versions, options.yes);
    if (!versions.versions) return refuse(versions.error);
    changed->versions = *versions.versions;
    changed->otherKeys.erase("versions");  // an unreadable stored value is replaced
  }
  if (options.schedule) {
    std::string error;
    auto schedule = qv::scheduleFromSpec(*options.schedule, &error);
    if (!schedule) return refuse(error);
    changed->schedule = *schedule;
  }
  if (options.title && *options.title != found.record->title)
    warn("the versions already made stay in the destination's folder named after the old title");
  if (options.versions && changed->versions == 0u)
    warn("with --versions 0 every backup of group " + qv::quoted(changed->title) +
         " is removed right after it is made");

  m_agent.updateGroup(changed);
  m_out << "updated group " << qv::quoted(changed->title) << " (" << changed->identifier << ")\n";
  return 0;
}

int QVRegistryCommands::groupRemove(const QVCommandOptions& options) {
  auto found = qv::findGroup(m_agent, options.group);
  if (!found.record) return refuse(found.error);
  const QVGroupRef group = found.record;
  m_agent.removeGroupWithID(group->identifier);
  m_out << "removed group " << qv::quoted(group->title) << " (" << group->identifier
        << "); its versions stay at the destination\n";
  return 0;
}

int QVRegistryCommands::groupRemoveItems(const QVCommandOptions& options) {
  auto found = qv::findGroup(m_agent, options.group);
  if (!found.record) return refuse(found.error);
  const QVGroupRef group = found.record;
  std::vector<std::string> removing;
  std::vector<std::string> strangers;
  for (const auto& given : options.paths) {
    const std::string path = qv::absolutePath(given, options.folder);
    if (contains(group->items, path)) {
      if (!contains(removing, path)) removing.push_back(path);
    } else {
      strangers.push_back(path);
    }
  }
  if (removing.empty())
    return refuse((strangers.size() == 1 ? qv::quoted(strangers.front()) + " is not an item"
                                         : "none of the given paths is an item") +
                  std::string(" of group ") + qv::quoted(group->title));
  for (const auto& path : strangers) warn(qv::quoted(path) + " is not an item of group " + qv::quoted(group->title));
  m_agent.removeItemsWithPaths(removing, group->identifier);
  for (const auto& path : removing) m_out << "removed: " << path << "\n";
  m_out << "group " << qv::quoted(group->title) << " (" << group->identifier << ") has " << group->items.size()
        << (group->items.size() == 1 ? " item" : " items") << "\n";
  return 0;
}

// ---------------------------------------------------------------------------------------------------
// Destinations

std::string QVRegistryCommands::applyTargetOptions(const QVCommandOptions& options, QVTarget& target, bool isNew) {
  if (options.type) {
    if (!isKnownType(*options.type))
      return "unknown destination type " + qv::quoted(*options.type) + " (expected local, dav, webdav, ftp or ftps)";
    target.type = *options.type;
  }
  if (isNew && !options.path && target.type != "webdav") return "--path is required";
  if (options.title) {
    if (options.title->empty()) return "--title must not be empty";
    if (QVTargetRef other = qv::otherTargetTitled(m_agent, *options.title, target.identifier))
      return "a destination titled " + qv::quoted(*options.title) + " exists already (" + other->identifier + ")";
    target.title = *options.title;
  }
  if (options.path) {
    if (options.path->empty()) return "--path must not be empty";
    target.path = *options.path;
  }
  const bool networked = isNetworkedType(target.type);
  if (std::string problem = applyWebDAVOptions(options, target); !problem.empty()) return problem;
  // A user name given replaces the one before; an empty one drops it with its password.
  auto applyUser = [&]() -> std::string {
    if (options.user) {
      if (options.user->empty()) {
        target.user.reset();
        target.pass.reset();
      } else {
        target.user = *options.user;
      }
    }
    return options.passwordStdin && !target.user ? "--password-stdin needs --user" : "";
  };
  if (!networked) {
    // A local destination has no server, port or account.
    if (options.server) return "--server does not apply to a local destination";
    if (options.port) return "--port does not apply to a local destination";
    if (options.user) return "--user does not apply to a local destination";
    if (options.passwordStdin) return "--password-stdin does not apply to a local destination";
    target.path = qv::absolutePath(target.path, options.folder);
    target.server = "";
    target.port = 0;
    target.user.reset();
    target.pass.reset();
  } else if (target.type == "webdav") {
    // Its URL says where; a former dav or FTP destination's server, port and path no longer apply.
    target.server = "";
    target.port.reset();
    target.path.clear();
    if (std::string problem = applyUser(); !problem.empty()) return problem;
  } else {
    if (options.server) target.server = *options.server;
    if (!target.server || target.server->empty()) return "--server is required for a " + target.type + " destination";
    if (options.server && options.server->find_first_of("/ ") != std::string::npos)
      return "--server takes a host name, not " + qv::quoted(*options.server);
    if (options.port) {
      auto port = qv::portNumber(*options.port);
      if (!port) return "--port must be a whole number from 1 to 65535, not " + qv::quoted(*options.port);
      target.port = *port;
    } else if (target.port && *target.port == 0) {
      target.port.reset();  // a former local destination's 0: the protocol's own port
    }
    if (std::string problem = applyUser(); !problem.empty()) return problem;
  }

  // The password last: a refusal above must not have consumed standard input or asked for it.
  if (networked && target.user) {
    if (options.suppliedPassword) {
      target.pass = *options.suppliedPassword;
    } else if (options.passwordStdin && !options.remote) {  // for another process, it came with the request
      auto password = qv::readPasswordLine(stdin);
      if (!password) return "could not read the password from standard input";
      target.pass = *password;
    } else if (options.user && !options.user->empty() && !options.remote && qv::canPromptForPassword()) {
      auto password =
          qv::promptForPassword("Password for " + *target.user + " at " + target.server.value_or("") + ": ");
      target.pass = password.value_or("");
    } else if (isNew) {
      target.pass = "";
      warn("no password was given for " + qv::quoted(*target.user) + "; give one with --password-stdin");
    }
  }
  const std::string url = QVWebDAVBackupTarget::urlOfTarget(target);
  if (target.type == "webdav" && url.rfind("http://", 0) == 0 && target.user && !target.user->empty() && target.pass &&
      !target.pass->empty() && !QVWebDAVBackupTarget::allowsPlainHTTP(target))
    return "the password would travel over plain http:// to " + QVWebDAVBackupTarget::serverOfURL(url) +
           ", where anyone on the network between can read it and then use the account; give an https:// URL, "
           "or, on a network you trust, add --allow-plain-http";
  return "";
}

int QVRegistryCommands::refuseUnreadableDAV(const QVTarget& target, bool isNew) {
  const qv::QVDAVListingVerdict verdict = qv::checkDAVListing(target);
  if (verdict.unreadable) return refuse(verdict.message);
  if (verdict.unreachable)
    warn("the server of destination " + qv::quoted(target.title) +
         " could not be reached, so its listing was not "
         "checked; " +
         (isNew ? "it is added all the same" : "the change is saved all the same"));
  return 0;
}

void QVRegistryCommands::markDefault(const QVCommandOptions& options, QVTarget& target) {
  if (!options.makeDefault) return;
  target.isDefault = true;
  clearOtherDefaults(target.identifier);
}

void QVRegistryCommands::clearOtherDefaults(const std::string& keepID) {
  // Copies: the records are shared with the agent, which replaces them on update.
  std::vector<QVTarget> marked;
  for (const auto& target : m_agent.targets())
    if (target->identifier != keepID && target->isDefault) marked.push_back(*target);
  for (auto& target : marked) {
    target.isDefault.reset();
    m_agent.updateTarget(target);
  }
}

int QVRegistryCommands::targetAdd(const QVCommandOptions& options) {
  QVTarget target;
  target.identifier = qv::stringWithUUID();
  if (std::string problem = applyTargetOptions(options, target, true); !problem.empty()) return refuse(problem);
  // A second destination at one place would split its groups' versions between two records.
  for (const auto& other : m_agent.targets()) {
    auto url = [](const QVTarget& t) {
      std::string text = QVWebDAVBackupTarget::urlOfTarget(t);
      while (!text.empty() && text.back() == '/') text.pop_back();
      return text;
    };
    const bool samePlace = other->type == "local" || target.type == "local"
                               ? other->type == target.type && samePath(other->path, target.path)
                           : other->type == "webdav" || target.type == "webdav"
                               ? other->type == target.type && url(*other) == url(target)
                               : other->server == target.server && other->portString() == target.portString() &&
                                     samePath(other->path, target.path) &&
                                     (other->type == "dav") == (target.type == "dav");
    if (samePlace)
      return refuse("the destination " + qv::quoted(other->title) + " (" + other->identifier + ") is at " +
                    qv::quoted(qv::redactedString(qv::locationText(*other))) +
                    " already; use it, or change it with "
                    "\"stellwin-backup target set\"");
  }
  if (target.type == "local" && !qv::fileExistsAtPath(target.path))
    warn("the folder " + qv::quoted(target.path) + " does not exist; backups to it fail until it does");
  if (refuseUnreadableDAV(target, true) != 0) return 2;
  markDefault(options, target);
  m_agent.createTargetWithDictionary(target);
  m_out << "added destination " << qv::quoted(target.title) << " (" << target.identifier << ")\n";
  return 0;
}

int QVRegistryCommands::targetList(const QVCommandOptions& options) {
  m_out << (options.json ? qv::targetsJSON(m_agent.targets()) : qv::targetsTable(m_agent.targets(), options.ids));
  return 0;
}

int QVRegistryCommands::targetSet(const QVCommandOptions& options) {
  auto found = qv::findTarget(m_agent, options.target);
  if (!found.record) return refuse(found.error);
  if (!options.type && !options.title && !options.path && !options.server && !options.port && !options.user &&
      !options.passwordStdin && !options.makeDefault && !options.url && !options.caFile && !options.allowPlainHTTP)
    return refuse(
        "nothing to change; give --type, --title, --path, --server, --port, --url, --user, --password-stdin, "
        "--ca-file, --allow-plain-http or --default");
  QVTarget changed = *found.record;
  if (std::string problem = applyTargetOptions(options, changed, false); !problem.empty()) return refuse(problem);
  if (refuseUnreadableDAV(changed, false) != 0) return 2;
  markDefault(options, changed);
  m_agent.updateTarget(changed);
  m_out << "updated destination " << qv::quoted(changed.title) << " (" << changed.identifier << ")\n";
  return 0;
}

int QVRegistryCommands::targetRemove(const QVCommandOptions& options) {
  auto found = qv::findTarget(m_agent, options.target);
  if (!found.record) return refuse(found.error);
  const QVTargetRef target = found.record;
  std::vector<QVGroupRef> users;
  std::string titles;
  for (const auto& group : m_agent.groups()) {
    if (group->target != target->identifier) continue;
    users.push_back(group);
    titles += (titles.empty() ? "" : ", ") + qv::quoted(group->title);
  }
  // Everything is checked before anything changes.
  QVTargetRef heir;
  if (options.groupsTo) {
    auto other = qv::findTarget(m_agent, *options.groupsTo);
    if (!other.record) return refuse(other.error);
    if (other.record->identifier == target->identifier)
      return refuse("--groups-to names the destination being removed; name another one");
    heir = other.record;
  }
  if (!users.empty() && !heir && !options.force) {
    const bool one = users.size() == 1;
    return refuse(std::string(one ? "the group " : "the groups ") + titles + (one ? " backs up to " : " back up to ") +
                  qv::quoted(target->title) + (one ? "; move it" : "; move them") +
                  " with --groups-to OTHER, or give "
                  "--force to leave " +
                  (one ? "it" : "them") + " without a destination");
  }
  for (const auto& group : users) {
    if (!heir) break;
    if (m_agent.isBackingUpGroupWithID(group->identifier))
      return fail("group " + qv::quoted(group->title) + " is being backed up; try again when it has finished");
  }
  for (const auto& group : users) {
    if (!heir) break;
    auto moved = std::make_shared<QVGroup>(*group);
    moved->target = heir->identifier;
    m_agent.updateGroup(moved);
    m_out << "group " << qv::quoted(group->title) << " now backs up to " << qv::quoted(heir->title) << "\n";
  }
  m_agent.removeTargetWithID(target->identifier);
  m_out << "removed destination " << qv::quoted(target->title) << " (" << target->identifier << ")\n";
  if (!users.empty() && !heir)
    warn((users.size() == 1 ? "the group " : "the groups ") + titles +
         " cannot be backed up until given another destination with \"stellwin-backup group set GROUP --target "
         "TARGET\"");
  return 0;
}

// ---------------------------------------------------------------------------------------------------
// Versions, menu, summary

std::string QVRegistryCommands::listingFailure(const QVGroup& group) const {
  QVTargetRef target = group.target ? m_agent.targetWithIdentifier(*group.target) : nullptr;
  if (!target) return "group " + qv::quoted(group.title) + " has no usable destination";
  if (target->type != "local")
    return "the destination " + qv::quoted(target->title) + " (" + qv::redactedString(qv::locationText(*target)) +
           ") could not be listed: the server could not be reached or refused the listing";
  // A local folder tells for itself: no group folder yet is no versions; anything else is a failure.
  if (std::string missing = qv::missingDestinationText(*target); !missing.empty()) return missing;
  const std::string folder = qv::stringByAppendingPathComponent(target->path, group.title);
  bool isDirectory = false;
  if (!qv::fileExistsAtPath(folder, &isDirectory)) return "";
  if (!isDirectory) return qv::quoted(folder) + " is not a folder";
  return "the folder " + qv::quoted(folder) + " could not be read";
}

int QVRegistryCommands::versions(const QVCommandOptions& options) {
  auto found = qv::findGroup(m_agent, options.group);
  if (!found.record) return refuse(found.error);
  const QVGroupRef group = found.record;
  if (!group->target || !m_agent.targetWithIdentifier(*group->target))
    return fail("group " + qv::quoted(group->title) + " has no usable destination");
  // Read as restore reads it: whatever form the server writes its listing in, the versions are found.
  std::unique_ptr<QVBackupTarget> destination = m_agent.backupTargetWithIdentifier(*group->target);
  std::optional<std::vector<std::string>> listing =
      destination ? destination->entriesForReading(*group) : std::optional<std::vector<std::string>>();
  if (!listing) {
    if (std::string why = listingFailure(*group); !why.empty())
      return fail("the versions of group " + qv::quoted(group->title) + " could not be listed: " + why);
  }
  std::vector<std::string> names = listing.value_or(std::vector<std::string>{});
  std::sort(names.begin(), names.end(), std::greater<>());  // newest first

  std::vector<std::string> partial;
  for (const auto& version : qv::versionsInListing(names, qv::partialVersionsInJournal(group->identifier)))
    if (version.partial) partial.push_back(version.name);
  if (options.json) {
    m_out << qv::versionsJSON(*group, names, partial);
  } else if (names.empty()) {
    m_out << "no versions\n";
  } else {
    for (const auto& name : names) m_out << name << (contains(partial, name) ? "  (partial)" : "") << "\n";
  }
  return 0;
}

int QVRegistryCommands::log(const QVCommandOptions& options) {
  std::vector<QVJournalEntry> entries = QVRunJournal(QVRunJournal::defaultDirectory()).entries();
  std::reverse(entries.begin(), entries.end());  // newest first
  if (!options.group.empty()) {
    // A stored group by identifier or title; else the runs of a removed group by its identifier or title.
    auto found = qv::findGroup(m_agent, options.group);
    std::vector<QVJournalEntry> chosen;
    for (auto& entry : entries) {
      const bool match = found.record ? entry.groupID == found.record->identifier
                                      : entry.groupID == options.group || entry.title == options.group;
      if (match) chosen.push_back(std::move(entry));
    }
    if (!found.record && chosen.empty()) return refuse(found.error);
    entries = std::move(chosen);
  }
  if (options.json)
    m_out << qv::journalJSON(entries);
  else if (entries.empty())
    m_out << "no runs recorded\n";
  else
    m_out << qv::journalTable(entries, options.colour);
  return 0;
}

int QVRegistryCommands::menu(const QVCommandOptions& options) {
  if (!options.menuEntry.empty()) return menuEntry(options);
  auto items = m_agent.menuItems().value_or(std::vector<std::shared_ptr<QVMenuItem>>{});
  if (options.json)
    m_out << qv::menuJSON(items);
  else if (items.empty())
    m_out << "No groups.\n";
  else
    m_out << qv::menuText(items);
  return 0;
}

int QVRegistryCommands::menuEntry(const QVCommandOptions& options) {
  auto found = qv::findGroup(m_agent, options.group);
  if (!found.record) return refuse(found.error);
  const QVGroupRef group = found.record;
  // An entry is named by its English title or by the title it shows in the user's language, in any case.
  auto names = [](const QVMenuItem& candidate, const std::string& name) {
    auto same = [&](const std::string& title) {
      return std::equal(title.begin(), title.end(), name.begin(), name.end(), [](char a, char b) {
        return std::tolower(static_cast<unsigned char>(a)) == std::tolower(static_cast<unsigned char>(b));
      });
    };
    return same(candidate.title()) || (!candidate.identifier().empty() && same(candidate.identifier()));
  };
  // The group's item is the one whose submenu entries stand for the group.
  std::shared_ptr<QVMenuItem> entry;
  std::vector<std::string> offered, titles;
  for (const auto& item : m_agent.menuItems().value_or(std::vector<std::shared_ptr<QVMenuItem>>{})) {
    if (!item->submenu()) continue;
    const auto& entries = item->submenu()->itemArray();
    if (std::none_of(entries.begin(), entries.end(),
                     [&](const auto& e) { return e->representedObject() == group->identifier; }))
      continue;
    for (const auto& candidate : entries) {
      if (!candidate->hasAction()) continue;
      if (!candidate->isHidden()) offered.push_back(qv::quoted(candidate->title()));
      titles.push_back(candidate->title());
      if (names(*candidate, options.menuEntry) && (!entry || entry->isHidden())) entry = candidate;
    }
  }
  std::string offers;
  for (const auto& title : offered) offers += (offers.empty() ? "" : ", ") + title;
  if (!entry)
    return refuse("the menu of group " + qv::quoted(group->title) + " has no entry " + qv::quoted(options.menuEntry) +
                  qv::didYouMean(options.menuEntry, titles) + "; it offers " + offers);
  if (entry->isHidden())
    return fail("the menu of group " + qv::quoted(group->title) + " does not offer " + qv::quoted(options.menuEntry) +
                " now; it offers " + offers);
  const std::string title = group->title;
  const std::string groupID = group->identifier;
  const bool wasRunning = m_agent.isBackingUpGroupWithID(groupID);
  if (entry->identifier() == "Backup Now") qv::waitForANewVersionName(*group);
  entry->performAction();
  if (!wasRunning && m_agent.isBackingUpGroupWithID(groupID)) m_startedRuns.push_back(groupID);
  m_out << "chose " << qv::quoted(entry->title()) << " for group " << qv::quoted(title) << "\n";
  return 0;
}

int QVRegistryCommands::status(const QVCommandOptions& options) {
  const QVDate current = now();
  // The journal knows each group's last outcome, also one that the stored status code cannot tell.
  std::map<std::string, QVJournalEntry> lastRuns;
  for (auto& entry : QVRunJournal(QVRunJournal::defaultDirectory()).entries())
    lastRuns[entry.groupID] = std::move(entry);
  QVArray records;
  QVTextTable table({"TITLE", "STATE", "PROGRESS", "LAST BACKUP", "STATUS", "NEXT RUN", "ID"});
  // Newest first: the group that ran last leads, groups that never ran close the list.
  std::vector<QVGroupRef> groups = m_agent.groups();
  std::stable_sort(groups.begin(), groups.end(), [](const QVGroupRef& a, const QVGroupRef& b) {
    return a->lastBackupAttemptDate.value_or(qv::distantPast()) > b->lastBackupAttemptDate.value_or(qv::distantPast());
  });
  for (const auto& group : groups) {
    const bool running = m_agent.isBackingUpGroupWithID(group->identifier);
    std::optional<std::int64_t> progress;
    if (running) progress = group->progressInfo ? QVBackupAgent::totalProgressForGroup(*group->progressInfo) : 0;
    std::optional<QVDate> next = m_agent.nextRunDateForGroupWithID(group->identifier, now());
    const std::int64_t code = group->statusCode.value_or(0);
    std::string message;
    if (group->lastBackupAttemptDate && code != 0) {
      message = qv::statusText(*group);
      const QVTargetRef target = group->target ? m_agent.targetWithIdentifier(*group->target) : nullptr;
      if (std::string comment = qv::statusCommentStringForDestination(target ? target->type : "", code);
          !comment.empty())
        message += ": " + comment;
      if (std::string missing = target ? qv::missingDestinationText(*target) : ""; !missing.empty() && code == -120)
        message += " T" + missing.substr(1);
    }
    auto lastRun = lastRuns.find(group->identifier);
    const std::string lastOutcome = lastRun == lastRuns.end() ? "" : lastRun->second.outcome;
    if (code == 0 && lastOutcome == "failed")
      message = "failed (the destination gave no status code; see \"stellwin-backup log\")";
    QVDictionary record = qv::groupRecord(*group);
    record["state"] = running ? "running" : "idle";
    record["progress"] = progress ? QVValue(*progress) : QVValue();
    record["message"] = message.empty() ? QVValue() : QVValue(message);
    record["nextRun"] = next ? QVValue(qv::iso8601(*next)) : QVValue();
    record["lastOutcome"] = lastOutcome.empty() ? QVValue() : QVValue(lastOutcome);
    records.emplace_back(std::move(record));
    auto statusCell = [&](const std::string& text) {
      if (!options.colour || !group->lastBackupAttemptDate) return text;
      const std::string kind = code == -128          ? "cancelled"
                               : code != 0           ? "failed"
                               : lastOutcome.empty() ? "complete"
                                                     : lastOutcome;
      return qv::outcomeColoured(text, kind);
    };
    std::string nextText = "manual";
    if (next) nextText = *next <= current ? "due now" : qv::tableDateText(*next);
    table.addRow({group->title, running ? "running" : "idle", progress ? std::to_string(*progress) + "%" : "",
                  group->lastBackupDate ? qv::tableDateText(*group->lastBackupDate) : "never",
                  statusCell(message.empty() ? qv::statusText(*group) : message), nextText, group->identifier});
  }
  if (!options.ids) table.dropLastColumn();
  if (options.json)
    m_out << qv::recordJSON(QVValue(records));
  else if (records.empty())
    m_out << "No groups.\n";
  else
    m_out << table.text();
  noteWithoutDaemon(options, m_agent.groups());
  return 0;
}

int QVRegistryCommands::cancel(const QVCommandOptions& options) {
  std::vector<QVGroupRef> groups;
  for (const auto& argument : options.groups) {
    auto found = qv::findGroup(m_agent, argument);
    if (!found.record) return refuse(found.error);
    groups.push_back(found.record);
  }
  int status = 0;
  for (const auto& group : groups) {
    if (!m_agent.isBackingUpGroupWithID(group->identifier)) {
      status = fail("group " + qv::quoted(group->title) + " is not being backed up");
      continue;
    }
    m_agent.cancelBackupGroupWithID(group->identifier);
    m_out << "cancelled the backup of " << qv::quoted(group->title) << "\n";
  }
  return status;
}

int QVRegistryCommands::summary(const QVCommandOptions& options) {
  m_out << "Groups:\n";
  if (m_agent.groups().empty())
    m_out << "  none; add one with: stellwin-backup group add NAME PATH...\n";
  else
    m_out << qv::groupsTable(m_agent, now(), options.ids);
  m_out << "\nDestinations:\n" << qv::targetsTable(m_agent.targets(), options.ids);
  m_out << "\nRun \"stellwin-backup --help\" for the commands.\n";
  return 0;
}
