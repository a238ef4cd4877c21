#include "platform/darwin/remote_methods.hpp"

#include <algorithm>
#include <type_traits>
#include <utility>

#include "platform/common/remote_core.hpp"
#include "platform/darwin/foundation_value.hpp"
#include "platform/darwin/remote_classes.hpp"
#include "platform/darwin/remote_protocols.hpp"

// Gives each call on, with its selector.
@interface QMRemoteExportedObject : NSObject <RemoteActionEventsProtocol, RemoteActionExecutedEventsProtocol>
- (instancetype)initWithBlock:(qm::Block<void(const qm::remote::ReceivedCall&)>)received;
@end

@implementation QMRemoteExportedObject {
  qm::Block<void(const qm::remote::ReceivedCall&)> _received;
}

- (instancetype)initWithBlock:(qm::Block<void(const qm::remote::ReceivedCall&)>)received {
  self = [super init];
  if (self != nil) _received = std::move(received);
  return self;
}

- (void)remoteActionWasPushedWithName:(NSString*)name
                     progressListener:(NSXPCListenerEndpoint*)progressListener
                           actionData:(NSDictionary*)actionData
                    andFinishCallback:(void (^)(int64_t result))finishCallback {
  void (^finish)(int64_t) = [finishCallback copy];
  _received({.selector = "remoteActionWasPushedWithName:progressListener:actionData:andFinishCallback:",
             .arguments = {qm::valueFrom(name, qm::OtherObjects::refused),
                           qm::valueFrom(progressListener, qm::OtherObjects::refused),
                           qm::valueFrom(actionData, qm::OtherObjects::refused)},
             .reply = [finish](const qm::Array& values) {
               if (finish != nil) finish(*values.front().as<std::int64_t>());
             }});
}

- (void)remoteActionWasExecutedWithName:(NSString*)name andCompletionResult:(int64_t)completionResult {
  _received({.selector = "remoteActionWasExecutedWithName:andCompletionResult:",
             .arguments = {qm::valueFrom(name, qm::OtherObjects::refused), qm::Value(completionResult)},
             .reply = nullptr});
}

@end

