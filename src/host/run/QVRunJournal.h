// QVRunJournal is stellwin-backup's history of backup runs: one JSON line per run's outcome, appended to
// "runs.jsonl" in $XDG_STATE_HOME/stellwin (else ~/.local/state/stellwin). The folder is made with mode
// 0700 and the file with 0600. When the file has grown past its bound it is renamed to "runs.jsonl.1"
// (the one older file kept, an older one dropped) before the next line is written. Reading skips any
// line that is not a whole entry, so a damaged journal costs only its damaged lines; a journal that
// cannot be written never stops a backup: append says so and the caller goes on.
// Plain object; main thread.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

struct QVJournalEntry {
  std::string groupID;
  std::string title;
  std::string version;  // "" when the run did not get as far as naming one
  std::string started;  // ISO 8601, UTC
  std::string ended;    // ISO 8601, UTC
  std::string outcome;  // "complete", "complete with missing items", "failed", "cancelled"
  std::optional<std::int64_t> statusCode;
  std::string message;  // failed, empty: what went wrong
  std::uint64_t items = 0;
  std::uint64_t files = 0;
  std::uint64_t bytes = 0;
  std::uint64_t leftOutCount = 0;
  std::vector<std::string> leftOut;  // at most kQVJournalLeftOutPaths of them
  std::vector<std::string> missingItems;
  std::vector<std::string> failedItems;  // "path (reason)"
  bool versionsUnreadable = false;
  std::vector<std::string> passedOver;  // folders inside the items that no copy entered
  std::vector<std::string> notes;       // what the destination added to the outcome

  // A run that stopped half-way: its version, if it stayed, lacks items.
  bool isPartial() const { return outcome == "cancelled" || outcome == "failed"; }
};

inline constexpr std::size_t kQVJournalLeftOutPaths = 100;

class QVRunJournal {
 public:
  // directory: where the journal lives; maxBytes: the size past which it rotates.
  explicit QVRunJournal(std::string directory, std::uintmax_t maxBytes = 1u << 20);

  // $XDG_STATE_HOME/stellwin when XDG_STATE_HOME is absolute, else $HOME/.local/state/stellwin.
  static std::string defaultDirectory();

  // Appends one line. On failure returns false with why in *error (when given).
  [[nodiscard]] bool append(const QVJournalEntry& entry, std::string* error = nullptr) const;
  // Every readable entry, oldest first (the rotated file's before the current one's).
  std::vector<QVJournalEntry> entries() const;

  std::string filePath() const { return m_directory + "/runs.jsonl"; }
  const std::string& directory() const { return m_directory; }

 private:
  std::string m_directory;
  std::uintmax_t m_maxBytes;
};

namespace qv {

// The entry as its JSON line (no newline), and back; nullopt for a line that is not a whole entry. The
// line is the entry's record (QVRecords).
std::string journalLine(const QVJournalEntry& entry);
std::optional<QVJournalEntry> journalEntryFromLine(const std::string& line);
// Entries as a JSON array of their records, in the given order.
std::string journalJSON(const std::vector<QVJournalEntry>& entries);

}  // namespace qv
