// Feeds arbitrary bytes to the FTP listing parser as the lines a server sent.
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "targets/QVFTPBackupTarget.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string text(reinterpret_cast<const char*>(data), size);
  std::vector<std::string> lines;
  std::size_t start = 0;
  for (std::size_t end; (end = text.find('\n', start)) != std::string::npos; start = end + 1)
    lines.push_back(text.substr(start, end - start));
  lines.push_back(text.substr(start));
  for (const auto& entry : QVFTPBackupTarget::parseDirectoryListing(lines))
    if (entry.name.empty() || entry.name == "." || entry.name == "..") __builtin_trap();  // never listed
  return 0;
}
