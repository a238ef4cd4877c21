// The errors of the settings daemon, as its log and the answers of its administration carry them.
#pragma once

#include <cstdint>
#include <string>

#include "foundation/error.hpp"

namespace qm {

inline constexpr const char* kSettingsErrorDomain = "com.quillmarsh.SettingsDaemon";

enum class SettingsError : std::int64_t {
  unreadable = 1,     // the settings file is there and cannot be read
  broken = 2,         // it is not what a settings file may be; the text says where and why
  badValue = 3,       // a key or value that cannot be kept
  notEditable = 4,    // it stands in the file in a form that only a person can change
  notWritten = 5,     // the file could not be replaced
  notAllowed = 6,     // the caller may not administer
  busy = 7,           // too much of this kind is waiting, or the file is being changed by somebody else
  noSuchSetting = 8,  // what was to be removed is not there
};

inline ErrorPtr makeSettingsError(SettingsError code, std::string text) {
  return makeError(kSettingsErrorDomain, static_cast<std::int64_t>(code),
                   {{kLocalizedDescriptionKey, std::move(text)}});
}

}  // namespace qm
