// Work that keeps a processor busy for long, while this object lives: wrapped around it, it lets short items
// of the queues pass beside.
#pragma once

namespace qm {

class LongWork {
 public:
  // Any thread, not nested; ends on the same thread. Returns when it is the work's turn, first come first
  // served: as much runs at a time as there are processors, and more when what runs is asleep, waiting for a
  // disk perhaps. A queue's thread that waits here or works is replaced when items wait.
  LongWork();
  ~LongWork();
  LongWork(const LongWork&) = delete;
  LongWork& operator=(const LongWork&) = delete;

  // True when the work may use another processor beside its own for its next piece: one is free and nobody
  // waits for a turn. To be asked before each piece, milliseconds at most: others wait until it is.
  bool mayUseAnotherProcessor();

 private:
  bool usesAnotherProcessor_ = false;
};

}  // namespace qm
