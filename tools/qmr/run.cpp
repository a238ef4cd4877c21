#include "tools/qmr/run.hpp"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <iostream>
#include <istream>
#include <utility>

#include "platform/terminal.hpp"
#include "tools/qmr/exit_status.hpp"
#include "tools/qmr/progress_line.hpp"
#include "tools/standard_streams.hpp"

namespace qm::qmr {
namespace {

// A feeder sees the end of the run at once, unless the system keeps it. It is not worth a wait for a person
// who types, or for a program that has nothing more to say.
constexpr std::chrono::milliseconds kFeederGrace{1000};
constexpr std::chrono::milliseconds kInputGrace{50};

}  // namespace

bool RunInput::read(std::string& part, char endMark, int& error) {
  isWaiting_ = true;
  errno = 0;
  const bool isRead = static_cast<bool>(std::getline(input_, part, endMark));
  if (!isRead) error = errno;  // the end of a stream leaves it as it was
  isWaiting_ = false;
  return isRead;
}

Feeder::Feeder(Block<void()> feed, const RunInput& input) : input_(input) {
  std::packaged_task<void()> task([feed = std::move(feed)] { feed(); });
  done_ = task.get_future();
  thread_ = std::thread(std::move(task));
}

bool Feeder::end() {
  const bool isDone =
      done_.wait_for(input_.isWaiting() ? kInputGrace : kFeederGrace) == std::future_status::ready;
  if (isDone)
    thread_.join();
  else
    thread_.detach();
  return isDone;
}

RunOutcome RunOutput::outcome(int exitStatus, std::ostream& errors) const {
  if (error_ == 0) return {.exitStatus = exitStatus};
  if (error_ == EPIPE) return {.exitStatus = exitStatus, .outputClosed = true};
  errors << "qmr: " << tools::outputProblem(error_) << '\n';
  return {.exitStatus = std::max(exitStatus, kNotAnswered)};
}

int exitStatusAfterInput(int exitStatus, int inputError) {
  return exitStatus == kNothingBad && inputError != 0 ? kNotAnswered : exitStatus;
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
