// The anchors of an installation: the root certificates that a program's chain must end at.
#pragma once

#include <string>

#include "platform/code_signing.hpp"
#include "platform/linux/openssl_objects.hpp"

namespace qm {

// Puts every certificate of the folder's files *.pem into the store. A folder that does not exist has none;
// files that are no certificates, and files or folders that everybody may write to, do not count. 100024 and
// its like when the system had no means to look.
OSStatus loadAnchors(const std::string& folder, X509_STORE* store);

}  // namespace qm
