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

// What came in a reply, converted; nothing in the place of what could not be.
using ReplyValues = std::vector<std::optional<Value>>;
using ReplyHandler = Block<void(const ReplyValues& values)>;
// Calls one method of a proxy. The arguments fit the interface; the handler is null for a one-way method.
using Caller = void (*)(id proxy, const Array& arguments, const ReplyHandler& reply);

// Null for a selector that is no remote method of the product's daemons.
Caller callerFor(std::string_view selector);

// The framework's interface for a C++ one, with the classes that it allows; nil when there is no such
// protocol here.
NSXPCInterface* frameworkInterface(const RemoteInterface& interface);

// Whether a value may stand in the place: numbers and booleans of just that type, objects of the class that
// the C++ type takes, or null.
bool fits(const RemoteParameter& parameter, const Value& value);
bool fit(const std::vector<RemoteParameter>& parameters, const Array& values);

// The object that the framework calls for an export.
id exportedObject(RemoteExport exported);

}  // namespace qm::remote
