// The part of its remote protocol that every service of the product shares: clients subscribe to be called
// back. A service's protocol class derives from it.
#pragma once

#include <string>
#include <string_view>

#include "foundation/block.hpp"
#include "platform/remote_protocol.hpp"

class QMRSubscriptionProtocol {
 public:
  virtual ~QMRSubscriptionProtocol() = default;

  // The service connects to the endpoint and calls the methods of the named protocol there. The reply says
  // whether it will.
  virtual void subscribeToChangesWithProtocol(const std::string& protocolName,
                                              const qm::XPCEndpoint& endpoint,
                                              qm::Block<void(bool success)> reply) = 0;
  virtual void unsubscribeEndpoint(const qm::XPCEndpoint& endpoint, const std::string& protocolName) = 0;
};

template <>
struct qm::RemoteProtocol<QMRSubscriptionProtocol> {
  static constexpr std::string_view name = "QMRSubscriptionProtocol";
  using Methods = qm::RemoteMethods<
      qm::RemoteMethod<"subscribeToChangesWithProtocol:andEndpoint:reply:",
                       &QMRSubscriptionProtocol::subscribeToChangesWithProtocol>,
      qm::RemoteMethod<"unsubscribeEndpoint:fromProtocol:", &QMRSubscriptionProtocol::unsubscribeEndpoint>>;
};
