#include "tools/qmr/run.hpp"

#include <cstdlib>
#include <iostream>
#include <string_view>

#include "platform/terminal.hpp"

namespace qm::qmr {
namespace {

std::string_view environment(const char* name) {
  const char* value = std::getenv(name);
  return value == nullptr ? std::string_view() : std::string_view(value);
}

}  // namespace

RunStreams standardStreams() {
  return {std::cin, std::cout, std::cerr};
}

// Colour and progress are for terminals that can do more than print (https://no-color.org).
RunAppearance standardAppearance() {
  const bool dumb = environment("TERM").empty() || environment("TERM") == "dumb";
  return {.colour = !dumb && environment("NO_COLOR").empty() && isTerminal(StandardStream::output),
          .progressWidth = dumb ? 0 : terminalWidth(StandardStream::error)};
}

int endOfRun(const RunOutcome& outcome, int signal) {
  if (signal != 0) endBySignal(signal);
  if (outcome.outputClosed) endByClosedPipe();
  // Nothing is waiting to be written: rows and messages are flushed one by one.
  if (outcome.feederStuck) std::_Exit(outcome.exitStatus);
  return outcome.exitStatus;
}

}  // namespace qm::qmr
