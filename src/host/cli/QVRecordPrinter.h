// The printed forms of the agent's records: their JSON records (QVRecords) for programs (--json), a
// group's with "nextRun" in lists, and aligned tables and detail listings for people. Every function
// returns the whole text, ending in a newline.
// Stateless; main thread (reads the agent's records).
#pragma once

#include <cstdio>
#include <memory>
#include <string>
#include <vector>

#include "platform/QVValue.h"
#include "targets/QVGroup.h"
#include "targets/QVTarget.h"

class QVBackupAgent;
class QVMenuItem;
struct QVJournalEntry;

// A table whose columns line up in a fixed-width terminal; widths count characters, not bytes.
class QVTextTable {
 public:
  explicit QVTextTable(std::vector<std::string> header);
  void addRow(std::vector<std::string> row);
  // Leaves out the last column (the header's and every row's), as for identifiers not asked for.
  void dropLastColumn();
  bool isEmpty() const { return m_rows.empty(); }
  // Two spaces between columns; the last column is not padded.
  std::string text(const std::string& indent = "") const;

 private:
  std::vector<std::string> m_header;
  std::vector<std::vector<std::string>> m_rows;
};

namespace qv {

// The number of characters of a UTF-8 text (what a terminal shows for most scripts); colour sequences
// count for nothing.
std::size_t displayWidth(const std::string& text);

// A group's next run as a person reads it: "manual", "due now", or the date.
std::string nextRunText(const QVBackupAgent& agent, const QVGroup& group, QVDate now);
// A group's last outcome: "never run", "complete", "cancelled", "failed (-120)".
std::string statusText(const QVGroup& group);
// A destination's place: its folder, or "type://server:port/path".
std::string locationText(const QVTarget& target);

std::string groupsJSON(const QVBackupAgent& agent, QVDate now);
std::string groupJSON(const QVGroup& group);
// ids: with an identifier column (last).
std::string groupsTable(const QVBackupAgent& agent, QVDate now, bool ids);
std::string groupDetails(const QVBackupAgent& agent, const QVGroup& group, QVDate now);

std::string targetsJSON(const std::vector<QVTargetRef>& targets);
std::string targetsTable(const std::vector<QVTargetRef>& targets, bool ids);

// A JSON array of strings.
std::string stringsJSON(const std::vector<std::string>& strings);

// A group's versions as a JSON array of {"groupID", "groupTitle", "name", "partial"}, in the order given;
// partial: the names known to lack items.
std::string versionsJSON(const QVGroup& group, const std::vector<std::string>& names,
                         const std::vector<std::string>& partial);
// The run journal as a table, in the given order: started, ended, group, outcome, status, version, items,
// files, size, files left out. colour: outcomes in their colours.
std::string journalTable(const std::vector<QVJournalEntry>& entries, bool colour);

// Whether text for stream may carry colours: it is a terminal that is not "dumb", and NO_COLOR is unset
// or empty.
bool colourWanted(std::FILE* stream);
// text in the colour of an outcome's kind ("complete" green; "failed" red; any other name, as "cancelled"
// or "complete with missing items", yellow), reset at its end.
std::string outcomeColoured(const std::string& text, const std::string& outcome);

// The status menu: visible items, separators as "----", submenus indented.
std::string menuText(const std::vector<std::shared_ptr<QVMenuItem>>& items);
std::string menuJSON(const std::vector<std::shared_ptr<QVMenuItem>>& items);

}  // namespace qv
