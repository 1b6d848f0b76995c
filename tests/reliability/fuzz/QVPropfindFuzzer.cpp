// Feeds arbitrary bytes to the WebDAV listing as a server's PROPFIND reply.
#include <cstddef>
#include <cstdint>
#include <string>

#include "targets/QVDAVBackupTarget.h"
#include "targets/QVDAVMultistatus.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string reply(reinterpret_cast<const char*>(data), size);
  auto names = QVDAVBackupTarget::collectionNamesInReply(reply);
  if (names && names->empty()) __builtin_trap();  // no collections is no listing, never an empty one
  QVDAVBackupTarget::entriesInReply(reply);
  // Read by namespace, every member has a name.
  if (auto members = QVDAVMultistatus::membersInReply(reply, "http://127.0.0.1/Photos/"))
    for (const auto& member : *members)
      if (member.name.empty()) __builtin_trap();
  QVDAVMultistatus::isReadableOnlyByNamespace(reply);
  return 0;
}
