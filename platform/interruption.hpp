// A person's Ctrl-C (and a polite end from the system) as an event that a command line can act on.
#pragma once

#include <memory>

#include "foundation/block.hpp"

namespace qm {

// While it lives, the first SIGINT or SIGTERM does not end the process but runs the block, on a thread of its
// own. A second one, and every one that comes before this object is made or after it is gone, ends the
// process at once. One at a time in a process. When the descriptor or thread it needs cannot be had, signals
// keep their default action. A signal that was ignored when the program started (a shell's background job)
// stays ignored.
class Interruption {
 public:
  explicit Interruption(Block<void()> block);
  // Waits for a block that is running.
  ~Interruption();
  Interruption(const Interruption&) = delete;
  Interruption& operator=(const Interruption&) = delete;

  // The signal that has come; 0 when none has. Any thread.
  int signal() const;

 private:
  struct Watch;
  std::unique_ptr<Watch> watch_;
};

// Ends the process the way the signal's default action does, so that whoever started it (a shell's loop) sees
// that it was interrupted: the status is 128 + signal. Output is flushed first by the caller.
[[noreturn]] void endBySignal(int signal);
// Ends the process as one that wrote to a pipe without a reader (SIGPIPE), also where that signal is ignored
// or blocked and the write failed instead.
[[noreturn]] void endByClosedPipe();

}  // namespace qm
