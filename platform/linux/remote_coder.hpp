// The arguments of remote calls as XPC objects and back; docs/wire.md has the format. What arrives is made
// only when the interface allows it, at every depth. Stateless, any thread.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "foundation/error.hpp"
#include "platform/remote_interface.hpp"
#include "platform/xpc.hpp"

namespace qm::remote {

// Of kCocoaErrorDomain (FoundationErrors.h), for what cannot be coded.
inline constexpr std::int64_t kCoderReadCorruptError = 4864;    // of another type, class or range
inline constexpr std::int64_t kCoderValueNotFoundError = 4865;  // missing

// Nothing, with the error set, when the values do not fit the parameters or cannot be coded. The classes of
// objects are the receiver's business.
std::optional<XPCArray> encodeArguments(const std::vector<RemoteParameter>& parameters, const Array& values,
                                        ErrorPtr* error);

// Nothing, with the error set, when something is missing, too much or not allowed.
std::optional<Array> decodeArguments(const std::vector<RemoteParameter>& parameters, const XPCObject& coded,
                                     ErrorPtr* error);

// A call: the selector and its coded arguments.
struct CodedCall {
  std::string selector;
  XPCObject arguments;
};
XPCDictionary encodeCall(std::string_view selector, const XPCArray& arguments);
std::optional<CodedCall> decodeCall(const XPCDictionary& message, ErrorPtr* error);

// Puts the coded arguments into the reply to a call, or takes them out.
void encodeReply(XPCDictionary& reply, const XPCArray& arguments);
std::optional<XPCObject> decodeReply(const XPCDictionary& reply, ErrorPtr* error);

// A text of the peer's, fit for a log line: not too long and on one line.
std::string shownText(std::string_view text);

}  // namespace qm::remote
