// An XPCEndpoint that leads to a listener for remote calls. It holds the framework's endpoint object, which
// is opaque here: this header stands between the sources in C++ and those in Objective-C++.
#pragma once

#include <CoreFoundation/CoreFoundation.h>

#include "platform/xpc.hpp"

namespace qm::remote {

// Adds a reference. No endpoint for null.
XPCEndpoint endpointHolding(CFTypeRef frameworkEndpoint);
// Null when it holds none. Valid as long as the argument.
CFTypeRef heldEndpoint(const XPCEndpoint& endpoint);

}  // namespace qm::remote
