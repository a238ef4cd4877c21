// What the command line of qmr asks for.
#pragma once

#include <chrono>
#include <cstddef>
#include <optional>
#include <string>
#include <variant>
#include <vector>

#include "tools/qmr/settings_options.hpp"
#include "tools/qmr/url_options.hpp"

namespace qm::qmr {

struct CheckOptions {
  std::vector<std::string> paths;  // "-" reads paths from standard input
  bool recursive = false;
  bool oneFileSystem = false;
  bool nullSeparated = false;        // paths on standard input end in NUL instead of a line end
  std::optional<bool> downloaded{};  // not given: by the file's origin attributes
  bool json = false;
  std::optional<std::chrono::seconds> follow{};  // how long delayed answers are waited for
  std::size_t jobs = 32;
  std::chrono::seconds timeout{60};
  bool quiet = false;  // no summary, no progress
};

struct PingOptions {
  std::chrono::seconds timeout{5};  // of one try
  std::chrono::seconds wait{0};     // how long a service that does not answer well is tried again
};

// Nothing to do any more: the text (help, version, what is wrong) is to be written, and the program ends.
struct EndAtOnce {
  std::string text;
  bool isError = false;  // to standard error
  int exitStatus = 0;
};

using Command = std::variant<CheckOptions, URLOptions, PingOptions, SettingsOptions, EndAtOnce>;

Command parseCommandLine(int argumentCount, const char* const* arguments);

}  // namespace qm::qmr
