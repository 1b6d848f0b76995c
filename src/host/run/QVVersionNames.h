// The names of versions at a destination, as stellwin-backup reads them. A run writes "yyyyMMddHHmmss.backup";
// when a run is cancelled or fails after writing part of its version, the program renames that version
// to "yyyyMMddHHmmss.partial", so that the agent's pruning, which counts only ".backup" names, never lets it
// push out a complete version. A ".backup" version that the run journal knows from a cancelled or failed
// run (one left before the rename, or one the destination would not rename) counts as partial too.
// Free functions; any thread.
#pragma once

#include <optional>
#include <string>
#include <vector>

struct QVVersionName {
  std::string name;  // as it stands at the destination
  bool partial = false;
};

namespace qv {

inline constexpr const char* kQVPartialExtension = ".partial";

// "yyyyMMddHHmmss.partial" for a real date.
bool isPartialVersionName(const std::string& name);
// The partial name of a version: its time stamp with ".partial".
std::string partialVersionName(const std::string& version);
// The versions among a group folder's entries, oldest first; knownPartial: ".backup" names known to lack items.
std::vector<QVVersionName> versionsInListing(const std::vector<std::string>& entries,
                                             const std::vector<std::string>& knownPartial);
// The ".backup" versions of the group that the user's run journal knows from cancelled or failed runs.
std::vector<std::string> partialVersionsInJournal(const std::string& groupID);
// The newest complete version, if any.
std::optional<QVVersionName> newestCompleteVersion(const std::vector<QVVersionName>& versions);

// What --version names among versions: "latest" (the newest complete one), a whole name, a time stamp
// without its extension, or a prefix that only one version has. nullopt with *error (and *usage when the
// mistake is the user's, not a missing version) otherwise.
std::optional<QVVersionName> findVersion(const std::vector<QVVersionName>& versions, const std::string& given,
                                         std::string* error, bool* usage);

}  // namespace qv
