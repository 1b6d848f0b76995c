// QVDAVMultistatus reads the reply to a WebDAV PROPFIND (a "multistatus" document) by namespace: every
// element is known by its local name in the "DAV:" namespace, whatever prefix the server wrote ("D:",
// "d:", a default namespace, Apache's "lp1:" on properties). Hrefs may be absolute paths or full URLs,
// escaped or not; the member that describes the requested collection itself is recognised by its path
// and left out wherever it stands in the reply, or when the reply leaves it out. Stateless; any thread.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "targets/QVBackupTarget.h"

class QVDAVMultistatus {
 public:
  // The members of the collection that requestURL names (a full URL or an absolute path), in the order
  // of the reply: name (unescaped), whether it is a collection, and its length. nullopt when reply is
  // not a multistatus document in the "DAV:" namespace.
  static std::optional<std::vector<QVVersionEntry>> membersInReply(const std::string& reply,
                                                                   const std::string& requestURL);
  // The names of the members that are collections.
  static std::optional<std::vector<std::string>> collectionNamesInReply(const std::string& reply,
                                                                        const std::string& requestURL);
  // Whether reply is a multistatus document that describes at least one resource, but with its elements
  // under another prefix than "D:", so that a reading by the written name "D:response" sees nothing.
  static bool isReadableOnlyByNamespace(const std::string& reply);

  // The path of a URL or href: without scheme, host and query, escapes undone where they are valid,
  // and without a trailing "/" ("/" itself stays).
  static std::string pathOfHref(const std::string& href);
};
