// The queue on which the handlers of one connection run.
#pragma once

#include "platform/queue.hpp"

namespace qm {

// The target itself when it is serial; without a target, or for a concurrent one, a new serial queue of the
// target's priority: work that blocks in concurrent queues keeps no connection from going on.
Queue serialTarget(const Queue& target);

}  // namespace qm
