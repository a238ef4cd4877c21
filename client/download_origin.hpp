// The marks that browsers and other download programs leave on a file.
#pragma once

namespace qm {

// The file has a non-empty extended attribute that tells where it was downloaded from: com.apple.quarantine,
// com.apple.metadata:kMDItemWhereFroms (both also with the prefix "user."), user.xdg.origin.url or
// user.xdg.referrer.url (freedesktop.org, Common Extended Attributes). False when they cannot be read.
bool hasDownloadOrigin(int descriptor);

}  // namespace qm
