// The backend that questions about URLs go to: the one that the daemon would choose for a connection made
// now, with the same settings and agents, but in this process.
#pragma once

#include <memory>
#include <optional>
#include <string>

#include "foundation/block.hpp"
#include "reputation/QMRReputationProtocol.hpp"
#include "tools/qmr/url_answer.hpp"
#include "tools/qmr/url_options.hpp"

namespace qm::qmr {

struct URLBackend {
  std::string name;  // "Basalt" or "Wisp"
  std::shared_ptr<QMRReputationProtocol> provider;
  // What a person can do so that such an answer does not come again; empty when nothing is known.
  Block<std::string(const URLAnswer& answer)> advice;
};

// Waits for the settings where the backend needs them, at most for the time-out. Nothing, and what is wrong,
// for people, when it cannot be used.
std::optional<URLBackend> makeURLBackend(const URLOptions& options, std::string& problem);

}  // namespace qm::qmr
