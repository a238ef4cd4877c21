#include "platform/service_manager.hpp"

#include <systemd/sd-daemon.h>

#include <cstring>

#include "foundation/log.hpp"
#include "platform/linux/run_folder.hpp"

namespace qm {

std::string servicePlace(const std::string& serviceName) {
  return runFolder() + "/" + serviceName;
}

void notifyServiceManagerReady() {
  const int result = ::sd_notify(0, "READY=1");
  if (result >= 0) return;
  static Log& log = Log::create(kQMRLogSubsystem, "service");
  QM_LOG_ERROR(log, "Cannot notify the service manager: %{public}s", std::strerror(-result));
}

}  // namespace qm
