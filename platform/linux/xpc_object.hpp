// What stands behind XPCObject handles. Scalars never change once made; a container belongs to one thread
// while it is built.
#pragma once

#include <map>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "platform/linux/xpc_disposal.hpp"
#include "platform/xpc.hpp"

namespace qm {

// Destroyed through the deleter of the shared pointer it was made with: no virtual destructor.
struct XPCObject::Representation {
  explicit Representation(XPCType its) : type(its) {}
  Representation(const Representation&) = delete;
  Representation& operator=(const Representation&) = delete;

  const XPCType type;

 protected:
  ~Representation() = default;
};

namespace xpc {

class ReplyObligation;

template <XPCType kType, class Content>
struct Holding final : XPCObject::Representation {
  template <class... Arguments>
  explicit Holding(Arguments&&... arguments)
      : Representation(kType), content(std::forward<Arguments>(arguments)...) {}
  Content content;
};

using NullRepresentation = Holding<XPCType::null, Null>;
using BooleanRepresentation = Holding<XPCType::boolean, bool>;
using Int64Representation = Holding<XPCType::int64, std::int64_t>;
using UInt64Representation = Holding<XPCType::uint64, std::uint64_t>;
using RealRepresentation = Holding<XPCType::real, double>;
using DateRepresentation = Holding<XPCType::date, Date>;
using DataRepresentation = Holding<XPCType::data, Data>;
using StringRepresentation = Holding<XPCType::string, std::string>;
using UUIDRepresentation = Holding<XPCType::uuid, UUID>;
using ArrayRepresentation = Holding<XPCType::array, std::vector<XPCObject>>;
using DescriptorRepresentation = Holding<XPCType::fileDescriptor, PassedDescriptor>;
using ErrorRepresentation = Holding<XPCType::error, std::string>;
// The descriptor is the end through which a connection is asked for.
using EndpointRepresentation = Holding<XPCType::endpoint, PassedDescriptor>;

struct DictionaryRepresentation final : XPCObject::Representation {
  DictionaryRepresentation() : Representation(XPCType::dictionary) {}

  std::map<std::string, XPCObject, std::less<>> entries;
  // Of a received message and a reply made from one: the connection it came on.
  XPCObject remote;
  // Of a received request and the reply made from it, until the last of the two is gone.
  std::shared_ptr<ReplyObligation> obligation;
  bool isReply = false;
};

template <class Target, class... Arguments>
XPCObject make(Arguments&&... arguments) {
  return XPCObject(std::make_shared<Target>(std::forward<Arguments>(arguments)...));
}

// The content when the object is of the representation's type, else a null pointer.
template <class Target>
const Target* representationAs(const XPCObject& object, XPCType type) {
  const auto* representation = object.representation().get();
  return representation == nullptr || representation->type != type
             ? nullptr
             : static_cast<const Target*>(representation);
}
inline const DictionaryRepresentation* asDictionary(const XPCObject& object) {
  return representationAs<DictionaryRepresentation>(object, XPCType::dictionary);
}
inline const ArrayRepresentation* asArray(const XPCObject& object) {
  return representationAs<ArrayRepresentation>(object, XPCType::array);
}

// Takes the descriptor over. Null for an empty one.
XPCObject adoptDescriptor(PassedDescriptor descriptor);
XPCEndpoint adoptEndpoint(PassedDescriptor descriptor);

// Both descriptors are the same end of the same socket.
bool sameSocket(int a, int b);

// The connection's part of XPCObject::description.
std::string describeConnection(const XPCConnection& connection);

}  // namespace xpc
}  // namespace qm
