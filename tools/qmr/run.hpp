// What a run that asks about many things prints to, and how its process ends.
#pragma once

#include <atomic>
#include <cerrno>
#include <future>
#include <istream>
#include <memory>
#include <ostream>
#include <string>
#include <thread>

#include "foundation/block.hpp"
#include "platform/interruption.hpp"

namespace qm::qmr {

struct RunStreams {
  std::istream& input;
  std::ostream& output;
  std::ostream& errors;
};

struct RunAppearance {
  bool colour = false;
  unsigned progressWidth = 0;  // columns of the terminal; 0 shows no progress
};

struct RunOutcome {
  int exitStatus = 0;
  // Who read the output has closed it: nothing more is said, and the status means little.
  bool outputClosed = false;
  // The thread that finds what is to be asked about did not come back (it waits for input or for a dead file
  // system) and still uses the streams: the process has to end without destroying anything.
  bool feederStuck = false;
};

// What is to be asked about, as it stands on standard input.
class RunInput {
 public:
  explicit RunInput(std::istream& input) : input_(input) {}

  // The next part up to the end mark. False at the end of the input and when it cannot be read: then the
  // error is set. For one thread.
  bool read(std::string& part, char endMark, int& error);
  // That thread waits for input. Any thread.
  bool isWaiting() const { return isWaiting_; }

 private:
  std::istream& input_;
  std::atomic<bool> isWaiting_{false};
};

// The thread that finds what is to be asked about.
class Feeder {
 public:
  // The input, which it may read, outlives it.
  Feeder(Block<void()> feed, const RunInput& input);
  // Called once. False when the thread does not end soon: it then goes on by itself.
  bool end();

 private:
  const RunInput& input_;
  std::future<void> done_;
  std::thread thread_;
};

// What the answers are written to, until that fails. Made for one thread at a time.
class RunOutput {
 public:
  explicit RunOutput(std::ostream& output) : output_(output) {}

  // False when this write failed, or an earlier one: then nothing is written.
  template <class Write>
  bool write(const Write& write) {
    if (error_ != 0) return false;
    errno = 0;
    write();
    if (!output_) error_ = errno != 0 ? errno : EIO;
    return error_ == 0;
  }
  // How the run ends as far as this is concerned; says what is wrong, unless it is a reader that has seen
  // enough.
  RunOutcome outcome(int exitStatus, std::ostream& errors) const;

 private:
  std::ostream& output_;
  int error_ = 0;  // errno of the write that failed
};

// The exit status of a run whose standard input failed with the error (0: it did not).
int exitStatusAfterInput(int exitStatus, int inputError);

// The standard ones.
RunStreams standardStreams();
// Of this process's terminal, if it has one.
RunAppearance standardAppearance();

// The exit status; does not return from an outcome that ends the process in another way. The signal is the
// one that interrupted the run, 0 for none.
int endOfRun(const RunOutcome& outcome, int signal);

// Runs until it is done or interrupted: Ctrl-C stops the run.
template <class Run>
int runUntilInterrupted(const std::shared_ptr<Run>& run) {
  int signal = 0;
  RunOutcome outcome;
  {
    const Interruption interruption([run] { run->stop(); });
    outcome = run->run();
    signal = interruption.signal();
  }
  return endOfRun(outcome, signal);
}

}  // namespace qm::qmr
