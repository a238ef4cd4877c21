// "qmr ping": is there a service that answers?
#pragma once

#include <ostream>

#include "client/reputation_client.hpp"
#include "tools/qmr/command_line.hpp"

namespace qm::qmr {

// Asks about an empty file that is in no folder, as one that was not downloaded, and waits for the answer.
// Returns the exit status: a service that answers with an error has not answered.
int runPing(const PingOptions& options, ReputationClientOptions clientOptions, std::ostream& output,
            std::ostream& errors);

}  // namespace qm::qmr
