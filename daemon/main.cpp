// The daemon's entry point: builds everything once, in this order, and serves until it is killed.
#include <cstdlib>
#include <memory>

#include "daemon/daemon_log.hpp"
#include "daemon/peers.hpp"
#include "platform/process_limits.hpp"
#include "platform/queue.hpp"
#include "platform/service_manager.hpp"
#include "platform/standard_descriptors.hpp"
#include "platform/system_log.hpp"
#include "platform/xpc.hpp"
#include "reputation/QMRReputationLookup.hpp"
#include "settings/QMRCustomization.hpp"
#include "settings/QMRNamespace.hpp"
#include "settings/QMRSettingsClient.hpp"
#include "validation/QMRSignatureVerifier.hpp"
#include "validation/QRMXPCConnectionValidator.hpp"

int main() {
  qm::occupyClosedStandardDescriptors();
  qm::raiseDescriptorLimit();
  qm::boundHeap();
  qm::installSystemLog();
  daemon_log();
  const qm::Queue queue = qm::Queue::concurrent("com.quillmarsh.reputationhandlingqueue");
  const qm::XPCConnection listener =
      qm::XPCConnection::createListener(QMRNamespace::namespacedWithId("com.quillmarsh.qmreputationd"));
  const auto customization = std::make_shared<QMRCustomization>();
  const auto validator = std::make_shared<QRMXPCConnectionValidator>();
  validator->setSignatureVerifier(std::make_shared<QMRSignatureVerifier>());
  const std::shared_ptr<QMRSettingsClient> settingsClient = QMRSettingsClient::create();
  settingsClient->startListeners();

  ListenerContext context;
  context.validator = validator;
  context.requestHandlingQueue = RequestQueue(queue);
  context.makeProvider = [customization, settingsClient] {
    return QMRReputationLookup::reputationProviderWithBasaltEnabled(customization->useBasalt(),
                                                                    settingsClient);
  };
  listener.setEventHandler([context](const qm::XPCObject& event) {
    const bool isError = event && event.type() == qm::XPCType::error;
    if (!isError) return dispatch_listener_event(context, event);
    // Without its name nobody can reach the service; what started it decides what comes next.
    handle_listener_event(context, event);
    std::_Exit(EXIT_FAILURE);
  });
  listener.activate();
  qm::notifyServiceManagerReady();
  qm::runMainLoop();
}
