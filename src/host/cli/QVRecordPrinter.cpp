#include "host/cli/QVRecordPrinter.h"

#include <algorithm>
#include <nlohmann/json.hpp>

#include "agent/QVBackupAgent.h"
#include "host/run/QVRunJournal.h"
#include "platform/QVFoundation.h"
#include "platform/QVMenu.h"
#include "platform/QVSchedule.h"
#include "targets/QVWebDAVBackupTarget.h"

using nlohmann::json;

namespace {

// Paths need not be valid UTF-8; a byte that is not is shown as U+FFFD instead of failing the listing.
std::string dump(const json& value) { return value.dump(2, ' ', false, json::error_handler_t::replace) + "\n"; }

json dateJSON(const std::optional<QVDate>& date) { return date ? json(qv::iso8601(*date)) : json(nullptr); }

json valueJSON(const QVValue& value) {
  // The store's own JSON form, read back: every stored key stays as it is.
  json parsed = json::parse(qv::toJSON(value), nullptr, false);
  return parsed.is_discarded() ? json(nullptr) : parsed;
}

json groupObject(const QVGroup& group) {
  json object = json::object();
  object["id"] = group.identifier;
  object["title"] = group.title;
  object["items"] = group.items;
  object["target"] = group.target ? json(*group.target) : json(nullptr);
  object["schedule"] = group.schedule ? valueJSON(QVValue(group.schedule->dictionary())) : json(nullptr);
  object["versions"] = group.versions ? json(*group.versions) : json(nullptr);
  object["statusCode"] = group.statusCode ? json(*group.statusCode) : json(nullptr);
  object["lastBackupDate"] = dateJSON(group.lastBackupDate);
  object["lastBackupAttemptDate"] = dateJSON(group.lastBackupAttemptDate);
  return object;
}

json targetObject(const QVTarget& target) {
  json object = json::object();
  object["id"] = target.identifier;
  object["title"] = target.title;
  object["type"] = target.type;
  object["path"] = target.path;
  object["server"] = target.server && !target.server->empty() ? json(*target.server) : json(nullptr);
  object["port"] = target.port && *target.port != 0 ? json(*target.port) : json(nullptr);
  object["isDefault"] = target.isDefault.value_or(false);
  object["user"] = target.user && !target.user->empty() ? json(*target.user) : json(nullptr);
  if (target.type == "webdav") {
    object["url"] = QVWebDAVBackupTarget::urlOfTarget(target);
    const std::string caFile = QVWebDAVBackupTarget::caFileOfTarget(target);
    object["caFile"] = caFile.empty() ? json(nullptr) : json(caFile);
    object["allowPlainHTTP"] = QVWebDAVBackupTarget::allowsPlainHTTP(target);
  }
  return object;
}

std::string scheduleText(const QVGroup& group) {
  return group.schedule ? qv::specFromSchedule(*group.schedule) : std::string("manual");
}

std::string destinationText(const QVBackupAgent& agent, const QVGroup& group) {
  if (!group.target || *group.target == "nil") return "none";
  if (QVTargetRef target = agent.targetWithIdentifier(*group.target)) return target->title;
  return "missing (" + *group.target + ")";
}

std::string dateText(const std::optional<QVDate>& date) { return date ? qv::stringFromDate(*date) : "never"; }

void appendMenuText(std::string& text, const std::vector<std::shared_ptr<QVMenuItem>>& items, int depth) {
  for (const auto& item : items) {
    if (!item || item->isHidden()) continue;
    const std::string indent(static_cast<std::size_t>(2 * (depth + item->indentationLevel())), ' ');
    text += indent + (item->isSeparatorItem() ? std::string("----") : item->title()) + "\n";
    if (item->submenu()) appendMenuText(text, item->submenu()->itemArray(), depth + item->indentationLevel() + 1);
  }
}

json menuArray(const std::vector<std::shared_ptr<QVMenuItem>>& items) {
  json array = json::array();
  for (const auto& item : items) {
    if (!item) continue;
    json object = json::object();
    object["title"] = item->title();
    object["separator"] = item->isSeparatorItem();
    object["hidden"] = item->isHidden();
    object["enabled"] = item->hasAction();
    object["indentationLevel"] = item->indentationLevel();
    object["representedObject"] = item->representedObject().empty() ? json(nullptr) : json(item->representedObject());
    if (item->submenu()) object["submenu"] = menuArray(item->submenu()->itemArray());
    array.push_back(std::move(object));
  }
  return array;
}

}  // namespace

