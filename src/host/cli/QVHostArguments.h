// Reading the arguments of stellwin-backup's commands: paths made absolute, whole numbers, ports, and
// GROUP or TARGET arguments found by identifier or by title. A failed reading comes back with one line
// for the user, never an exception. Stateless; main thread (the look-ups read the agent's records).
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "targets/QVGroup.h"
#include "targets/QVTarget.h"

class QVBackupAgent;

namespace qv {

// path made absolute against folder (a command's QVCommandOptions::folder; "" for this process's working
// folder) and lexically normal ("a/../b" -> "<folder>/b"), without a trailing slash (except "/" itself).
// Symbolic links are left as they are.
std::string absolutePath(const std::string& path, const std::string& folder);

// Whether text is well-formed UTF-8 (what the preferences can hold as it is).
bool isValidUTF8(const std::string& text);

// A whole number written with digits only ("3"; not "-1", "3.5", "+3", "x" or ""); nullopt otherwise,
// and for numbers beyond 64 bits.
std::optional<std::uint64_t> wholeNumber(const std::string& text);

// A TCP port: a whole number from 1 to 65535.
std::optional<std::int64_t> portNumber(const std::string& text);

// Why title cannot be a group's title, or "" when it can. A group's title names its folder on every kind
// of destination, as it is: it must not be empty, "." or "..", hold "/", NUL or any control character
// (C0, DEL or C1), or be longer than 255 bytes, and it must be valid UTF-8.
std::string groupTitleProblem(const std::string& title);

// The versions to keep, from the --versions argument: 1 to kMaxVersions; 0 only when confirmed (--yes).
inline constexpr std::uint64_t kMaxVersions = 100000;
struct QVVersionsArgument {
  std::optional<std::uint64_t> versions;  // empty when refused
  std::string error;                      // why it was refused
};
QVVersionsArgument versionsArgument(const std::string& text, bool confirmed);

// The record that a command-line argument names, or the line that says why there is none.
template <typename Ref>
struct QVFoundRecord {
  Ref record;         // null when error is set
  std::string error;  // e.g. unknown group "Foo"
};

// An argument names the record whose identifier it equals; else the one record with that title; else the
// one record whose title differs from it only in the case of ASCII letters. No record (with the titles
// one typo away offered), or a title that several records share (their identifiers are listed), is an error.
QVFoundRecord<QVGroupRef> findGroup(const QVBackupAgent& agent, const std::string& argument);
QVFoundRecord<QVTargetRef> findTarget(const QVBackupAgent& agent, const std::string& argument);

// Another record than the one with identifier exceptID that has exactly this title (case-sensitive).
QVGroupRef otherGroupTitled(const QVBackupAgent& agent, const std::string& title, const std::string& exceptID);
QVTargetRef otherTargetTitled(const QVBackupAgent& agent, const std::string& title, const std::string& exceptID);

// " (did you mean "backup"?)" with the candidates one typo (a letter added, dropped, changed, or two
// neighbours swapped, case aside) away from given; "" when there is none.
std::string didYouMean(const std::string& given, const std::vector<std::string>& candidates);

// One line for the user: newlines and tabs become spaces.
std::string singleLine(const std::string& text);
// The text in double quotes, on one line: "Photos".
std::string quoted(const std::string& text);

}  // namespace qv
