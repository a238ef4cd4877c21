#include "platform/darwin/xpc_object.hpp"

#include <fcntl.h>

#include <algorithm>
#include <cstdlib>
#include <limits>
#include <memory>
#include <utility>

#include "foundation/object_description.hpp"
#include "foundation/strings.hpp"
#include "platform/darwin/remote_endpoint.hpp"
#include "platform/disposal.hpp"

namespace qm {
namespace {

XPCType typeOf(xpc_object_t object) {
  const xpc_type_t type = xpc_get_type(object);
  const struct {
    xpc_type_t system;
    XPCType ours;
  } types[] = {{XPC_TYPE_BOOL, XPCType::boolean},
               {XPC_TYPE_INT64, XPCType::int64},
               {XPC_TYPE_UINT64, XPCType::uint64},
               {XPC_TYPE_DOUBLE, XPCType::real},
               {XPC_TYPE_DATE, XPCType::date},
               {XPC_TYPE_DATA, XPCType::data},
               {XPC_TYPE_STRING, XPCType::string},
               {XPC_TYPE_UUID, XPCType::uuid},
               {XPC_TYPE_ARRAY, XPCType::array},
               {XPC_TYPE_DICTIONARY, XPCType::dictionary},
               {XPC_TYPE_FD, XPCType::fileDescriptor},
               {XPC_TYPE_ENDPOINT, XPCType::endpoint},
               {XPC_TYPE_CONNECTION, XPCType::connection},
               {XPC_TYPE_ERROR, XPCType::error}};
  for (const auto& entry : types)
    if (entry.system == type) return entry.ours;
  return XPCType::null;  // also shared memory and activities, which no message of the product has
}

// An error that the transport does not know.
XPCObject makeError(const char* text) {
  xpc_object_t dictionary = xpc_dictionary_create(nullptr, nullptr, 0);
  xpc_dictionary_set_string(dictionary, XPC_ERROR_KEY_DESCRIPTION, text);
  return XPCObject(std::make_shared<XPCObject::Representation>(XPCType::error, dictionary));
}

// One of the transport's errors.
XPCObject wrapConstant(const void* error) {
  return xpc::wrap(const_cast<void*>(error));
}

// Objects that there is one of are never destroyed: handlers may run while the process exits.
template <class Make>
const XPCObject& immortal(const Make& make) {
  return *new XPCObject(make());
}

// Without anything behind a NUL, and well-formed: the transport takes nothing else.
std::string cText(std::string_view text) {
  const std::string_view content = text.substr(0, text.find('\0'));
  return isValidUTF8(content) ? std::string(content) : lossyUTF8(content);
}

xpc_object_t rawIf(const XPCObject& object, XPCType type) {
  return object && object.type() == type ? xpc::raw(object) : nullptr;
}

// An endpoint of remote calls: nothing that could be put into a message here.
struct RemoteEndpoint final : XPCObject::Representation {
  explicit RemoteEndpoint(CFTypeRef its)
      : Representation(XPCType::endpoint, nullptr), framework(CFRetain(its)) {}
  ~RemoteEndpoint() override { CFRelease(framework); }
  RemoteEndpoint(const RemoteEndpoint&) = delete;
  RemoteEndpoint& operator=(const RemoteEndpoint&) = delete;

