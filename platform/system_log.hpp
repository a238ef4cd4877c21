// The system's log behind the log front.
#pragma once

namespace qm {

// Sends the log lines of this process to the system's log: the unified log on macOS; on Linux journald when
// standard error is connected to it, else standard error. Levels and private data follow the subsystem's
// logging property list, also when it changes. Once, early in main.
void installSystemLog();

}  // namespace qm
