// The signature at the end of a program file, and its verification.
//
//   content            everything the signature is over: the program as it was linked
//   CMS SignedData     DER (RFC 5652), detached, one signer, SHA-256, signed attributes, the signer's
//   certificate and
//                      the intermediate ones inside
//   length             of the CMS, 8 bytes, big-endian
//   magic line         kSignatureMagic
//
// Loaders do not look behind the last segment, so a signed program runs like an unsigned one.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "platform/code_signing.hpp"
#include "platform/linux/requirement.hpp"

namespace qm {

inline constexpr std::string_view kSignatureMagic = "~Quillmarsh code signature 1~\n";
inline constexpr std::size_t kSignatureTrailerSize = 8 + kSignatureMagic.size();
inline constexpr std::size_t kMaximumSignatureSize = 64 * 1024;  // of the CMS, bytes
inline constexpr std::uint64_t kMaximumProgramSize =
    1024ULL * 1024 * 1024;  // content that is still verified, bytes

struct AppendedSignature {
  std::uint64_t contentLength = 0;  // bytes
  std::vector<std::uint8_t> cms;
};

// The status of a call on a peer's file that has just failed and takes no descriptor: errno, but EIO instead
// of EMFILE. The file system may return any error, and that one would be read as this process's own shortage.
OSStatus peerErrnoStatus();

// Reads by position; the content is not looked at. kSecCSUnsigned without the magic line,
// kSecCSSignatureInvalid when the length is none, errno statuses for what cannot be read.
OSStatus readAppendedSignature(int descriptor, AppendedSignature& signature);

// What is appended to the content: the CMS, its length and the magic line.
std::vector<std::uint8_t> appendedBytes(const std::vector<std::uint8_t>& cms);

// The folder of the anchors of the running program's installation: qxmac/trust beside the qxmac/bin it lies
// in, that of the regular installation for a program that lies anywhere else.
std::string installedAnchorsFolder();

// Verifies the file's signature and chain and gathers what requirements are evaluated over. The chain must
// end at one of the self-signed certificates in the folder's files *.pem; files that everybody may write to
// do not count. Certificates may have expired and need no particular extended key usage; those that sign
// others must be authorities, and keys weaker than 112 bits or SHA-1 signatures are not accepted. Another
// thread may set `cancelled`: the verification then ends with 100000 + ETIMEDOUT at its next read.
//
// kSecCSSignatureUntrusted without a chain to an anchor, kSecCSSignatureFailed when signature and content do
// not belong together, 100027 (EFBIG) for more content than kMaximumProgramSize, kSecCSInfoPlistFailed for an
// Info.plist that cannot be parsed, and what readAppendedSignature returns.
OSStatus verifyAppendedSignature(int descriptor, const std::string& anchorsFolder,
                                 const std::atomic<bool>& cancelled, CodeFacts& code);

}  // namespace qm
