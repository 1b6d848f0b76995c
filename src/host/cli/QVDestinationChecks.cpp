#include "host/cli/QVDestinationChecks.h"

#include "targets/QVDAVBackupTarget.h"

namespace qv {

QVDAVListingVerdict checkDAVListing(const QVTarget& target) {
  QVDAVListingVerdict verdict;
  if (target.type != "dav") return verdict;
  switch (QVDAVBackupTarget::checkListing(target)) {
    case QVDAVBackupTarget::QVListingCheck::readable:
      break;
    case QVDAVBackupTarget::QVListingCheck::unreachable:
      verdict.unreachable = true;
      break;
    case QVDAVBackupTarget::QVListingCheck::unreadable:
      verdict.unreadable = true;
      verdict.message =
          "the WebDAV server of destination \"" + target.title + "\" (" + target.server.value_or("") +
          ") writes its listings in a form the dav kind cannot read: its versions would never be found or pruned, "
          "and a failed run would remove the group's folder with every version in it. Switch it to the webdav "
          "kind, which reads any server and keeps the versions already there and the destination's identifier: "
          "stellwin-backup target set " +
          target.identifier + " --type webdav --url " + QVDAVBackupTarget::folderURL(target) +
          (target.user && !target.user->empty() && target.pass && !target.pass->empty()
               ? " --allow-plain-http (its password already travels over plain http; give an https:// URL "
                 "instead where the server offers one)"
               : "");
      break;
  }
  return verdict;
}

}  // namespace qv
