// "qmr url" on the standard streams. Returns the exit status; an interrupted run ends by its signal instead.
#pragma once

#include "tools/qmr/url_options.hpp"

namespace qm::qmr {

int runURLCommand(URLOptions options);

}  // namespace qm::qmr
