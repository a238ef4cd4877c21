#include "tools/qmr/run.hpp"

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <iostream>
#include <utility>

#include "foundation/error.hpp"
#include "platform/terminal.hpp"
#include "tools/qmr/exit_status.hpp"
#include "tools/qmr/progress_line.hpp"

namespace qm::qmr {
namespace {

// A feeder sees the end of the run at once, unless the system keeps it.
constexpr std::chrono::seconds kFeederGrace{1};

}  // namespace

Feeder::Feeder(Block<void()> feed) {
  std::packaged_task<void()> task([feed = std::move(feed)] { feed(); });
  done_ = task.get_future();
  thread_ = std::thread(std::move(task));
}

bool Feeder::end() {
  const bool isDone = done_.wait_for(kFeederGrace) == std::future_status::ready;
  if (isDone)
    thread_.join();
  else
    thread_.detach();
  return isDone;
}

RunOutcome RunOutput::outcome(int exitStatus, std::ostream& errors) const {
  if (error_ == 0) return {.exitStatus = exitStatus};
  if (error_ == EPIPE) return {.exitStatus = exitStatus, .outputClosed = true};
  errors << "qmr: the answers cannot be written: " << systemErrorText(error_) << '\n';
  return {.exitStatus = std::max(exitStatus, kNotAnswered)};
}

RunStreams standardStreams() {
  return {std::cin, std::cout, std::cerr};
}

// Colour and progress are for terminals that can do more than print (https://no-color.org).
RunAppearance standardAppearance() {
  const char* const noColour = std::getenv("NO_COLOR");
  const bool isPlain = isDumbTerminal() || (noColour != nullptr && *noColour != '\0');
  return {.colour = !isPlain && isTerminal(StandardStream::output), .progressWidth = progressWidth()};
}

int endOfRun(const RunOutcome& outcome, int signal) {
  if (signal != 0) endBySignal(signal);
  if (outcome.outputClosed) endByClosedPipe();
  // Nothing is waiting to be written: rows and messages are flushed one by one.
  if (outcome.feederStuck) std::_Exit(outcome.exitStatus);
  return outcome.exitStatus;
}

}  // namespace qm::qmr
