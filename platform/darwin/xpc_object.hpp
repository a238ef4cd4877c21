// The system's XPC objects behind those of platform/xpc.hpp. For sources in C++ only: in Objective-C++ the
// system's are objects of another type.
#pragma once

#include <xpc/xpc.h>

#include <string>

#include "platform/xpc.hpp"

namespace qm {

struct XPCObject::Representation {
  // Takes over one reference to the object; null only for an endpoint of remote calls.
  Representation(XPCType itsType, xpc_object_t itsObject);
  virtual ~Representation();
  Representation(const Representation&) = delete;
  Representation& operator=(const Representation&) = delete;

  const XPCType type;
  const xpc_object_t object;
  // Copies of what the object holds, for callers that look at it in place.
  std::string text;
  Data data;
};

namespace xpc {

// An object for one of the system's; no object for null. `wrap` adds a reference, `adopt` takes over the
// caller's.
XPCObject wrap(xpc_object_t object);
XPCObject adopt(xpc_object_t object);
// Null for no object. Valid as long as the argument.
inline xpc_object_t raw(const XPCObject& object) {
  return object ? object.representation()->object : nullptr;
}
// The connection that belongs to the system, which ends it: the other end of a message.
XPCObject wrapRemoteConnection(xpc_connection_t connection);
std::string describe(xpc_object_t object);

}  // namespace xpc
}  // namespace qm
