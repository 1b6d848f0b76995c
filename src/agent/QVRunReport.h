// QVRunReport is what one backup run did, beyond its outcome: the version it wrote, when it started and
// ended, how many items it had, the files and bytes the destination wrote, the source files the copy
// passed over, the items that were missing, the items that failed otherwise (a run that completes does
// not fail for them, so this is where they are named), and whether old versions were left alone because the
// group's stored "versions" could not be read. The run's thread fills it; the agent keeps the last one
// of each group for the host to read once the outcome is handled. Plain value.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "platform/QVValue.h"

struct QVRunReport {
  std::string groupID;
  std::string version;  // "yyyyMMddHHmmss.backup"
  QVDate started;
  QVDate ended;
  std::size_t items = 0;
  std::uint64_t files = 0;
  std::uint64_t bytes = 0;
  std::vector<std::string> leftOut;       // source paths passed over, in the order met
  std::vector<std::string> missingItems;  // items that were not there (status -43)
  std::vector<std::string> failedItems;   // "path (reason)" of other items the destination did not take
  bool versionsUnreadable = false;        // nothing was pruned
  std::vector<std::string> passedOver;    // folders inside the items that no copy enters; the host names them
  std::vector<std::string> notes;         // what the destination added: refused names, removals it held back
};
