// Small helpers that the agent and the destinations share: identifiers, path and URL strings, sizes,
// and dates as text. Stateless; any thread.
#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>

#include "platform/QVValue.h"

namespace qv {

// A new UUID in its standard upper-case textual form.
std::string stringWithUUID();

// Path strings, with the rules that the destinations' layouts rely on.
std::string lastPathComponent(const std::string& path);                  // "/a/b.txt" -> "b.txt"; "/a/b/" -> "b"
std::string stringByDeletingLastPathComponent(const std::string& path);  // "/a/b.txt" -> "/a"; "/a" -> "/"
std::string stringByAppendingPathComponent(const std::string& path, const std::string& component);  // one "/"
std::string pathExtension(const std::string& name);                  // "a.tar.gz" -> "gz"; ".profile" -> ""
std::string stringByDeletingPathExtension(const std::string& name);  // "a.tar.gz" -> "a.tar"
std::string stringByAppendingPathExtension(const std::string& name, const std::string& extension);

// Joins a URL string and one component with exactly one "/" between them; the scheme's "//" stays.
std::string urlStringByAppendingPathComponent(const std::string& url, const std::string& component);

// Undoes percent-escapes ("%20" -> " "); nullopt when an escape is malformed or the result is not UTF-8.
std::optional<std::string> stringByReplacingPercentEscapes(const std::string& text);

// File-system questions. fileExistsAtPath follows a final symbolic link, as the platform's does.
bool fileExistsAtPath(const std::string& path, bool* isDirectory = nullptr);
bool isReadableFileAtPath(const std::string& path);

// Walks the tree below folder depth first, parents before their content, calling visit with each entry's
// path relative to folder and whether it is a folder (links are not followed). A folder below that cannot
// be read is passed to unreadable and the walk goes on with the rest. visit answers false to stop.
// Returns false when folder itself cannot be read.
bool walkDirectory(const std::string& folder,
                   const std::function<bool(const std::string& relative, bool isFolder)>& visit,
                   const std::function<void(const std::string& relative)>& unreadable);

// Opens a regular file for reading without ever waiting (a pipe would block): a descriptor, or -1 for
// anything else or a file that cannot be read. The caller closes it.
int openRegularFileForReading(const std::string& path);

// Size in bytes of a file, or the sum of the regular files of a whole tree (links are not followed);
// 0 for nothing there.
std::uint64_t sizeOfItemAtPath(const std::string& path);

// The user's documents folder (the XDG documents directory, else ~/Documents).
std::string documentsDirectory();

// A date as a person reads it, in the local time zone and the user's locale ("5 Jan 2024, 14:30").
std::string stringFromDate(QVDate date);

}  // namespace qv
