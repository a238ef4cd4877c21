#include "tools/qmr/url_command.hpp"

#include <memory>
#include <ostream>
#include <string>
#include <utility>

#include "tools/qmr/display_text.hpp"
#include "tools/qmr/exit_status.hpp"
#include "tools/qmr/run.hpp"
#include "tools/qmr/url_backend.hpp"
#include "tools/qmr/url_run.hpp"

namespace qm::qmr {

int runURLCommand(URLOptions options) {
  std::string problem;
  std::optional<URLBackend> backend = makeURLBackend(options, problem);
  if (!backend) {
    standardStreams().errors << "qmr: url: " << displayText(problem) << '\n';
    return kNotAnswered;
  }
  return runUntilInterrupted(std::make_shared<URLRun>(std::move(options), std::move(*backend),
                                                      standardStreams(), standardAppearance()));
}

}  // namespace qm::qmr
