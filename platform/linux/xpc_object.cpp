#include "platform/linux/xpc_object.hpp"

#include <fcntl.h>
#include <sys/stat.h>

#include <cmath>
#include <cstring>
#include <limits>
#include <type_traits>

#include "foundation/error.hpp"
#include "foundation/strings.hpp"

namespace qm {
namespace {

using namespace xpc;

// The objects that there is one of are never destroyed: handlers may run while the process exits.
template <class Target, class... Arguments>
const XPCObject& makeImmortal(Arguments&&... arguments) {
  return *new XPCObject(make<Target>(std::forward<Arguments>(arguments)...));
}

template <class Target>
auto contentOr(const XPCObject& object, XPCType type, decltype(Target::content) fallback) {
  const Target* representation = representationAs<Target>(object, type);
  return representation == nullptr ? fallback : representation->content;
}

}  // namespace

XPCObject XPCObject::null() {
  static const XPCObject& only = makeImmortal<NullRepresentation>();
  return only;
}

XPCObject XPCObject::boolean(bool value) {
  static const XPCObject& yes = makeImmortal<BooleanRepresentation>(true);
  static const XPCObject& no = makeImmortal<BooleanRepresentation>(false);
  return value ? yes : no;
}

XPCObject XPCObject::int64(std::int64_t value) {
  return make<Int64Representation>(value);
}
XPCObject XPCObject::uint64(std::uint64_t value) {
  return make<UInt64Representation>(value);
}
XPCObject XPCObject::real(double value) {
  return make<RealRepresentation>(value);
}
XPCObject XPCObject::date(Date value) {
  return make<DateRepresentation>(value);
}
XPCObject XPCObject::dateFromCurrent() {
  return date(Date::now());
}
XPCObject XPCObject::data(const void* bytes, std::size_t length) {
  return make<DataRepresentation>(bytes, length);
}

XPCObject XPCObject::string(std::string_view text) {
  const std::string_view content = text.substr(0, text.find('\0'));
  return isValidUTF8(content) ? make<StringRepresentation>(content)
                              : make<StringRepresentation>(lossyUTF8(content));
}

XPCObject XPCObject::uuid(const UUID& value) {
  return make<UUIDRepresentation>(value);
}

XPCObject XPCObject::fileDescriptor(int descriptor) {
  return adoptDescriptor(FileDescriptor(::fcntl(descriptor, F_DUPFD_CLOEXEC, 0)));
}

XPCObject XPCObject::fileDescriptor(FileDescriptor descriptor, std::optional<std::uint32_t> userID) {
  return adoptDescriptor({std::move(descriptor), userID});
}

XPCType XPCObject::type() const {
  return representation_->type;
}

bool XPCObject::boolValue() const {
  return contentOr<BooleanRepresentation>(*this, XPCType::boolean, false);
}
std::int64_t XPCObject::int64Value() const {
  return contentOr<Int64Representation>(*this, XPCType::int64, 0);
}
std::uint64_t XPCObject::uint64Value() const {
  return contentOr<UInt64Representation>(*this, XPCType::uint64, 0);
}
double XPCObject::realValue() const {
  return contentOr<RealRepresentation>(*this, XPCType::real, std::numeric_limits<double>::quiet_NaN());
}
Date XPCObject::dateValue() const {
  return contentOr<DateRepresentation>(*this, XPCType::date, Date{});
}

const Data* XPCObject::dataValue() const {
  const auto* representation = representationAs<DataRepresentation>(*this, XPCType::data);
  return representation == nullptr ? nullptr : &representation->content;
}

const std::string* XPCObject::stringValue() const {
  const auto* representation = representationAs<StringRepresentation>(*this, XPCType::string);
  return representation == nullptr ? nullptr : &representation->content;
}

std::optional<UUID> XPCObject::uuidValue() const {
  const auto* representation = representationAs<UUIDRepresentation>(*this, XPCType::uuid);
  return representation == nullptr ? std::nullopt : std::optional(representation->content);
}

FileDescriptor XPCObject::duplicateDescriptor() const {
  const auto* representation = representationAs<DescriptorRepresentation>(*this, XPCType::fileDescriptor);
  return representation == nullptr ? FileDescriptor() : representation->content.duplicate();
}

void XPCObject::setDescriptorUser(std::uint32_t userID) const {
  if (!representation_ || type() != XPCType::fileDescriptor) return;
  static_cast<DescriptorRepresentation&>(*representation_).content.setUser(userID);
}

XPCDictionary XPCObject::asDictionary() const {
  return xpc::asDictionary(*this) == nullptr ? XPCDictionary() : XPCDictionary(representation_);
}

XPCArray XPCObject::asArray() const {
  return xpc::asArray(*this) == nullptr ? XPCArray() : XPCArray(representation_);
}

XPCConnection XPCObject::asConnection() const {
  return representation_ == nullptr || type() != XPCType::connection ? XPCConnection()
                                                                     : XPCConnection(representation_);
}

bool operator==(const XPCObject& a, const XPCObject& b) {
  if (a.representation_ == b.representation_) return true;
  if (!a || !b || a.type() != b.type()) return false;
  const auto same = [&]<class Target>(std::type_identity<Target>) {
    return static_cast<const Target&>(*a.representation_).content ==
           static_cast<const Target&>(*b.representation_).content;
  };
  switch (a.type()) {
    case XPCType::null:
      return true;
    case XPCType::boolean:
      return same(std::type_identity<BooleanRepresentation>());
    case XPCType::int64:
      return same(std::type_identity<Int64Representation>());
    case XPCType::uint64:
      return same(std::type_identity<UInt64Representation>());
    case XPCType::real: {
      const double x = a.realValue();
      const double y = b.realValue();
      return x == y || (std::isnan(x) && std::isnan(y));
    }
    case XPCType::date:
      return same(std::type_identity<DateRepresentation>());
    case XPCType::data:
      return same(std::type_identity<DataRepresentation>());
    case XPCType::string:
      return same(std::type_identity<StringRepresentation>());
    case XPCType::uuid:
      return same(std::type_identity<UUIDRepresentation>());
    case XPCType::error:
      return same(std::type_identity<ErrorRepresentation>());
    case XPCType::array:
      return xpc::asArray(a)->content == xpc::asArray(b)->content;
    case XPCType::dictionary:
      return xpc::asDictionary(a)->entries == xpc::asDictionary(b)->entries;
    case XPCType::endpoint:
      return sameSocket(static_cast<const EndpointRepresentation&>(*a.representation_).content.get(),
                        static_cast<const EndpointRepresentation&>(*b.representation_).content.get());
    case XPCType::fileDescriptor:
    case XPCType::connection:
      return false;
  }
  return false;
}

XPCArray XPCArray::create() {
  return XPCArray(std::make_shared<ArrayRepresentation>());
}

std::size_t XPCArray::count() const {
  const ArrayRepresentation* array = xpc::asArray(*this);
  return array == nullptr ? 0 : array->content.size();
}

XPCObject XPCArray::value(std::size_t index) const {
  const ArrayRepresentation* array = xpc::asArray(*this);
  return array == nullptr || index >= array->content.size() ? XPCObject() : array->content[index];
}

void XPCArray::append(const XPCObject& value) {
  if (!value || xpc::asArray(*this) == nullptr) return;
  static_cast<ArrayRepresentation&>(*representation_).content.push_back(value);
}

XPCDictionary XPCDictionary::create() {
  return XPCDictionary(std::make_shared<DictionaryRepresentation>());
}

std::size_t XPCDictionary::count() const {
  const DictionaryRepresentation* dictionary = xpc::asDictionary(*this);
  return dictionary == nullptr ? 0 : dictionary->entries.size();
}

XPCObject XPCDictionary::value(std::string_view key) const {
  const DictionaryRepresentation* dictionary = xpc::asDictionary(*this);
  if (dictionary == nullptr) return {};
  const auto found = dictionary->entries.find(key);
  return found == dictionary->entries.end() ? XPCObject() : found->second;
}

std::optional<std::string> XPCDictionary::getString(std::string_view key) const {
  const XPCObject found = value(key);
  const std::string* text = found.stringValue();
  return text == nullptr ? std::nullopt : std::optional(*text);
}

void XPCDictionary::setValue(std::string_view key, const XPCObject& value) {
  if (xpc::asDictionary(*this) == nullptr) return;
  auto& entries = static_cast<DictionaryRepresentation&>(*representation_).entries;
  const std::string_view name = key.substr(0, key.find('\0'));
  if (value) {
    entries.insert_or_assign(isValidUTF8(name) ? std::string(name) : lossyUTF8(name), value);
  } else if (const auto found = entries.find(name); found != entries.end()) {
    entries.erase(found);
  }
}

bool XPCDictionary::apply(const Block<bool(std::string_view key, const XPCObject& value)>& applier) const {
  const DictionaryRepresentation* dictionary = xpc::asDictionary(*this);
  if (dictionary == nullptr) return true;
  for (const auto& [key, value] : dictionary->entries)
    if (!applier(key, value)) return false;
  return true;
}

XPCConnection XPCDictionary::remoteConnection() const {
  const DictionaryRepresentation* dictionary = xpc::asDictionary(*this);
  return dictionary == nullptr ? XPCConnection() : dictionary->remote.asConnection();
}

XPCEndpoint XPCEndpoint::from(const XPCObject& object) {
  if (!object || object.type() != XPCType::endpoint) return {};
  return XPCEndpoint(object.representation());
}

XPCObject xpcErrorConnectionInterrupted() {
  static const XPCObject& only = makeImmortal<ErrorRepresentation>("Connection interrupted");
  return only;
}

XPCObject xpcErrorConnectionInvalid() {
  static const XPCObject& only = makeImmortal<ErrorRepresentation>("Connection invalid");
  return only;
}

XPCObject xpcErrorReplyTimedOut() {
  static const XPCObject& only = makeImmortal<ErrorRepresentation>("Reply timed out");
  return only;
}

XPCObject xpcErrorMessageRefused() {
  static const XPCObject& only = makeImmortal<ErrorRepresentation>("Message refused");
  return only;
}

std::string xpcErrorDescription(const XPCObject& error) {
  return contentOr<ErrorRepresentation>(error, XPCType::error, {});
}

namespace xpc {

XPCObject adoptDescriptor(PassedDescriptor descriptor) {
  return descriptor ? make<DescriptorRepresentation>(std::move(descriptor)) : XPCObject();
}

XPCEndpoint adoptEndpoint(PassedDescriptor descriptor) {
  return descriptor ? XPCEndpoint::from(make<EndpointRepresentation>(std::move(descriptor))) : XPCEndpoint();
}

bool sameSocket(int a, int b) {
  struct stat first {};
  struct stat second {};
  return ::fstat(a, &first) == 0 && ::fstat(b, &second) == 0 && first.st_dev == second.st_dev &&
         first.st_ino == second.st_ino;
}

}  // namespace xpc
}  // namespace qm
