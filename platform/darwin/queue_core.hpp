// The system's queue behind a Queue. For sources in C++ only: in Objective-C++ the system's queues are
// objects.
#pragma once

#include <dispatch/dispatch.h>

#include <string>

#include "platform/queue.hpp"

namespace qm {

struct Queue::Core {
  Core(std::string itsLabel, bool isSerial, QualityOfService qos, int relativePriority);
  ~Core();
  Core(const Core&) = delete;
  Core& operator=(const Core&) = delete;

  const std::string label;
  const dispatch_queue_t queue;
};

// Null for no queue. Valid as long as the queue's handle.
inline dispatch_queue_t dispatchQueue(const Queue& queue) {
  return queue ? queue.core()->queue : nullptr;
}

}  // namespace qm
