#include "tools/qmr/check_command.hpp"

#include <memory>
#include <utility>

#include "tools/qmr/check_run.hpp"

namespace qm::qmr {

int runCheckCommand(CheckOptions options, const std::string& serviceName) {
  ReputationClientOptions clientOptions;
  clientOptions.serviceName = serviceName;
  return runUntilInterrupted(std::make_shared<CheckRun>(std::move(options), std::move(clientOptions),
                                                        standardStreams(), standardAppearance()));
}

}  // namespace qm::qmr
