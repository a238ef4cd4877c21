// The interface of a remote protocol: its methods by selector, what their arguments and replies are and which
// classes may arrive in them. remote_protocol.hpp makes one from a C++ class.
#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "foundation/block.hpp"
#include "foundation/value.hpp"
#include "platform/secure_coding.hpp"

namespace qm {

enum class RemoteType : std::uint8_t { boolean, int64, uint64, uint32, real, object };

struct RemoteParameter {
  RemoteType type = RemoteType::object;
  // Of an object, which may also be nil: its own classes. A collection may hold propertyListClasses() unless
  // setClasses said otherwise.
  CodedClasses classes;
  bool hasOwnContents = false;  // `classes` is for all that the object holds, too
  // The one class that the method's C++ type takes for the object itself, whatever `classes` says; empty:
  // any.
  std::string_view objectClass{};
};

struct RemoteMethodSignature {
  std::string selector;
  std::vector<RemoteParameter> arguments;               // without the reply block
  std::optional<std::vector<RemoteParameter>> reply{};  // nothing: one-way
};

class RemoteInterface {
 public:
  RemoteInterface() = default;  // null
  RemoteInterface(std::string protocolName, std::vector<RemoteMethodSignature> methods);

  explicit operator bool() const { return !protocolName_.empty(); }
  const std::string& protocolName() const { return protocolName_; }
  // By selector.
  const std::map<std::string, RemoteMethodSignature, std::less<>>& methods() const { return methods_; }
  // Null when the protocol has no such method.
  const RemoteMethodSignature* method(std::string_view selector) const;

  // The classes of one argument (of the method or, ofReply, of its reply block; the first is 0), for the
  // object itself and for everything in it. The method must exist and take an object there.
  void setClasses(CodedClasses classes, std::string_view selector, std::size_t argumentIndex, bool ofReply);

 private:
  std::string protocolName_;
  std::map<std::string, RemoteMethodSignature, std::less<>> methods_;
};

// An object that a connection lets its peer call: an interface and, for each of its selectors, what to do.
// The arguments are as the interface says (numbers and booleans of just that type, objects of an allowed
// class or null). Called on the connection's queue, one call at a time.
class RemoteExport {
 public:
  // Null for a one-way method. May be called once, from any thread, also after the call has returned; when
  // the last copy goes uncalled the caller gets an error.
  using Reply = Block<void(Array replyArguments)>;
  using Handler = Block<void(const Array& arguments, const Reply& reply)>;

  RemoteExport() = default;  // nothing
  RemoteExport(RemoteInterface interface, std::map<std::string, Handler, std::less<>> handlers)
      : interface_(std::move(interface)), handlers_(std::move(handlers)) {}

  explicit operator bool() const { return static_cast<bool>(interface_); }
  RemoteInterface& interface() { return interface_; }
  const RemoteInterface& interface() const { return interface_; }
  // Null when there is none.
  const Handler* handler(std::string_view selector) const;

 private:
  RemoteInterface interface_;
  std::map<std::string, Handler, std::less<>> handlers_;
};

}  // namespace qm
