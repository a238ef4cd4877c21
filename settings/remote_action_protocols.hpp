// What the settings daemon calls in the processes that subscribed to remote actions: an action was pushed to
// this machine, or has been carried out.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "foundation/block.hpp"
#include "foundation/value.hpp"
#include "platform/remote_protocol.hpp"

// The result code of an action that nobody in the process handles.
inline constexpr std::int64_t kRemoteActionHasNoHandler = 3;

class RemoteActionEventsProtocol {
 public:
  virtual ~RemoteActionEventsProtocol() = default;

  // The listener, where progress may be reported, may be null. The finish callback takes a result code.
  virtual void remoteActionWasPushedWithName(const std::string& name, const qm::XPCEndpoint& progressListener,
                                             const qm::Dictionary& actionData,
                                             qm::Block<void(std::int64_t result)> finishCallback) = 0;
};

class RemoteActionExecutedEventsProtocol {
 public:
  virtual ~RemoteActionExecutedEventsProtocol() = default;

  virtual void remoteActionWasExecutedWithName(const std::string& name, std::int64_t completionResult) = 0;
};

template <>
struct qm::RemoteProtocol<RemoteActionEventsProtocol> {
  static constexpr std::string_view name = "RemoteActionEventsProtocol";
  using Methods = qm::RemoteMethods<
      qm::RemoteMethod<"remoteActionWasPushedWithName:progressListener:actionData:andFinishCallback:",
                       &RemoteActionEventsProtocol::remoteActionWasPushedWithName>>;
};
template <>
struct qm::RemoteProtocol<RemoteActionExecutedEventsProtocol> {
  static constexpr std::string_view name = "RemoteActionExecutedEventsProtocol";
  using Methods = qm::RemoteMethods<
      qm::RemoteMethod<"remoteActionWasExecutedWithName:andCompletionResult:",
                       &RemoteActionExecutedEventsProtocol::remoteActionWasExecutedWithName>>;
};
