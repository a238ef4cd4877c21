// "qmr settings": shows, changes and watches the product's settings through the settings daemon.
#pragma once

#include <ostream>

#include "tools/qmr/settings_options.hpp"

namespace qm::qmr {

// Returns the exit status; a watch ends by the signal that interrupts it.
int runSettingsCommand(const SettingsOptions& options, std::ostream& output, std::ostream& errors);

}  // namespace qm::qmr
