// Code signing: the code behind an audit token, requirement texts, static validity. Statuses are the numbers
// of the Security framework (CSCommon.h); a system error is 100000 + errno.
#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "foundation/error.hpp"
#include "platform/audit_token.hpp"

namespace qm {

using OSStatus = std::int32_t;

inline constexpr OSStatus kSecSuccess = 0;
inline constexpr OSStatus kSecCSObjectRequired = -67069;
inline constexpr OSStatus kSecCSNoSuchCode = -67065;
inline constexpr OSStatus kSecCSUnsigned = -67062;
inline constexpr OSStatus kSecCSSignatureFailed = -67061;       // the file is not the one that was signed
inline constexpr OSStatus kSecCSSignatureUnsupported = -67059;  // a kind of signature that is not ours
inline constexpr OSStatus kSecCSReqInvalid = -67052;
inline constexpr OSStatus kSecCSReqUnsupported = -67051;
inline constexpr OSStatus kSecCSReqFailed = -67050;
inline constexpr OSStatus kSecCSInternalError = -67048;
inline constexpr OSStatus kSecCSSignatureInvalid = -67045;  // damaged in itself
inline constexpr OSStatus kSecCSInfoPlistFailed = -67030;
inline constexpr OSStatus kSecCSSignatureUntrusted = -66996;  // no chain to an installed anchor
inline constexpr OSStatus kSecErrnoBase = 100000;

// The program file a running process was proven to run. Keeps it open.
class SecCode;
// A parsed requirement.
class SecRequirement;
using SecCodePtr = std::shared_ptr<const SecCode>;
using SecRequirementPtr = std::shared_ptr<const SecRequirement>;

// The code of the process in the token. 100003 the process has exited, 100002 its program file was deleted or
// replaced, kSecCSNoSuchCode the process id belongs to another process by now, 100024 no descriptor left. An
// unsigned program has a code object, too.
OSStatus copyGuestWithAuditToken(const AuditToken& token, SecCodePtr& code);

// kSecCSReqInvalid for anything that is not of the requirement language, kSecCSReqUnsupported for what is,
// but cannot be evaluated on this platform.
OSStatus createRequirementWithString(const std::string& text, SecRequirementPtr& requirement);

// First the signature, then the requirement. May take as long as the file system does, on Linux up to a
// deadline. On failure the status and, through `error` (may be null), an NSOSStatusErrorDomain error with it.
OSStatus checkValidityWithErrors(const SecCodePtr& code, const SecRequirementPtr& requirement,
                                 ErrorPtr* error);

}  // namespace qm
