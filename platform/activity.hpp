// Activities tie the log lines of one action together. Work sent on by queues and messages inherits the
// activity.
#pragma once

#include "foundation/block.hpp"

namespace qm {

// Runs the body at once on the calling thread inside a new activity that is a child of the current one. The
// description is a string literal. An exception from the body passes on.
void initiateActivity(const char* description, const Block<void()>& body);

// The work, for one call, wherever it is kept until then: it runs in the activity (on macOS also with the
// quality of service) that the calling thread has now.
Block<void()> inCurrentActivity(Block<void()> work);

}  // namespace qm
