// What starts processes as services, and where those are found: launchd or systemd.
#pragma once

#include <string>

namespace qm {

// Where a service of this name is looked for, for people: the path of its socket. Empty on macOS, where the
// name is all there is.
std::string servicePlace(const std::string& serviceName);

// Says that the service serves. On Linux this is sd_notify(3)'s READY=1, for a unit of Type=notify; nothing
// where nobody waits for it, and on macOS, where launchd does not ask. Any thread.
void notifyServiceManagerReady();

}  // namespace qm
