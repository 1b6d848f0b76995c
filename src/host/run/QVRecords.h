// The records that stellwin-backup writes out, each in one shape wherever it goes: a run's outcome (a
// line of the run journal, the control protocol's "outcome", an element of backup --json and log --json),
// a group, and a destination. Every record that names a group does so with "groupID" and "groupTitle";
// an outcome's kind travels by its name ("complete", "cancelled"...), never by number; dates are ISO 8601
// texts in UTC; a value that is absent is null. Reading a record takes what it holds and leaves the rest
// at its defaults, and also reads the names that older journal lines used ("group", "title"), so that
// no line already written becomes unreadable. Stateless; any thread.
#pragma once

#include <cstddef>
#include <limits>
#include <optional>
#include <string>

#include "platform/QVValue.h"

struct QVGroup;
struct QVJournalEntry;
struct QVRunOutcome;
struct QVTarget;

namespace qv {

// A run's outcome: "groupID", "groupTitle", "outcome", "statusCode", "message", "version", "started",
// "ended", "items", "files", "bytes", "leftOutCount", "leftOut" (at most leftOutLimit paths),
// "missingItems", "failedItems" ("path (reason)"), "versionsUnreadable", "passedOver",
// "notes" (what the destination added: names it refused, removals it held back).
QVDictionary outcomeRecord(const QVRunOutcome& outcome,
                           std::size_t leftOutLimit = std::numeric_limits<std::size_t>::max());
QVDictionary journalRecord(const QVJournalEntry& entry);
// nullopt for a record that lacks what makes an entry (its group, outcome and end).
std::optional<QVJournalEntry> journalEntryFromRecord(const QVDictionary& record);
// Never fails: what the record lacks stays at its default, an unknown kind reads as failed.
QVRunOutcome outcomeFromRecord(const QVDictionary& record);

// A group: "groupID", "groupTitle", "items", "target", "schedule", "versions", "statusCode",
// "lastBackupDate", "lastBackupAttemptDate".
QVDictionary groupRecord(const QVGroup& group);
// A destination: "id", "title", "type", "path", "server", "port", "isDefault", "user"; never a password.
QVDictionary targetRecord(const QVTarget& target);

// A record's (or an array's) JSON text as printed for --json: indented, ending in a newline.
std::string recordJSON(const QVValue& value);

}  // namespace qv
