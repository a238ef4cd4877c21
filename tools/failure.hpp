// How the parts of a command line report: nothing when done, else a sentence for people.
#pragma once

#include <optional>
#include <string>

namespace qm::tools {

using Failure = std::optional<std::string>;

}  // namespace qm::tools
