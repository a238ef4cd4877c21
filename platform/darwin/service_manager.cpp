#include "platform/service_manager.hpp"

namespace qm {

std::string servicePlace(const std::string&) {
  return {};
}

// launchd holds what is sent to the service's name until the listener is activated: there is nothing to say.
void notifyServiceManagerReady() {}

}  // namespace qm
