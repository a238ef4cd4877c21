#include "tools/qmr/check_command.hpp"

#include <cstdlib>
#include <iostream>
#include <memory>
#include <string_view>
#include <utility>

#include "platform/interruption.hpp"
#include "platform/terminal.hpp"
#include "tools/qmr/check_run.hpp"

namespace qm::qmr {
namespace {

std::string_view environment(const char* name) {
  const char* value = std::getenv(name);
  return value == nullptr ? std::string_view() : std::string_view(value);
}

// Colour and progress are for terminals that can do more than print (https://no-color.org).
CheckAppearance appearance() {
  const bool dumb = environment("TERM").empty() || environment("TERM") == "dumb";
  return {.colour = !dumb && environment("NO_COLOR").empty() && isTerminal(StandardStream::output),
          .progressWidth = dumb ? 0 : terminalWidth(StandardStream::error)};
}

}  // namespace

int runCheckCommand(CheckOptions options, const std::string& serviceName) {
  ReputationClientOptions clientOptions;
  clientOptions.serviceName = serviceName;
  const auto run = std::make_shared<CheckRun>(std::move(options), std::move(clientOptions),
                                              CheckStreams{std::cin, std::cout, std::cerr}, appearance());
  int signal = 0;
  CheckOutcome outcome;
  {
    const Interruption interruption([run] { run->stop(); });
    outcome = run->run();
    signal = interruption.signal();
  }
  if (signal != 0) endBySignal(signal);
  if (outcome.outputClosed) endByClosedPipe();
  // Nothing is waiting to be written: rows and messages are flushed one by one.
  if (outcome.feederStuck) std::_Exit(outcome.exitStatus);
  return outcome.exitStatus;
}

}  // namespace qm::qmr
