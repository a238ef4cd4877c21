// Signs program files; used by qmcodesign.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "platform/linux/openssl_objects.hpp"
#include "tools/failure.hpp"

namespace qm::tools {

struct SigningIdentity {
  openssl::KeyPtr key;
  openssl::CertificatePtr certificate;  // the leaf
  openssl::CertificateStackPtr chain;   // what else goes into the signature; no anchor is needed there
};

// PEM files. Further certificates of the certificate's file join the chain. The key must be the
// certificate's.
[[nodiscard]] Failure loadIdentity(const std::string& keyPath, const std::string& certificatePath,
                                   const std::optional<std::string>& chainPath, SigningIdentity& identity);

// Puts a signature at the end of an ELF program, in place of one that is there. The file is replaced in one
// step and keeps its mode, and its owner where that is allowed; a symbolic link is followed. On failure it is
// as it was.
[[nodiscard]] Failure signProgram(const std::string& path, const SigningIdentity& identity);

// What OpenSSL has to say about its last failure; empties its queue.
std::string openSSLReason();

}  // namespace qm::tools
