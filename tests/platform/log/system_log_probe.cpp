// Logs lines of each level, over and over, until its standard input ends.
#include <poll.h>

#include "foundation/log.hpp"
#include "platform/system_log.hpp"

int main() {
  qm::installSystemLog();
  static qm::Log& log = qm::Log::create(qm::kQMRLogSubsystem, "Probe");
  for (pollfd input{.fd = 0, .events = POLLIN, .revents = 0}; ::poll(&input, 1, 5) == 0;) {
    QM_LOG_DEBUG(log, "debug line");
    QM_LOG_ERROR(log, "error line %@", std::string("word"));
    QM_LOG(log, "done");
  }
}
