// The languages the user of this process wants, as the system says.
#pragma once

#include <string>
#include <vector>

namespace qm {

// Language tags ("fr-CA"), the most wanted first; empty when the system has no wish. On Linux from the locale
// variables in the order of gettext: LANGUAGE, LC_ALL, LC_MESSAGES, LANG.
std::vector<std::string> preferredLanguages();

}  // namespace qm
