#include "platform/long_work.hpp"

#include <sys/types.h>
#include <unistd.h>

#include "platform/common/turns.hpp"
#include "platform/linux/process_threads.hpp"
#include "platform/linux/worker_pool.hpp"

namespace qm {
namespace {

Turns& turns() {
  // Never destroyed: workers run until the process has ended.
  static Turns& turns = *new Turns(WorkerPool::shared().processors(), [](Turns::ThreadID thread) {
    return isRunnable(static_cast<::pid_t>(thread));
  });
  return turns;
}

Turns::ThreadID currentThread() {
  return static_cast<Turns::ThreadID>(::gettid());
}

}  // namespace

LongWork::LongWork() {
  requireNoForkedChild("long work was begun");
  WorkerPool::shared().stepAside();
  turns().take(currentThread());
}

LongWork::~LongWork() {
  turns().giveBack(currentThread(), usesAnotherProcessor_);
  WorkerPool::shared().stepBack();
}

bool LongWork::mayUseAnotherProcessor() {
  return usesAnotherProcessor_ = turns().decideSecond(usesAnotherProcessor_);
}

}  // namespace qm
