#include "foundation/error.hpp"

#include <array>
#include <cerrno>
#include <cstdio>
#include <optional>
#include <system_error>
#include <utility>

#include "foundation/strings.hpp"

namespace qm {
namespace {

constexpr int kShownLevels = 3;  // of errors within errors in a description

constexpr std::int64_t kUnixStatusBase = 100000;  // OSStatus of a system error: this plus errno

struct NamedErrno {
  int number;
  const char* name;
};
constexpr std::array kErrnoNames{
    NamedErrno{EPERM, "EPERM"},
    NamedErrno{ENOENT, "ENOENT"},
    NamedErrno{ESRCH, "ESRCH"},
    NamedErrno{EINTR, "EINTR"},
    NamedErrno{EIO, "EIO"},
    NamedErrno{ENXIO, "ENXIO"},
    NamedErrno{ENOEXEC, "ENOEXEC"},
    NamedErrno{EBADF, "EBADF"},
    NamedErrno{EAGAIN, "EAGAIN"},
    NamedErrno{ENOMEM, "ENOMEM"},
    NamedErrno{EACCES, "EACCES"},
    NamedErrno{EFAULT, "EFAULT"},
    NamedErrno{EBUSY, "EBUSY"},
    NamedErrno{EEXIST, "EEXIST"},
    NamedErrno{ENODEV, "ENODEV"},
    NamedErrno{ENOTDIR, "ENOTDIR"},
    NamedErrno{EISDIR, "EISDIR"},
    NamedErrno{EINVAL, "EINVAL"},
    NamedErrno{ENFILE, "ENFILE"},
    NamedErrno{EMFILE, "EMFILE"},
    NamedErrno{ETXTBSY, "ETXTBSY"},
    NamedErrno{EFBIG, "EFBIG"},
    NamedErrno{ENOSPC, "ENOSPC"},
    NamedErrno{ESPIPE, "ESPIPE"},
    NamedErrno{EROFS, "EROFS"},
    NamedErrno{EPIPE, "EPIPE"},
    NamedErrno{ERANGE, "ERANGE"},
    NamedErrno{ENAMETOOLONG, "ENAMETOOLONG"},
    NamedErrno{ELOOP, "ELOOP"},
    NamedErrno{EOVERFLOW, "EOVERFLOW"},
    NamedErrno{EILSEQ, "EILSEQ"},
    NamedErrno{ENOTSUP, "ENOTSUP"},
    NamedErrno{ETIMEDOUT, "ETIMEDOUT"},
    NamedErrno{ECONNREFUSED, "ECONNREFUSED"},
    NamedErrno{ECONNRESET, "ECONNRESET"},
};

const std::string* text(const Dictionary& userInfo, const char* key) {
  return find<std::string>(userInfo, key);
}

// "The file “NAME” couldn’t be opened", without the name when the path is not known.
std::string fileFailure(const Dictionary& userInfo) {
  const std::string* path = text(userInfo, kFilePathKey);
  return path == nullptr ? "The file couldn’t be opened"
                         : "The file “" + lastPathComponent(*path) + "” couldn’t be opened";
}

std::optional<std::string> cocoaText(std::int64_t code, const Dictionary& userInfo) {
  switch (code) {
    case 256:
      return fileFailure(userInfo) + ".";
    case 257:
      return fileFailure(userInfo) + " because you don’t have permission to view it.";
    case 258:
      return fileFailure(userInfo) + " because the file name is invalid.";
    case 260:
      return fileFailure(userInfo) + " because there is no such file.";
    case 261:
      return fileFailure(userInfo) + " using text encoding Unicode (UTF-8).";
    case 263:
      return fileFailure(userInfo) + " because it is too large.";
    case 264:
      return fileFailure(userInfo) + " because the text encoding of its contents can’t be determined.";
    case kPropertyListReadCorrupt:
      return "The data couldn’t be read because it isn’t in the correct format.";
    case 4097:
    case 4099:
    case 4101:
      return "Couldn’t communicate with a helper application.";
    default:
      break;
  }
  const std::string* invalid = text(userInfo, "NSInvalidValue");
  if (code == 2048 && invalid != nullptr) return "The value “" + *invalid + "” is invalid.";
  return std::nullopt;
}

// "ENOENT: No such file or directory" for the status of a system error.
std::optional<std::string> unixStatusText(std::int64_t status) {
  for (const NamedErrno& entry : kErrnoNames)
    if (status == kUnixStatusBase + entry.number)
      return std::string(entry.name) + ": " + systemErrorText(entry.number);
  return std::nullopt;
}

// What the user info says under the key, else what the domain says by itself.
std::optional<std::string> textOf(const Error& error, std::string_view key) {
  if (const auto* own = find<std::string>(error.userInfo(), key)) return *own;
  if (key == kLocalizedDescriptionKey && error.domain() == kCocoaErrorDomain)
    return cocoaText(error.code(), error.userInfo());
  if (key == kLocalizedFailureReasonKey && error.domain() == kPOSIXErrorDomain)
    return systemErrorText(static_cast<int>(error.code()));
  if (key == kDescriptionKey && error.domain() == kOSStatusErrorDomain) return unixStatusText(error.code());
  return std::nullopt;
}

// The quoted text of a description, with what follows the quotes.
std::string quotedText(const Error& error) {
  for (const char* key :
       {kDescriptionKey, kDebugDescriptionKey, kLocalizedDescriptionKey, kLocalizedFailureReasonKey}) {
    const std::optional<std::string> found = textOf(error, key);
    if (!found) continue;
    std::string quoted = "\"" + *found + "\"";
    const std::string* debug = text(error.userInfo(), kDebugDescriptionKey);
    if (key == kDescriptionKey && debug != nullptr && *debug != *found) quoted += " (" + *debug + ")";
    return quoted;
  }
  return "\"(null)\"";
}

std::string address(const void* object) {
  char digits[32];
  const int length = std::snprintf(digits, sizeof digits, "%p", object);
  return {digits, static_cast<std::size_t>(length)};
}

std::string describe(const Error& error, int level);

std::string describeEntry(const std::string& key, const Value& value, int level) {
  const auto* error = value.as<ErrorPtr>();
  if (error == nullptr) return key + "=" + value.description();
  const std::string inner = describe(**error, level + 1);
  return key == kUnderlyingErrorKey ? key + "=" + address(error->get()) + " {" + inner + "}"
                                    : key + "=" + inner;
}

std::string describe(const Error& error, int level) {
  std::string line =
      "Error Domain=" + error.domain() + " Code=" + std::to_string(error.code()) + " " + quotedText(error);
  const Dictionary& userInfo = error.userInfo();
  if (userInfo.empty()) return line;
  if (level > kShownLevels) return line + " UserInfo=" + address(&userInfo) + " (not displayed)";
  const char* separator = " UserInfo={";
  for (const auto& [key, value] : userInfo) {
    line += separator + describeEntry(key, value, level);
    separator = ", ";
  }
  return line + "}";
}

// The Cocoa code of a failed read.
std::int64_t fileReadCode(int errnoValue) {
  switch (errnoValue) {
    case ENOENT:
      return 260;
    case EACCES:
    case EPERM:
      return 257;
    case ENAMETOOLONG:
      return 258;
    case EFBIG:
      return 263;
    default:
      return 256;
  }
}

}  // namespace

Error::Error(std::string domain, std::int64_t code, Dictionary userInfo)
    : domain_(std::move(domain)), code_(code), userInfo_(std::move(userInfo)) {}

std::string Error::localizedDescription() const {
  if (const auto localized = textOf(*this, kLocalizedDescriptionKey)) return *localized;
  const auto reason = textOf(*this, kLocalizedFailureReasonKey);
  if (const auto failure = textOf(*this, kLocalizedFailureKey))
    return reason ? *failure + " " + *reason : *failure;
  const std::string sentence = "The operation couldn’t be completed. ";
  if (reason) return sentence + *reason;
  const std::string place = domain_ == kOSStatusErrorDomain ? "OSStatus" : domain_;
  const auto described = textOf(*this, kDescriptionKey);
  return sentence + "(" + place + " error " + std::to_string(code_) +
         (described ? " - " + *described + ")" : ".)");
}

std::string Error::description() const {
  return describe(*this, 1);
}

bool operator==(const Error& a, const Error& b) {
  return a.code_ == b.code_ && a.domain_ == b.domain_ && a.userInfo_ == b.userInfo_;
}

ErrorPtr makeError(std::string domain, std::int64_t code, Dictionary userInfo) {
  return std::make_shared<const Error>(std::move(domain), code, std::move(userInfo));
}

std::string systemErrorText(int errnoValue) {
  return std::generic_category().message(errnoValue);
}

ErrorPtr makePOSIXError(int errnoValue) {
  return makeError(kPOSIXErrorDomain, errnoValue);
}

ErrorPtr makeFileReadError(int errnoValue, const std::string& path) {
  return makeError(kCocoaErrorDomain, fileReadCode(errnoValue),
                   {{kFilePathKey, path}, {kUnderlyingErrorKey, makePOSIXError(errnoValue)}});
}

void setError(ErrorPtr* out, ErrorPtr error) {
  if (out != nullptr) *out = std::move(error);
}

}  // namespace qm
