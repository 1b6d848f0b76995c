// Version names, as the agent makes and recognises them at a destination, public to everyone who reads a
// destination back (restore, verify, the listings). Pure functions; any thread.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "platform/QVValue.h"

namespace qv {

// The version name of a run started at date: "yyyyMMddHHmmss.backup" in local time.
std::string versionNameForDate(QVDate date);
// The local date and time a version name stands for; none unless the name is 14 digits and ".backup",
// whose digits are a valid local date and time that formats back to the same digits.
std::optional<QVDate> dateOfVersionName(const std::string& name);
// True only for a name that dateOfVersionName reads.
bool isVersionName(const std::string& name);
// The name of an item within a run: its last path component, made unique against used names with
// "-1", "-2", ... before the extension. Adds the chosen name to used.
std::string uniqueItemName(const std::string& path, std::vector<std::string>& used);

}  // namespace qv
