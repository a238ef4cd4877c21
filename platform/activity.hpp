// Activities tie the log lines of one action together. Work sent on by queues and messages inherits the
// activity.
#pragma once

#include "foundation/block.hpp"

namespace qm {

// Runs the body at once on the calling thread inside a new activity that is a child of the current one. The
// description is a string literal. An exception from the body passes on.
void initiateActivity(const char* description, const Block<void()>& body);

}  // namespace qm