QVTextTable::QVTextTable(std::vector<std::string> header) : m_header(std::move(header)) {}

void QVTextTable::addRow(std::vector<std::string> row) {
  row.resize(m_header.size());
  m_rows.push_back(std::move(row));
}

std::string QVTextTable::text(const std::string& indent) const {
  std::vector<std::size_t> widths(m_header.size(), 0);
  auto measure = [&](const std::vector<std::string>& row) {
    for (std::size_t i = 0; i < row.size(); ++i) widths[i] = std::max(widths[i], qv::displayWidth(row[i]));
  };
  measure(m_header);
  for (const auto& row : m_rows) measure(row);
  std::string text;
  auto append = [&](const std::vector<std::string>& row) {
    std::string line = indent;
    for (std::size_t i = 0; i < row.size(); ++i) {
      line += row[i];
      if (i + 1 < row.size()) line += std::string(widths[i] - qv::displayWidth(row[i]) + 2, ' ');
    }
    while (!line.empty() && line.back() == ' ') line.pop_back();
    text += line + "\n";
  };
  append(m_header);
  for (const auto& row : m_rows) append(row);
  return text;
}

namespace qv {

std::size_t displayWidth(const std::string& text) {
  std::size_t width = 0;
  for (unsigned char c : text)
    if ((c & 0xC0) != 0x80) ++width;  // continuation bytes add nothing
  return width;
}

std::string nextRunText(const QVGroup& group, QVDate now) {
  std::optional<QVDate> next = nextFireDateForScheduleLastFireDate(group.schedule, group.lastBackupAttemptDate, now);
  if (!next) return "manual";
  if (*next <= now) return "due now";
  return stringFromDate(*next);
}

std::string statusText(const QVGroup& group) {
  if (!group.lastBackupAttemptDate) return "never run";
  const std::int64_t code = group.statusCode.value_or(0);
  if (code == 0) return "complete";
  if (code == -128) return "cancelled";
  return "failed (" + std::to_string(code) + ")";
}

std::string locationText(const QVTarget& target) {
  if (target.type == "local") return target.path;
  if (target.type == "webdav") return QVWebDAVBackupTarget::urlOfTarget(target);
  std::string location = target.type + "://" + target.server.value_or("");
  if (target.port && *target.port != 0) location += ":" + std::to_string(*target.port);
  if (target.path.empty() || target.path.front() != '/') location += "/";
  return location + target.path;
}

std::string groupsJSON(const std::vector<QVGroupRef>& groups, QVDate now) {
  json array = json::array();
  for (const auto& group : groups) {
    json object = groupObject(*group);
    auto next = nextFireDateForScheduleLastFireDate(group->schedule, group->lastBackupAttemptDate, now);
    object["nextRun"] = dateJSON(next);
    array.push_back(std::move(object));
  }
  return dump(array);
}

std::string groupJSON(const QVGroup& group) { return dump(groupObject(group)); }

std::string groupsTable(const QVBackupAgent& agent, QVDate now) {
  if (agent.groups().empty()) return "No groups. Add one with: stellwin-backup group add NAME PATH...\n";
  QVTextTable table({"TITLE", "ITEMS", "DESTINATION", "SCHEDULE", "LAST BACKUP", "STATUS", "NEXT RUN", "ID"});
  for (const auto& group : agent.groups()) {
    table.addRow({group->title, std::to_string(group->items.size()), destinationText(agent, *group),
                  scheduleText(*group), dateText(group->lastBackupDate), statusText(*group),
                  nextRunText(*group, now), group->identifier});
  }
  return table.text();
}

std::string groupDetails(const QVBackupAgent& agent, const QVGroup& group, QVDate now) {
  QVTextTable fields({"Title:", group.title});
  fields.addRow({"Identifier:", group.identifier});
  std::string destination = destinationText(agent, group);
  if (group.target && *group.target != "nil" && agent.targetWithIdentifier(*group.target))
    destination += " (" + *group.target + ")";
  fields.addRow({"Destination:", destination});
  fields.addRow({"Schedule:", scheduleText(group)});
  std::string versions = group.versions ? std::to_string(*group.versions) : std::string("not set");
  if (group.hasUnreadableVersions()) versions = "cannot be read (no old version is removed)";
  else if (group.versions.value_or(0) == 0) versions += " (each backup is removed right after it is made)";
  fields.addRow({"Versions kept:", versions});
  fields.addRow({"Status:", statusText(group)});
  fields.addRow({"Last backup:", dateText(group.lastBackupDate)});
  fields.addRow({"Last attempt:", dateText(group.lastBackupAttemptDate)});
  fields.addRow({"Next run:", nextRunText(group, now)});
  std::string text = fields.text();
  text += "Items:\n";
  if (group.items.empty()) text += "  (none)\n";
  for (const auto& item : group.items) {
    const bool present = fileExistsAtPath(item);
    text += "  " + item + (present ? "" : "  (missing)") + "\n";
  }
  return text;
}

std::string targetsJSON(const std::vector<QVTargetRef>& targets) {
  json array = json::array();
  for (const auto& target : targets) array.push_back(targetObject(*target));
  return dump(array);
}

std::string targetsTable(const std::vector<QVTargetRef>& targets) {
  if (targets.empty()) return "No destinations.\n";
  QVTextTable table({"TITLE", "TYPE", "LOCATION", "USER", "DEFAULT", "ID"});
  for (const auto& target : targets) {
    table.addRow({target->title, target->type, locationText(*target), target->user.value_or(""),
                  target->isDefault.value_or(false) ? "yes" : "", target->identifier});
  }
  return table.text();
}

std::string stringsJSON(const std::vector<std::string>& strings) { return dump(json(strings)); }

std::string versionsJSON(const std::vector<std::string>& names, const std::vector<std::string>& partial) {
  json array = json::array();
  for (const auto& name : names)
    array.push_back({{"name", name}, {"partial", std::find(partial.begin(), partial.end(), name) != partial.end()}});
  return dump(array);
}

std::string journalTable(const std::vector<QVJournalEntry>& entries) {
  auto local = [](const std::string& iso) {
    auto date = dateFromISO8601(iso);
    return date ? stringFromDate(*date) : iso;
  };
  QVTextTable table({"STARTED", "ENDED", "GROUP", "OUTCOME", "STATUS", "VERSION", "ITEMS", "FILES", "BYTES", "LEFT OUT"});
  for (const auto& entry : entries) {
    table.addRow({local(entry.started), local(entry.ended), entry.title, entry.outcome,
                  entry.statusCode ? std::to_string(*entry.statusCode) : std::string("-"),
                  entry.version.empty() ? std::string("-") : entry.version, std::to_string(entry.items),
                  std::to_string(entry.files), std::to_string(entry.bytes), std::to_string(entry.leftOutCount)});
  }
  return table.text();
}

std::string menuText(const std::vector<std::shared_ptr<QVMenuItem>>& items) {
  std::string text;
  appendMenuText(text, items, 0);
  return text;
}

std::string menuJSON(const std::vector<std::shared_ptr<QVMenuItem>>& items) { return dump(menuArray(items)); }

}  // namespace qv
