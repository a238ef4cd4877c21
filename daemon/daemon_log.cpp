#include "daemon/daemon_log.hpp"

qm::Log& daemon_log() {
  static qm::Log& log = qm::Log::create(qm::kQMRLogSubsystem, "qmreputationd");
  return log;
}
