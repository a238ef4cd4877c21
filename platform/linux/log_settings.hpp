// What a subsystem's logging property list says: the keys are those of the platform's own such lists.
//
//   DEFAULT-OPTIONS   dictionary, for every category
//   <category>        dictionary, overrides DEFAULT-OPTIONS key by key
//     Level → Enable        "default", "info" or "debug", in any case
//     Enable-Private-Data   boolean
//
// Other keys are left to other readers.
#pragma once

#include <cstddef>
#include <map>
#include <optional>
#include <string>
#include <string_view>

#include "foundation/error.hpp"
#include "foundation/log.hpp"

namespace qm {

class LogSettingsList {
 public:
  // Nothing and an error (NSCocoaErrorDomain 3840, with what is wrong as its debug description) when the
  // bytes are not a property list, or not one of this form.
  static std::optional<LogSettingsList> parse(const void* bytes, std::size_t length,
                                              ErrorPtr* error = nullptr);

  LogSettings forCategory(std::string_view category) const;

 private:
  std::map<std::string, LogSettings, std::less<>> categories_;
  LogSettings defaults_;
};

}  // namespace qm
