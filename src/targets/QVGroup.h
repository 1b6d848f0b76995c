// QVGroup is the record of one backup group: its identity, its items, its destination and schedule,
// how many versions to keep, and the outcome and dates of its last runs. The agent owns the records and
// shares them (QVGroupRef) with the status menu; a backup run works on a copy taken when it starts.
// Keys that a stored record may lack are optional; stored keys this version does not know, and known
// keys whose stored value it cannot read, are kept in otherKeys and written back unchanged.
// Main thread for shared records; a copy may travel to a run's thread.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "platform/QVSchedule.h"
#include "platform/QVValue.h"

struct QVGroup {
  std::string identifier;                           // kQVIdentifierKey
  std::string title;                                // kQVTitleKey
  std::vector<std::string> items;                   // kQVItemsKey: absolute paths
  std::optional<std::string> target;                // "target": a destination identifier, or "nil"
  std::optional<QVSchedule> schedule;               // "schedule"
  std::optional<std::uint64_t> versions;            // "versions": how many versions to keep
  std::optional<std::int64_t> statusCode;           // "statusCode": outcome of the last run
  std::optional<QVDate> lastBackupDate;             // "lastBackupDate"
  std::optional<QVDate> lastBackupAttemptDate;      // "lastBackupAttemptDate"
  std::optional<std::vector<double>> progressInfo;  // "progressInfo": in memory only
  QVDictionary otherKeys;

  // Reads a stored record. A record without a usable identifier gets a new one, and every such repair
  // or unreadable value is described in *problems (one line each) when given.
  static QVGroup fromDictionary(const QVDictionary& dictionary, std::vector<std::string>* problems = nullptr);
  // The stored form: every key, never "progressInfo".
  QVDictionary dictionary() const;

  // A "versions" is stored but cannot be read as a count (text, a negative or fractional number): kept
  // in otherKeys, and versions is then empty. A run of such a group removes no old version.
  bool hasUnreadableVersions() const { return otherKeys.count("versions") != 0; }
};

using QVGroupRef = std::shared_ptr<QVGroup>;
