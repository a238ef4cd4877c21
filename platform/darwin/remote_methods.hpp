// The calls between the C++ protocols and the framework's: one entry for each remote method. For sources in
// Objective-C++.
#pragma once

#import <Foundation/Foundation.h>

#include <optional>
#include <string_view>
#include <vector>

#include "platform/remote_connection.hpp"
#include "platform/remote_interface.hpp"

namespace qm::remote {

// What came in a call or a reply, converted; nothing in the place of what could not be.
using ConvertedValues = std::vector<std::optional<Value>>;
using ReplyHandler = Block<void(const ConvertedValues& values)>;
// Calls one method of a proxy. The arguments fit the interface; the handler is null for a one-way method.
using Caller = void (*)(id proxy, const Array& arguments, const ReplyHandler& reply);

// Null for a selector that is no remote method of the product's daemons.
Caller callerFor(std::string_view selector);

// The framework's interface for a C++ one, with the classes that it allows; nil when there is no such
// protocol here.
NSXPCInterface* frameworkInterface(const RemoteInterface& interface);

// Whether the values may stand in the places: of their types, and objects of the class that the C++ type
// takes, or null.
bool fit(const std::vector<RemoteParameter>& parameters, const Array& values);
// The values, when they all are there and fit.
std::optional<Array> fitting(const std::vector<RemoteParameter>& parameters, const ConvertedValues& values);

// A call of the other side's. The reply is null for a one-way method, and takes what fits it, once.
struct ReceivedCall {
  std::string_view selector;
  ConvertedValues arguments;
  RemoteExport::Reply reply;
};
// The object that the framework calls for an export. Holds the block, and gives each call to it.
id exportedObject(Block<void(const ReceivedCall& call)> received);

}  // namespace qm::remote
