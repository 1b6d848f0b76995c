#include "host/run/QVRecords.h"

#include <algorithm>

#include "host/run/QVRunMonitor.h"
#include "platform/QVConstants.h"
#include "platform/QVSchedule.h"
#include "targets/QVGroup.h"
#include "targets/QVTarget.h"
#include "targets/QVWebDAVBackupTarget.h"

namespace {

template <typename T>
QVValue orNull(const std::optional<T>& value) {
  return value ? QVValue(*value) : QVValue();
}

QVValue count(std::uint64_t value) { return QVValue(static_cast<std::int64_t>(value)); }

QVArray stringArray(const std::vector<std::string>& strings) { return QVArray(strings.begin(), strings.end()); }

const QVValue* field(const QVDictionary& record, const char* key, const char* olderKey = nullptr) {
  const QVValue* value = qv::valueForKey(record, key);
  if (!value && olderKey) value = qv::valueForKey(record, olderKey);
  return value;
}

void read(const QVDictionary& record, const char* key, std::string& value, const char* olderKey = nullptr) {
  if (const QVValue* found = field(record, key, olderKey); found && found->string()) value = *found->string();
}

template <typename T>
void read(const QVDictionary& record, const char* key, T& value) {
  if (const QVValue* found = field(record, key); found && found->integerValue() && *found->integerValue() >= 0)
    value = static_cast<T>(*found->integerValue());
}

void read(const QVDictionary& record, const char* key, bool& value) {
  if (const QVValue* found = field(record, key); found && found->isBool()) value = *found->boolValue();
}

void read(const QVDictionary& record, const char* key, std::vector<std::string>& value) {
  const QVValue* found = field(record, key);
  if (!found || !found->array()) return;
  for (const auto& element : *found->array())
    if (element.string()) value.push_back(*element.string());
}

// Whatever the record holds of an entry; the caller decides whether that is enough.
QVJournalEntry entryFrom(const QVDictionary& record) {
  QVJournalEntry entry;
  read(record, "groupID", entry.groupID, "group");
  read(record, "groupTitle", entry.title, "title");
  read(record, "version", entry.version);
  read(record, "started", entry.started);
  read(record, "ended", entry.ended);
  read(record, "outcome", entry.outcome);
  if (const QVValue* code = field(record, "statusCode"); code && code->integerValue())
    entry.statusCode = code->integerValue();
  read(record, "message", entry.message);
  read(record, "items", entry.items);
  read(record, "files", entry.files);
  read(record, "bytes", entry.bytes);
  read(record, "leftOutCount", entry.leftOutCount);
  read(record, "leftOut", entry.leftOut);
  read(record, "missingItems", entry.missingItems);
  read(record, "failedItems", entry.failedItems);
  read(record, "versionsUnreadable", entry.versionsUnreadable);
  read(record, "passedOver", entry.passedOver);
  read(record, "notes", entry.notes);
  return entry;
}

}  // namespace

namespace qv {

QVDictionary outcomeRecord(const QVRunOutcome& outcome, std::size_t leftOutLimit) {
  return journalRecord(outcome.journalEntry(leftOutLimit));
}

QVDictionary journalRecord(const QVJournalEntry& entry) {
  return QVDictionary{{"groupID", entry.groupID},
                      {"groupTitle", entry.title},
                      {"outcome", entry.outcome},
                      {"statusCode", orNull(entry.statusCode)},
                      {"message", entry.message.empty() ? QVValue() : QVValue(entry.message)},
                      {"version", entry.version.empty() ? QVValue() : QVValue(entry.version)},
                      {"started", entry.started},
                      {"ended", entry.ended},
                      {"items", count(entry.items)},
                      {"files", count(entry.files)},
                      {"bytes", count(entry.bytes)},
                      {"leftOutCount", count(entry.leftOutCount)},
                      {"leftOut", stringArray(entry.leftOut)},
                      {"missingItems", stringArray(entry.missingItems)},
                      {"failedItems", stringArray(entry.failedItems)},
                      {"versionsUnreadable", entry.versionsUnreadable},
                      {"passedOver", stringArray(entry.passedOver)},
                      {"notes", stringArray(entry.notes)}};
}

std::optional<QVJournalEntry> journalEntryFromRecord(const QVDictionary& record) {
  QVJournalEntry entry = entryFrom(record);
  if (entry.groupID.empty() || entry.outcome.empty() || entry.ended.empty()) return std::nullopt;
  return entry;
}

QVRunOutcome outcomeFromRecord(const QVDictionary& record) {
  const QVJournalEntry entry = entryFrom(record);
  QVRunOutcome outcome;
  outcome.groupID = entry.groupID;
  outcome.title = entry.title;
  outcome.kind = QVRunOutcome::kindNamed(entry.outcome).value_or(QVRunOutcome::Kind::failed);
  outcome.statusCode = entry.statusCode;
  outcome.message = entry.message;
  QVRunReport report;
  report.groupID = entry.groupID;
  report.version = entry.version;
  report.started = dateFromISO8601(entry.started).value_or(QVDate{});
  report.ended = dateFromISO8601(entry.ended).value_or(report.started);
  report.items = static_cast<std::size_t>(entry.items);
  report.files = entry.files;
  report.bytes = entry.bytes;
  report.leftOut = entry.leftOut;
  report.missingItems = entry.missingItems;
  report.failedItems = entry.failedItems;
  report.versionsUnreadable = entry.versionsUnreadable;
  report.passedOver = entry.passedOver;
  report.notes = entry.notes;
  outcome.report = std::move(report);
  return outcome;
}

QVDictionary groupRecord(const QVGroup& group) {
  // The stored record, as the agent writes it, under the names every record here uses; dates as text.
  const QVDictionary stored = group.dictionary();
  QVDictionary record{{"groupID", group.identifier}, {"groupTitle", group.title}};
  for (const char* key :
       {kQVItemsKey, "target", "schedule", "versions", "statusCode", "lastBackupDate", "lastBackupAttemptDate"}) {
    auto it = stored.find(key);
    if (it == stored.end())
      record[key] = QVValue();
    else if (auto date = it->second.date())
      record[key] = iso8601(*date);
    else
      record[key] = it->second;
  }
  return record;
}

QVDictionary targetRecord(const QVTarget& target) {
  auto text = [](const std::optional<std::string>& value) {
    return value && !value->empty() ? QVValue(*value) : QVValue();
  };
  QVDictionary record{{"id", target.identifier},
                      {"title", target.title},
                      {"type", target.type},
                      {"path", target.path},
                      {"server", text(target.server)},
                      {"port", target.port && *target.port != 0 ? QVValue(*target.port) : QVValue()},
                      {"isDefault", target.isDefault.value_or(false)},
                      {"user", text(target.user)}};
  if (target.type == "webdav") {
    record["url"] = QVWebDAVBackupTarget::urlOfTarget(target);
    record["caFile"] = text(std::optional<std::string>(QVWebDAVBackupTarget::caFileOfTarget(target)));
    record["allowPlainHTTP"] = QVWebDAVBackupTarget::allowsPlainHTTP(target);
  }
  return record;
}

std::string recordJSON(const QVValue& value) { return toJSON(value, true) + "\n"; }

}  // namespace qv
