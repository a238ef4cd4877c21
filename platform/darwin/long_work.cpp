#include "platform/long_work.hpp"

#include <mach/mach.h>
#include <pthread.h>
#include <unistd.h>

#include <algorithm>
#include <cstddef>

#include "platform/common/turns.hpp"

namespace qm {
namespace {

// The port is the one that the pthread library keeps for each of its threads: nothing to give back. A thread
// that cannot be asked about is taken for asleep.
bool isRunnable(Turns::ThreadID thread) {
  thread_basic_info_data_t info{};
  mach_msg_type_number_t count = THREAD_BASIC_INFO_COUNT;
  const kern_return_t status = thread_info(static_cast<thread_act_t>(thread), THREAD_BASIC_INFO,
                                           reinterpret_cast<thread_info_t>(&info), &count);
  return status == KERN_SUCCESS && info.run_state == TH_STATE_RUNNING;
}

std::size_t processorCount() {
  return static_cast<std::size_t>(std::max(1L, ::sysconf(_SC_NPROCESSORS_ONLN)));
}

Turns& turns() {
  // Never destroyed: queues run until the process has ended.
  static Turns& turns = *new Turns(processorCount(), isRunnable);
  return turns;
}

Turns::ThreadID currentThread() {
  return pthread_mach_thread_np(pthread_self());
}

}  // namespace

// libdispatch replaces threads that wait by itself.
LongWork::LongWork() {
  turns().take(currentThread());
}

LongWork::~LongWork() {
  turns().giveBack(currentThread(), usesAnotherProcessor_);
}

bool LongWork::mayUseAnotherProcessor() {
  return usesAnotherProcessor_ = turns().decideSecond(usesAnotherProcessor_);
}

}  // namespace qm
