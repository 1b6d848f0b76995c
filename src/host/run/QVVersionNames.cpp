#include "host/run/QVVersionNames.h"

#include <algorithm>

#include "agent/QVVersionName.h"
#include "host/run/QVRunJournal.h"

namespace qv {
namespace {

constexpr std::size_t kStampLength = 14;  // yyyyMMddHHmmss

std::string stamp(const std::string& name) { return name.substr(0, kStampLength); }

}  // namespace

bool isPartialVersionName(const std::string& name) {
  const std::string extension = kQVPartialExtension;
  return name.size() == kStampLength + extension.size() &&
         name.compare(kStampLength, std::string::npos, extension) == 0 && isVersionName(stamp(name) + ".backup");
}

std::string partialVersionName(const std::string& version) { return stamp(version) + kQVPartialExtension; }

std::vector<QVVersionName> versionsInListing(const std::vector<std::string>& entries,
                                             const std::vector<std::string>& knownPartial) {
  std::vector<QVVersionName> versions;
  for (const auto& name : entries) {
    if (isPartialVersionName(name))
      versions.push_back({name, true});
    else if (isVersionName(name))
      versions.push_back({name, std::find(knownPartial.begin(), knownPartial.end(), name) != knownPartial.end()});
  }
  std::sort(versions.begin(), versions.end(), [](const auto& a, const auto& b) { return a.name < b.name; });
  return versions;
}

std::vector<std::string> partialVersionsInJournal(const std::string& groupID) {
  std::vector<std::string> partial;
  for (const auto& entry : QVRunJournal(QVRunJournal::defaultDirectory()).entries())
    if (entry.groupID == groupID && entry.isPartial() && isVersionName(entry.version)) partial.push_back(entry.version);
  return partial;
}

std::optional<QVVersionName> newestCompleteVersion(const std::vector<QVVersionName>& versions) {
  for (auto it = versions.rbegin(); it != versions.rend(); ++it)
    if (!it->partial) return *it;
  return std::nullopt;
}

std::optional<QVVersionName> findVersion(const std::vector<QVVersionName>& versions, const std::string& given,
                                         std::string* error, bool* usage) {
  auto refuse = [&](const std::string& text, bool isUsage) -> std::optional<QVVersionName> {
    if (error) *error = text;
    if (usage) *usage = isUsage;
    return std::nullopt;
  };
  if (given == "latest") {
    if (auto newest = newestCompleteVersion(versions)) return newest;
    return refuse("there is no complete version", false);
  }
  if (given.empty() || given.find_first_not_of("0123456789") < std::min(given.size(), kStampLength))
    return refuse("\"" + given +
                      "\" is not a version (yyyyMMddHHmmss, with or without \".backup\", a unique beginning "
                      "of one, or \"latest\")",
                  true);
  for (const auto& version : versions)
    if (version.name == given) return version;
  std::vector<QVVersionName> matches;
  for (const auto& version : versions)
    if (version.name.compare(0, given.size(), given) == 0) matches.push_back(version);
  if (matches.size() == 1) return matches.front();
  if (matches.empty()) return refuse("there is no version \"" + given + "\"", false);
  std::string names;
  for (const auto& match : matches) names += (names.empty() ? "" : ", ") + match.name;
  return refuse("\"" + given + "\" begins several versions (" + names + "); give more of the name", true);
}

}  // namespace qv
