#include "daemon/DLog.hpp"

#include "platform/main_bundle.hpp"

namespace qm::dlog {

Log& log() {
  static Log& log = Log::create(kQMRLogSubsystem, MainBundle::instance().bundleIdentifier().value_or(""));
  return log;
}

void write(const std::string& message) {
  QM_LOG_DEBUG(log(), "%@", message);
}

}  // namespace qm::dlog
