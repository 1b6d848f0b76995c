#include "targets/QVGroup.h"

#include "platform/QVConstants.h"
#include "platform/QVFoundation.h"

namespace {

// Moves a stored value that cannot be read as its known type into otherKeys, so it survives a save.
void keepUnreadable(QVGroup& group, const std::string& key, const QVValue& value, std::vector<std::string>* problems) {
  group.otherKeys[key] = value;
  if (problems)
    problems->push_back("group \"" + group.title + "\": unreadable value under \"" + key + "\" kept as stored");
}

}  // namespace

QVGroup QVGroup::fromDictionary(const QVDictionary& dictionary, std::vector<std::string>* problems) {
  QVGroup group;
  if (auto v = qv::valueForKey(dictionary, kQVTitleKey); v && v->string()) group.title = *v->string();
  for (const auto& [key, value] : dictionary) {
    if (key == kQVTitleKey && value.string()) continue;
    if (key == kQVIdentifierKey && value.string() && !value.string()->empty()) {
      group.identifier = *value.string();
    } else if (key == kQVItemsKey && value.array()) {
      QVArray dropped;
      for (const auto& item : *value.array()) {
        if (item.string())
          group.items.push_back(*item.string());
        else
          dropped.push_back(item);
      }
      if (!dropped.empty() && problems)
        problems->push_back("group \"" + group.title + "\": " + std::to_string(dropped.size()) +
                            " item(s) that are not paths were dropped");
    } else if (key == "target" && value.string()) {
      group.target = *value.string();
    } else if (key == "schedule" && value.dictionary()) {
      group.schedule = QVSchedule::fromDictionary(*value.dictionary());
    } else if (key == "versions" && value.isNumber() && value.integerValue() && *value.integerValue() >= 0) {
      group.versions = static_cast<std::uint64_t>(*value.integerValue());
    } else if (key == "statusCode" && value.isNumber() && value.integerValue()) {
      group.statusCode = *value.integerValue();
    } else if (key == "lastBackupDate" && value.isDate()) {
      group.lastBackupDate = value.date();
    } else if (key == "lastBackupAttemptDate" && value.isDate()) {
      group.lastBackupAttemptDate = value.date();
    } else if (key == "progressInfo") {
      // In memory only: a stored one is stale and is dropped.
    } else if (key == kQVIdentifierKey || key == kQVTitleKey || key == kQVItemsKey || key == "target" ||
               key == "schedule" || key == "versions" || key == "statusCode" || key == "lastBackupDate" ||
               key == "lastBackupAttemptDate") {
      keepUnreadable(group, key, value, problems);
    } else {
      group.otherKeys[key] = value;
    }
  }
  if (group.identifier.empty()) {
    group.identifier = qv::stringWithUUID();
    if (problems)
      problems->push_back("group \"" + group.title + "\" had no identifier; it was given " + group.identifier);
  }
  return group;
}

QVDictionary QVGroup::dictionary() const {
  QVDictionary d = otherKeys;
  d[kQVIdentifierKey] = identifier;
  d[kQVTitleKey] = title;
  QVArray itemArray;
  itemArray.reserve(items.size());
  for (const auto& item : items) itemArray.emplace_back(item);
  d[kQVItemsKey] = std::move(itemArray);
  if (target) d["target"] = *target;
  if (schedule) d["schedule"] = schedule->dictionary();
  if (versions) d["versions"] = *versions;
  if (statusCode) d["statusCode"] = *statusCode;
  if (lastBackupDate) d["lastBackupDate"] = *lastBackupDate;
  if (lastBackupAttemptDate) d["lastBackupAttemptDate"] = *lastBackupAttemptDate;
  return d;
}
