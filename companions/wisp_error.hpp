// The errors of the Wisp core daemon, as its replies carry them. The code of one that a scan ended with
// becomes the product's "wisp-error-state".
#pragma once

#include <cstdint>
#include <string>

#include "foundation/error.hpp"

namespace qm {

inline constexpr const char* kWispErrorDomain = "com.quillmarsh.WispCoreDaemon";

enum class WispError : std::int64_t {
  notOffered = 1,   // a call that this daemon has no use for
  badRequest = 2,   // the call's arguments name nothing that can be asked about
  unreadable = 3,   // the file is not there, is no regular file, may not be read, or changes all the time
  tooLarge = 4,     // a file, a configuration or a setting's value larger than is taken
  timedOut = 5,     // not finished within the call's time-out
  busy = 6,         // too many calls are waiting
  notExamined = 7,  // the rules could not be applied to the end
  notAllowed = 8,   // only root and the owner of the installation may change anything
  tooMany = 9,      // there are as many settings as are kept
};

inline ErrorPtr makeWispError(WispError code, std::string text) {
  return makeError(kWispErrorDomain, static_cast<std::int64_t>(code),
                   {{kLocalizedDescriptionKey, std::move(text)}});
}

}  // namespace qm
