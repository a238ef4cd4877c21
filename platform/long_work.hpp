// Work that keeps a processor busy for long, while this object lives: wrapped around it, it lets short items
// of the queues pass beside.
#pragma once

namespace qm {

class LongWork {
 public:
  // Any thread, not nested. Returns when it is the work's turn: as many run at a time as there are
  // processors, and the others too when none of those has advanced for seconds. A queue's thread that waits
  // here or works is replaced at once when items wait, so the work must not itself wait for other long work.
  LongWork();
  ~LongWork();
  // Says, every second or so at least, that the work is not stuck.
  void advanced();
  LongWork(const LongWork&) = delete;
  LongWork& operator=(const LongWork&) = delete;
};

}  // namespace qm
