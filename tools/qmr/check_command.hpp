// "qmr check" on the standard streams. Returns the exit status; an interrupted check ends by its signal
// instead.
#pragma once

#include <string>

#include "tools/qmr/command_line.hpp"

namespace qm::qmr {

int runCheckCommand(CheckOptions options, const std::string& serviceName);

}  // namespace qm::qmr
