// What started this process as a service: launchd or systemd.
#pragma once

namespace qm {

// Says that the service serves. On Linux this is sd_notify(3)'s READY=1, for a unit of Type=notify; nothing
// where nobody waits for it, and on macOS, where launchd does not ask. Any thread.
void notifyServiceManagerReady();

}  // namespace qm
