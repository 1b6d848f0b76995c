#include "host/cli/QVRecordPrinter.h"

#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <nlohmann/json.hpp>

#include "agent/QVBackupAgent.h"
#include "host/run/QVReadableText.h"
#include "host/run/QVRecords.h"
#include "host/run/QVRunJournal.h"
#include "platform/QVFoundation.h"
#include "platform/QVMenu.h"
#include "platform/QVSchedule.h"
#include "targets/QVWebDAVBackupTarget.h"

using nlohmann::json;

namespace {

// Paths need not be valid UTF-8; a byte that is not is shown as U+FFFD instead of failing the listing.
std::string dump(const json& value) { return value.dump(2, ' ', false, json::error_handler_t::replace) + "\n"; }

std::string scheduleText(const QVGroup& group) {
  return group.schedule ? qv::specFromSchedule(*group.schedule) : std::string("manual");
}

std::string destinationText(const QVBackupAgent& agent, const QVGroup& group) {
  if (!group.target || *group.target == "nil") return "none";
  if (QVTargetRef target = agent.targetWithIdentifier(*group.target)) return target->title;
  return "missing (" + *group.target + ")";
}

std::string dateText(const std::optional<QVDate>& date) { return date ? qv::tableDateText(*date) : "never"; }

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

void QVTextTable::dropLastColumn() {
  if (m_header.empty()) return;
  m_header.pop_back();
  for (auto& row : m_rows) row.pop_back();
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
  for (std::size_t i = 0; i < text.size(); ++i) {
    if (text[i] == '\033' && i + 1 < text.size() && text[i + 1] == '[') {
      while (i < text.size() && text[i] != 'm') ++i;  // "ESC [ ... m" sets a colour
      continue;
    }
    if ((static_cast<unsigned char>(text[i]) & 0xC0) != 0x80) ++width;  // continuation bytes add nothing
  }
  return width;
}

bool colourWanted(std::FILE* stream) {
  const char* noColour = std::getenv("NO_COLOR");
  const char* term = std::getenv("TERM");
  return stream && isatty(fileno(stream)) == 1 && (!noColour || !*noColour) && !(term && std::string(term) == "dumb");
}

std::string outcomeColoured(const std::string& text, const std::string& outcome) {
  const char* colour = outcome == "complete" ? "32" : outcome == "failed" ? "31" : "33";
  return std::string("\033[") + colour + "m" + text + "\033[0m";
}

std::string nextRunText(const QVBackupAgent& agent, const QVGroup& group, QVDate now) {
  std::optional<QVDate> next = agent.nextRunDateForGroupWithID(group.identifier, now);
  if (!next) return "manual";
  if (*next <= now) return "due now";
  return tableDateText(*next);
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

std::string groupsJSON(const QVBackupAgent& agent, QVDate now) {
  QVArray records;
  records.reserve(agent.groups().size());
  for (const auto& group : agent.groups()) {
    QVDictionary record = groupRecord(*group);
    record["nextRun"] = QVValue();
    if (auto next = agent.nextRunDateForGroupWithID(group->identifier, now)) record["nextRun"] = iso8601(*next);
    records.emplace_back(std::move(record));
  }
  return recordJSON(QVValue(std::move(records)));
}

std::string groupJSON(const QVGroup& group) { return recordJSON(QVValue(groupRecord(group))); }

std::string groupsTable(const QVBackupAgent& agent, QVDate now, bool ids) {
  if (agent.groups().empty()) return "No groups. Add one with: stellwin-backup group add NAME PATH...\n";
  QVTextTable table({"TITLE", "ITEMS", "DESTINATION", "SCHEDULE", "LAST BACKUP", "STATUS", "NEXT RUN", "ID"});
  for (const auto& group : agent.groups()) {
    table.addRow({group->title, std::to_string(group->items.size()), destinationText(agent, *group),
                  scheduleText(*group), dateText(group->lastBackupDate), statusText(*group),
                  nextRunText(agent, *group, now), group->identifier});
  }
  if (!ids) table.dropLastColumn();
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
  if (group.hasUnreadableVersions())
    versions = "cannot be read (no old version is removed)";
  else if (group.versions.value_or(0) == 0)
    versions += " (each backup is removed right after it is made)";
  fields.addRow({"Versions kept:", versions});
  fields.addRow({"Status:", statusText(group)});
  fields.addRow({"Last backup:", dateText(group.lastBackupDate)});
  fields.addRow({"Last attempt:", dateText(group.lastBackupAttemptDate)});
  fields.addRow({"Next run:", nextRunText(agent, group, now)});
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
  QVArray records;
  records.reserve(targets.size());
  for (const auto& target : targets) records.emplace_back(targetRecord(*target));
  return recordJSON(QVValue(std::move(records)));
}

std::string targetsTable(const std::vector<QVTargetRef>& targets, bool ids) {
  if (targets.empty()) return "No destinations.\n";
  QVTextTable table({"TITLE", "TYPE", "LOCATION", "USER", "DEFAULT", "ID"});
  for (const auto& target : targets) {
    table.addRow({target->title, target->type, locationText(*target), target->user.value_or(""),
                  target->isDefault.value_or(false) ? "yes" : "", target->identifier});
  }
  if (!ids) table.dropLastColumn();
  return table.text();
}

std::string stringsJSON(const std::vector<std::string>& strings) { return dump(json(strings)); }

std::string versionsJSON(const QVGroup& group, const std::vector<std::string>& names,
                         const std::vector<std::string>& partial) {
  QVArray records;
  records.reserve(names.size());
  for (const auto& name : names) {
    const bool isPartial = std::find(partial.begin(), partial.end(), name) != partial.end();
    records.emplace_back(QVDictionary{
        {"groupID", group.identifier}, {"groupTitle", group.title}, {"name", name}, {"partial", isPartial}});
  }
  return recordJSON(QVValue(std::move(records)));
}

std::string journalTable(const std::vector<QVJournalEntry>& entries, bool colour) {
  auto local = [](const std::string& iso) {
    auto date = dateFromISO8601(iso);
    return date ? tableDateText(*date) : iso;
  };
  QVTextTable table(
      {"STARTED", "ENDED", "GROUP", "OUTCOME", "STATUS", "VERSION", "ITEMS", "FILES", "SIZE", "LEFT OUT"});
  for (const auto& entry : entries) {
    table.addRow({local(entry.started), local(entry.ended), entry.title,
                  colour ? outcomeColoured(entry.outcome, entry.outcome) : entry.outcome,
                  entry.statusCode ? std::to_string(*entry.statusCode) : std::string("-"),
                  entry.version.empty() ? std::string("-") : entry.version, std::to_string(entry.items),
                  std::to_string(entry.files), sizeText(entry.bytes), std::to_string(entry.leftOutCount)});
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