  const CFTypeRef framework;
};

const RemoteEndpoint* remoteEndpoint(const XPCObject& object) {
  return dynamic_cast<const RemoteEndpoint*>(object.representation().get());
}

}  // namespace

XPCObject::Representation::Representation(XPCType itsType, xpc_object_t itsObject)
    : type(itsType), object(itsObject) {
  if (type == XPCType::string)
    text.assign(xpc_string_get_string_ptr(object), xpc_string_get_length(object));
  else if (type == XPCType::data && xpc_data_get_length(object) > 0)
    data = Data(xpc_data_get_bytes_ptr(object), xpc_data_get_length(object));
}

XPCObject::Representation::~Representation() {
  if (object != nullptr) xpc_release(object);
}

namespace xpc {

XPCObject adopt(xpc_object_t object) {
  if (object == nullptr) return {};
  if (xpc_get_type(object) != XPC_TYPE_CONNECTION)
    return XPCObject(std::make_shared<XPCObject::Representation>(typeOf(object), object));
  XPCObject connection = wrapRemoteConnection(static_cast<xpc_connection_t>(object));
  xpc_release(object);
  return connection;
}

XPCObject wrap(xpc_object_t object) {
  return object == nullptr ? XPCObject() : adopt(xpc_retain(object));
}

std::string describe(xpc_object_t object) {
  const std::unique_ptr<char, void (*)(void*)> text(xpc_copy_description(object), std::free);
  return text == nullptr ? std::string() : std::string(text.get());
}

}  // namespace xpc

namespace remote {

XPCEndpoint endpointHolding(CFTypeRef frameworkEndpoint) {
  if (frameworkEndpoint == nullptr) return {};
  return XPCEndpoint::from(XPCObject(std::make_shared<RemoteEndpoint>(frameworkEndpoint)));
}

CFTypeRef heldEndpoint(const XPCEndpoint& endpoint) {
  const RemoteEndpoint* its = remoteEndpoint(endpoint);
  return its == nullptr ? nullptr : its->framework;
}

}  // namespace remote

XPCObject XPCObject::null() {
  return xpc::adopt(xpc_null_create());
}
XPCObject XPCObject::boolean(bool value) {
  return xpc::adopt(xpc_bool_create(value));
}
XPCObject XPCObject::int64(std::int64_t value) {
  return xpc::adopt(xpc_int64_create(value));
}
XPCObject XPCObject::uint64(std::uint64_t value) {
  return xpc::adopt(xpc_uint64_create(value));
}
XPCObject XPCObject::real(double value) {
  return xpc::adopt(xpc_double_create(value));
}
XPCObject XPCObject::date(Date value) {
  return xpc::adopt(xpc_date_create(value.nanosecondsSince1970));
}
XPCObject XPCObject::dateFromCurrent() {
  return xpc::adopt(xpc_date_create_from_current());
}
XPCObject XPCObject::data(const void* bytes, std::size_t length) {
  return xpc::adopt(xpc_data_create(length == 0 ? nullptr : bytes, length));
}
XPCObject XPCObject::string(std::string_view text) {
  return xpc::adopt(xpc_string_create(cText(text).c_str()));
}
XPCObject XPCObject::uuid(const UUID& value) {
  return xpc::adopt(xpc_uuid_create(value.bytes.data()));
}
XPCObject XPCObject::fileDescriptor(int descriptor) {
  return xpc::adopt(xpc_fd_create(descriptor));
}

XPCObject XPCObject::fileDescriptor(FileDescriptor descriptor, std::optional<std::uint32_t> userID) {
  XPCObject object = fileDescriptor(descriptor.get());
  closeElsewhere(std::move(descriptor), userID);
  return object;
}

XPCType XPCObject::type() const {
  return representation_->type;
}

// The system's getters give the neutral value for an object of another type; the type is asked all the same,
// since they take no null object.
bool XPCObject::boolValue() const {
  const xpc_object_t object = rawIf(*this, XPCType::boolean);
  return object != nullptr && xpc_bool_get_value(object);
}
std::int64_t XPCObject::int64Value() const {
  const xpc_object_t object = rawIf(*this, XPCType::int64);
  return object == nullptr ? 0 : xpc_int64_get_value(object);
}
std::uint64_t XPCObject::uint64Value() const {
  const xpc_object_t object = rawIf(*this, XPCType::uint64);
  return object == nullptr ? 0 : xpc_uint64_get_value(object);
}
double XPCObject::realValue() const {
  const xpc_object_t object = rawIf(*this, XPCType::real);
  return object == nullptr ? std::numeric_limits<double>::quiet_NaN() : xpc_double_get_value(object);
}
Date XPCObject::dateValue() const {
  const xpc_object_t object = rawIf(*this, XPCType::date);
  return object == nullptr ? Date{} : Date{xpc_date_get_value(object)};
}
const Data* XPCObject::dataValue() const {
  return rawIf(*this, XPCType::data) == nullptr ? nullptr : &representation_->data;
}
const std::string* XPCObject::stringValue() const {
  return rawIf(*this, XPCType::string) == nullptr ? nullptr : &representation_->text;
}

std::optional<UUID> XPCObject::uuidValue() const {
  const xpc_object_t object = rawIf(*this, XPCType::uuid);
  const std::uint8_t* bytes = object == nullptr ? nullptr : xpc_uuid_get_bytes(object);
  if (bytes == nullptr) return std::nullopt;
  UUID value;
  std::copy_n(bytes, value.bytes.size(), value.bytes.begin());
  return value;
}

FileDescriptor XPCObject::duplicateDescriptor() const {
  const xpc_object_t object = rawIf(*this, XPCType::fileDescriptor);
  FileDescriptor descriptor(object == nullptr ? FileDescriptor::kNone : xpc_fd_dup(object));
  if (descriptor) (void)::fcntl(descriptor.get(), F_SETFD, FD_CLOEXEC);
  return descriptor;
}

// The system closes what it received, and knows no users.
void XPCObject::setDescriptorUser(std::uint32_t) const {}

XPCDictionary XPCObject::asDictionary() const {
  return rawIf(*this, XPCType::dictionary) == nullptr ? XPCDictionary() : XPCDictionary(representation_);
}
XPCArray XPCObject::asArray() const {
  return rawIf(*this, XPCType::array) == nullptr ? XPCArray() : XPCArray(representation_);
}
XPCConnection XPCObject::asConnection() const {
  return rawIf(*this, XPCType::connection) == nullptr ? XPCConnection() : XPCConnection(representation_);
}

std::string XPCObject::description() const {
  if (!*this) return "(null)";
  const xpc_object_t object = xpc::raw(*this);
  return object == nullptr ? objectDescription("endpoint", representation_.get()) : xpc::describe(object);
}

bool operator==(const XPCObject& a, const XPCObject& b) {
  if (a.representation_ == b.representation_) return true;
  if (!a || !b || a.type() != b.type()) return false;
  const xpc_object_t first = xpc::raw(a);
  const xpc_object_t second = xpc::raw(b);
  if (first == nullptr || second == nullptr) {
    const RemoteEndpoint* one = remoteEndpoint(a);
    const RemoteEndpoint* other = remoteEndpoint(b);
    return one != nullptr && other != nullptr && CFEqual(one->framework, other->framework);
  }
  return first == second || xpc_equal(first, second);
}

XPCArray XPCArray::create() {
  return xpc::adopt(xpc_array_create(nullptr, 0)).asArray();
}
std::size_t XPCArray::count() const {
  return representation_ == nullptr ? 0 : xpc_array_get_count(xpc::raw(*this));
}
XPCObject XPCArray::value(std::size_t index) const {
  return index >= count() ? XPCObject() : xpc::wrap(xpc_array_get_value(xpc::raw(*this), index));
}
void XPCArray::append(const XPCObject& value) {
  if (representation_ != nullptr && xpc::raw(value) != nullptr)
    xpc_array_append_value(xpc::raw(*this), xpc::raw(value));
}

XPCDictionary XPCDictionary::create() {
  return xpc::adopt(xpc_dictionary_create(nullptr, nullptr, 0)).asDictionary();
}

XPCDictionary XPCDictionary::createReply() const {
  return representation_ == nullptr ? XPCDictionary()
                                    : xpc::adopt(xpc_dictionary_create_reply(xpc::raw(*this))).asDictionary();
}

XPCConnection XPCDictionary::remoteConnection() const {
  const xpc_connection_t remote =
      representation_ == nullptr ? nullptr : xpc_dictionary_get_remote_connection(xpc::raw(*this));
  return remote == nullptr ? XPCConnection() : xpc::wrapRemoteConnection(remote).asConnection();
}

std::size_t XPCDictionary::count() const {
  return representation_ == nullptr ? 0 : xpc_dictionary_get_count(xpc::raw(*this));
}

XPCObject XPCDictionary::value(std::string_view key) const {
  return representation_ == nullptr
             ? XPCObject()
             : xpc::wrap(xpc_dictionary_get_value(xpc::raw(*this), cText(key).c_str()));
}

std::optional<std::string> XPCDictionary::getString(std::string_view key) const {
  const XPCObject found = value(key);
  const std::string* text = found.stringValue();
  return text == nullptr ? std::nullopt : std::optional(*text);
}

void XPCDictionary::setValue(std::string_view key, const XPCObject& value) {
  // A null value removes the key, for the system as well.
  if (representation_ != nullptr)
    xpc_dictionary_set_value(xpc::raw(*this), cText(key).c_str(), xpc::raw(value));
}

bool XPCDictionary::apply(const Block<bool(std::string_view key, const XPCObject& value)>& applier) const {
  if (representation_ == nullptr) return true;
  return xpc_dictionary_apply(xpc::raw(*this), ^bool(const char* key, xpc_object_t value) {
    return applier(key, xpc::wrap(value));
  });
}

XPCEndpoint XPCEndpoint::from(const XPCObject& object) {
  return object && object.type() == XPCType::endpoint ? XPCEndpoint(object.representation()) : XPCEndpoint();
}

XPCObject xpcErrorConnectionInterrupted() {
  return wrapConstant(XPC_ERROR_CONNECTION_INTERRUPTED);
}
XPCObject xpcErrorConnectionInvalid() {
  return wrapConstant(XPC_ERROR_CONNECTION_INVALID);
}
XPCObject xpcErrorReplyTimedOut() {
  static const XPCObject& only = immortal([] { return makeError("Reply timed out"); });
  return only;
}
// Nothing refuses a message here: the system's transport has no limits of this kind.
XPCObject xpcErrorMessageRefused() {
  static const XPCObject& only = immortal([] { return makeError("Message refused"); });
  return only;
}

std::string xpcErrorDescription(const XPCObject& error) {
  const xpc_object_t object = rawIf(error, XPCType::error);
  const char* text =
      object == nullptr ? nullptr : xpc_dictionary_get_string(object, XPC_ERROR_KEY_DESCRIPTION);
  return text == nullptr ? std::string() : text;
}

}  // namespace qm
