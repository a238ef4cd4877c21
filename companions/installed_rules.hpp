// The sample rules of the installation, as the programs that examine samples load them when they start.
#pragma once

#include <memory>

#include "companions/sample_rules.hpp"

namespace qm {

// Null when the rule library fails; what was loaded, or not, stands in the log.
std::shared_ptr<const SampleRules> loadInstalledRules();

}  // namespace qm