namespace qm::remote {
namespace {

template <class T>
T argument(const Value& value) {
  if constexpr (std::is_same_v<T, BOOL>)
    return *value.as<bool>() ? YES : NO;
  else if constexpr (std::is_same_v<T, std::uint32_t>)
    return static_cast<std::uint32_t>(*value.as<std::uint64_t>());
  else if constexpr (std::is_arithmetic_v<T>)
    return *value.as<T>();
  else
    return value.isNull() ? nil : static_cast<T>(objectFrom(value));
}

template <class T>
std::optional<Value> replied(T value) {
  if constexpr (std::is_same_v<T, BOOL>)
    return Value(value != NO);
  else if constexpr (std::is_arithmetic_v<T>)
    return Value(value);
  else
    return valueFrom(value, OtherObjects::refused);
}

// The blocks that the framework calls with a reply; their types tell it what to decode.
template <class A>
auto reply(const ReplyHandler& handler) {
  const ReplyHandler its = handler;
  return ^(A first) {
    its({replied(first)});
  };
}
template <class A, class B>
auto reply(const ReplyHandler& handler) {
  const ReplyHandler its = handler;
  return ^(A first, B second) {
    its({replied(first), replied(second)});
  };
}
template <class A, class B, class C>
auto reply(const ReplyHandler& handler) {
  const ReplyHandler its = handler;
  return ^(A first, B second, C third) {
    its({replied(first), replied(second), replied(third)});
  };
}

using Values = const Array&;
using Reply = const ReplyHandler&;
using Settings = id<qmsettingsdProtocol>;
using Wisp = id<QMRWispProtocol>;

struct Method {
  std::string_view selector;
  Caller call;
};

Settings settings(id proxy) {
  return proxy;
}
Wisp wisp(id proxy) {
  return proxy;
}

// One line each: the compiler checks selector, arguments and reply against the declared protocols.
constexpr Method kMethods[] = {
    // of every service
    {"subscribeToChangesWithProtocol:andEndpoint:reply:",
     [](id proxy, Values values, Reply handler) {
       [settings(proxy) subscribeToChangesWithProtocol:argument<NSString*>(values[0])
                                           andEndpoint:argument<NSXPCListenerEndpoint*>(values[1])
                                                 reply:reply<BOOL>(handler)];
     }},
    {"unsubscribeEndpoint:fromProtocol:",
     [](id proxy, Values values, Reply) {
       [settings(proxy) unsubscribeEndpoint:argument<NSXPCListenerEndpoint*>(values[0])
                               fromProtocol:argument<NSString*>(values[1])];
     }},
    // of the settings daemon
    {"getUserAndSystemSettingsWithReply:",
     [](id proxy, Values, Reply handler) {
       [settings(proxy)
           getUserAndSystemSettingsWithReply:reply<NSDictionary*, NSDictionary*, NSError*>(handler)];
     }},
    {"getUserSettingsWithReply:",
     [](id proxy, Values, Reply handler) {
       [settings(proxy) getUserSettingsWithReply:reply<NSDictionary*, NSError*>(handler)];
     }},
    {"getSystemSettingsWithReply:",
     [](id proxy, Values, Reply handler) {
       [settings(proxy) getSystemSettingsWithReply:reply<NSDictionary*, NSError*>(handler)];
     }},
    {"getUserWhitelistWithReply:",
     [](id proxy, Values, Reply handler) {
       [settings(proxy) getUserWhitelistWithReply:reply<NSArray*, BOOL>(handler)];
     }},
    {"updateWispConfigurationState:",
     [](id proxy, Values values, Reply) {
       [settings(proxy) updateWispConfigurationState:argument<std::int64_t>(values[0])];
     }},
    {"updateWispError:",
     [](id proxy, Values values, Reply) { [settings(proxy) updateWispError:argument<NSError*>(values[0])]; }},
    {"setWispErrorState:",
     [](id proxy, Values values, Reply) {
       [settings(proxy) setWispErrorState:argument<std::int64_t>(values[0])];
     }},
    {"setTCCAccessGranted:",
     [](id proxy, Values values, Reply) { [settings(proxy) setTCCAccessGranted:argument<BOOL>(values[0])]; }},
    {"getTidal2URLsWithCallback:",
     [](id proxy, Values, Reply handler) {
       [settings(proxy) getTidal2URLsWithCallback:reply<NSError*, NSArray*>(handler)];
     }},
    // of the Wisp core daemon
    {"qvsScan:withTimeout:withCallback:",
     [](id proxy, Values values, Reply handler) {
       [wisp(proxy) qvsScan:argument<NSURL*>(values[0])
                withTimeout:argument<std::uint32_t>(values[1])
               withCallback:reply<QMRWispQvsResponseObjC*, NSError*>(handler)];
     }},
    {"cloudScan:withMetadata:withTimeout:withCallback:",
     [](id proxy, Values values, Reply handler) {
       [wisp(proxy) cloudScan:argument<NSURL*>(values[0])
                 withMetadata:argument<NSDictionary*>(values[1])
                  withTimeout:argument<std::uint32_t>(values[2])
                 withCallback:reply<QMRWispCloudScanResponseObjC*, NSError*>(handler)];
     }},
    {"fileScan:withClientDataPtr:withScanParameters:withTimeout:withCallback:",
     [](id proxy, Values values, Reply handler) {
       [wisp(proxy) fileScan:argument<NSArray*>(values[0])
            withClientDataPtr:argument<std::uint64_t>(values[1])
           withScanParameters:argument<QMRWispFileScanParametersObjC*>(values[2])
                  withTimeout:argument<std::uint32_t>(values[3])
                 withCallback:reply<QMRWispScanCompleteSummaryObjC*, NSError*>(handler)];
     }},
    {"getConfiguration:",
     [](id proxy, Values, Reply handler) {
       [wisp(proxy) getConfiguration:reply<QMRWispConfigurationObjC*>(handler)];
     }},
    {"setConfiguration:withCallback:",
     [](id proxy, Values values, Reply handler) {
       [wisp(proxy) setConfiguration:argument<QMRWispConfigurationObjC*>(values[0])
                        withCallback:reply<NSError*>(handler)];
     }},
    {"clearCache:",
     [](id proxy, Values, Reply handler) { [wisp(proxy) clearCache:reply<NSError*>(handler)]; }},
    {"getSettingValue:withResponse:",
     [](id proxy, Values values, Reply handler) {
       [wisp(proxy) getSettingValue:argument<std::int64_t>(values[0])
                       withResponse:reply<id, NSError*>(handler)];
     }},
    {"setSettingValue:forKey:withCallback:",
     [](id proxy, Values values, Reply handler) {
       [wisp(proxy) setSettingValue:argument<id>(values[0])
                             forKey:argument<std::int64_t>(values[1])
                       withCallback:reply<NSError*>(handler)];
     }},
    {"notifyChannelUpdate:withPath:withCallback:",
     [](id proxy, Values values, Reply handler) {
       [wisp(proxy) notifyChannelUpdate:argument<std::uint64_t>(values[0])
                               withPath:argument<NSURL*>(values[1])
                           withCallback:reply<NSError*>(handler)];
     }},
    {"getSettingValueSync:withResponse:",
     [](id proxy, Values values, Reply handler) {
       [wisp(proxy) getSettingValueSync:argument<std::int64_t>(values[0])
                           withResponse:reply<id, NSError*>(handler)];
     }},
    {"notifyChannelUpdateSync:withPath:withCallback:",
     [](id proxy, Values values, Reply handler) {
       [wisp(proxy) notifyChannelUpdateSync:argument<std::uint64_t>(values[0])
                                   withPath:argument<NSURL*>(values[1])
                               withCallback:reply<NSError*>(handler)];
     }},
};

// Named here, so that the program has them: the framework finds no protocol that nothing refers to.
Protocol* protocolNamed(const std::string& name) {
  for (Protocol* its in @[
         @protocol(qmsettingsdProtocol), @protocol(QMRWispProtocol), @protocol(RemoteActionEventsProtocol),
         @protocol(RemoteActionExecutedEventsProtocol)
       ])
    if (textFrom(NSStringFromProtocol(its)) == name) return its;
  return nil;
}

// The framework knows the classes from the protocol's declaration. It needs the records' classes to be there,
// and to be told where the C++ interface allows others.
void prepareClasses(const std::vector<RemoteParameter>& parameters) {
  for (const RemoteParameter& parameter : parameters)
    for (const CodedClass& coded : parameter.classes)
      if (coded.record != nullptr) classForRecords(*coded.record);
}

void allowClasses(NSXPCInterface* interface, const std::string& selector,
                  const std::vector<RemoteParameter>& parameters, bool ofReply) {
  for (std::size_t i = 0; i < parameters.size(); ++i) {
    if (!parameters[i].hasOwnContents) continue;
    [interface setClasses:frameworkClasses(parameters[i].classes)
              forSelector:NSSelectorFromString(stringFrom(selector))
            argumentIndex:i
                  ofReply:ofReply ? YES : NO];
  }
}

}  // namespace

Caller callerFor(std::string_view selector) {
  for (const Method& method : kMethods)
    if (method.selector == selector) return method.call;
  return nullptr;
}

NSXPCInterface* frameworkInterface(const RemoteInterface& interface) {
  Protocol* its = protocolNamed(interface.protocolName());
  if (its == nil) return nil;
  for (const auto& [selector, method] : interface.methods()) {
    prepareClasses(method.arguments);
    if (method.reply) prepareClasses(*method.reply);
  }
  NSXPCInterface* result = [NSXPCInterface interfaceWithProtocol:its];
  for (const auto& [selector, method] : interface.methods()) {
    allowClasses(result, selector, method.arguments, false);
    if (method.reply) allowClasses(result, selector, *method.reply, true);
  }
  return result;
}

bool fit(const std::vector<RemoteParameter>& parameters, const Array& values) {
  return std::equal(parameters.begin(), parameters.end(), values.begin(), values.end(),
                    [](const RemoteParameter& parameter, const Value& value) {
                      return fits(parameter.type, value) &&
                             (value.isNull() || parameter.objectClass.empty() ||
                              codedClassName(value) == parameter.objectClass);
                    });
}

std::optional<Array> fitting(const std::vector<RemoteParameter>& parameters, const ConvertedValues& values) {
  Array result;
  for (const std::optional<Value>& value : values)
    if (value) result.push_back(*value);
  return fit(parameters, result) ? std::optional(std::move(result)) : std::nullopt;
}

id exportedObject(Block<void(const ReceivedCall& call)> received) {
  return [[QMRemoteExportedObject alloc] initWithBlock:std::move(received)];
}

}  // namespace qm::remote
