// An error as it travels through completions: a domain, a code within it and a dictionary that says more.
// Immutable and shared; made with makeError and handed on as ErrorPtr.
#pragma once

#include <cstdint>
#include <string>

#include "foundation/value.hpp"

namespace qm {

inline constexpr const char* kDescriptionKey = "NSDescription";
inline constexpr const char* kDebugDescriptionKey = "NSDebugDescription";
inline constexpr const char* kLocalizedDescriptionKey = "NSLocalizedDescription";
inline constexpr const char* kLocalizedFailureKey = "NSLocalizedFailure";
inline constexpr const char* kLocalizedFailureReasonKey = "NSLocalizedFailureReason";
inline constexpr const char* kUnderlyingErrorKey = "NSUnderlyingError";
inline constexpr const char* kFilePathKey = "NSFilePath";

inline constexpr const char* kCocoaErrorDomain = "NSCocoaErrorDomain";
// Of that domain: text that is no property list or no JSON.
inline constexpr std::int64_t kPropertyListReadCorrupt = 3840;
inline constexpr const char* kPOSIXErrorDomain = "NSPOSIXErrorDomain";
inline constexpr const char* kOSStatusErrorDomain = "NSOSStatusErrorDomain";

class Error {
 public:
  Error(std::string domain, std::int64_t code, Dictionary userInfo = {});

  const std::string& domain() const { return domain_; }
  std::int64_t code() const { return code_; }
  const Dictionary& userInfo() const { return userInfo_; }

  // The sentence for people: the localized description if there is one, else one made from the failure and
  // its reason, else "The operation couldn’t be completed. (DOMAIN error CODE.)".
  std::string localizedDescription() const;

  // Error Domain=D Code=N "TEXT" UserInfo={key=value, ...}; the text of a POSIX error is strerror's.
  std::string description() const;

  // Domain, code and user info are equal.
  friend bool operator==(const Error& a, const Error& b);

 private:
  std::string domain_;
  std::int64_t code_;
  Dictionary userInfo_;
};

ErrorPtr makeError(std::string domain, std::int64_t code, Dictionary userInfo = {});
// strerror's text; any thread.
std::string systemErrorText(int errnoValue);
// NSPOSIXErrorDomain with the errno value as code.
ErrorPtr makePOSIXError(int errnoValue);
// NSCocoaErrorDomain as reading the file gives it: the code that belongs to the errno value (260 missing, 257
// no permission, 258 name too long, 263 too large, 256 anything else), the file's path and the POSIX error
// underneath.
ErrorPtr makeFileReadError(int errnoValue, const std::string& path);

// Stores the error in *out when out is not null.
void setError(ErrorPtr* out, ErrorPtr error);

}  // namespace qm
