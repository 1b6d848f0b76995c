// The folders that no copy or upload ever enters, for the whole process: the backup destinations' own
// folders and the program's own configuration and state. A backup of a folder that holds one of them
// leaves it out, so that a version never holds earlier versions (each would double the one before) nor
// the program's files. Each copy or walk takes the folders as they stand when it begins, by identity
// (device and inode), so a folder reached through a link or another spelling of its path is known too;
// a folder that does not exist yet is looked for again by the next copy.
// Set from the main thread; read from any thread (guarded by a mutex inside).
#pragma once

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

namespace qv {

using QVFolderIdentity = std::pair<std::uint64_t, std::uint64_t>;  // device, inode

// Replaces the list. Paths are absolute; duplicates and empty ones are dropped.
void setFoldersPassedOver(std::vector<std::string> paths);
std::vector<std::string> foldersPassedOver();

// The identities of the listed folders that exist now.
std::vector<QVFolderIdentity> passedOverFolderIdentities();

// Of the listed folders, those that lie inside itemPath (or are it), by their real paths; for telling the
// user which folders a backup of itemPath leaves out.
std::vector<std::string> foldersPassedOverInside(const std::string& itemPath);

}  // namespace qv
