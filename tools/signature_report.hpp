// What qmcodesign says about a program's signature.
#pragma once

#include <cstdint>
#include <string>

#include "platform/code_signing.hpp"
#include "tools/failure.hpp"

namespace qm::tools {

// The signature and the facts of the Info.plist, several lines; nothing is verified.
[[nodiscard]] Failure describeSignature(const std::string& path, std::string& description);

// The detached CMS in DER into one file and, unless the name is empty, the content it is over into another:
// what `openssl cms -verify -inform DER -in SIGNATURE -content CONTENT` takes. Existing files are replaced.
[[nodiscard]] Failure extractSignature(const std::string& path, const std::string& signaturePath,
                                       const std::string& contentPath, std::uint64_t& contentLength);

// A sentence for a status of verification.
std::string statusText(OSStatus status);

}  // namespace qm::tools
