// What the Skyvault client and its agent say to each other: one dictionary per request, one per reply, over
// the service "com.quillmarsh.sp.skyvaultd". Everything in these messages comes from another process and is
// checked by its type.
//
//   request  kRequestKey says which; beside it
//            kRequestHash       kSHA256Key
//            kRequestMetadata   kMetadataKey
//            kRequestSample     kMetadataKey, kFileKey (a descriptor of a regular file, open for reading),
//                               where it is known kUserIDKey (on whose behalf it is open)
//            kRequestURL        kURLKey, where there is any kMetadataKey, where only some are wanted
//                               kCategoriesWantedKey
//   reply    kVerdictKey, kOptionsKey, kTTLKey, kPrevalenceKey, and where there are any kInfectionNameKey and
//            kCategoriesKey; or kErrorCodeKey and kErrorTextKey alone
#pragma once

#include <cstdint>

#include "platform/SVKSkyvaultServiceClientProtocol.hpp"

namespace qm::skyvault {

inline constexpr const char* kRequestKey = "request";    // string
inline constexpr const char* kSHA256Key = "sha256";      // string, 64 lower-case hexadecimal digits
inline constexpr const char* kMetadataKey = "metadata";  // dictionary
inline constexpr const char* kFileKey = "file";          // descriptor
inline constexpr const char* kUserIDKey = "uid";         // unsigned
inline constexpr const char* kURLKey = "url";            // string, a URL (RFC 3986)
inline constexpr const char* kCategoriesWantedKey = "categories-wanted";  // array of strings

inline constexpr const char* kRequestHash = "hash";
inline constexpr const char* kRequestMetadata = "metadata";
inline constexpr const char* kRequestSample = "sample";
inline constexpr const char* kRequestURL = "url";

inline constexpr const char* kVerdictKey = "verdict";               // string, a safety verdict value
inline constexpr const char* kInfectionNameKey = "infection-name";  // string
inline constexpr const char* kOptionsKey = "options";               // unsigned, of the flags below
inline constexpr const char* kTTLKey = "ttl";                       // unsigned, seconds
inline constexpr const char* kPrevalenceKey = "prevalence";         // signed
inline constexpr const char* kCategoriesKey = "categories";         // array of dictionaries:
inline constexpr const char* kCategoryNameKey = "name";             //   string
inline constexpr const char* kCategoryValueKey = "value";           //   boolean
inline constexpr const char* kErrorCodeKey = "error-code";          // signed, an ErrorCode
inline constexpr const char* kErrorTextKey = "error-text";          // string, a sentence for people

}  // namespace qm::skyvault
