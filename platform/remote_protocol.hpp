// Remote protocols as C++ classes: a class with a member function per method, and a specialization of
// RemoteProtocol that names them.
//
//   class Greeter {
//    public:
//     virtual void greet(const std::string& name, qm::Block<void(std::string)> reply) = 0;
//   };
//   template <>
//   struct qm::RemoteProtocol<Greeter> {
//     static constexpr std::string_view name = "Greeter";
//     using Methods = qm::RemoteMethods<qm::RemoteMethod<"greet:reply:", &Greeter::greet>>;
//   };
//
// A protocol that includes another is a class that derives from it, and its Methods are
// JoinedRemoteMethods<RemoteProtocol<Other>::Methods, RemoteMethods<...>>.
//
//   connection->setRemoteObjectInterface(qm::remoteInterface<Greeter>());
//   proxy.call<&Greeter::greet>("Ada", [](const std::string& text) { ... });
//   connection->setExport(qm::remoteExport<Greeter>(weakGreeter));
//
// Arguments may be bool, std::int64_t, std::uint64_t, std::uint32_t, double, std::string, Data, Date, Array,
// Dictionary, ErrorPtr, ObjectPtr, Value, XPCEndpoint, a std::optional of std::string or URL, or a shared
// pointer to a const record class that has a static `const RecordClass& codedClass()`; the last may be a
// block, the reply. Nil is an empty string, data, array or dictionary, the date 0, a null pointer, handle or
// value.
#pragma once

#include <algorithm>
#include <concepts>
#include <cstddef>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <tuple>
#include <type_traits>
#include <utility>

#include "platform/remote_connection.hpp"
#include "platform/remote_interface.hpp"

namespace qm {

template <class Protocol>
struct RemoteProtocol;

// A selector as a template argument.
template <std::size_t Length>
struct RemoteSelector {
  constexpr RemoteSelector(const char (&text)[Length]) { std::copy_n(text, Length, characters); }
  constexpr std::string_view view() const { return {characters, Length - 1}; }
  char characters[Length]{};
};

template <RemoteSelector Selector, auto Member>
struct RemoteMethod {
  static constexpr std::string_view selector = Selector.view();
  static constexpr auto member = Member;
};

template <class... Methods>
struct RemoteMethods {};

namespace remote_detail {

template <class... Lists>
struct Joined;
template <class... Method>
struct Joined<RemoteMethods<Method...>> {
  using Methods = RemoteMethods<Method...>;
};
template <class... First, class... Second, class... Rest>
struct Joined<RemoteMethods<First...>, RemoteMethods<Second...>, Rest...>
    : Joined<RemoteMethods<First..., Second...>, Rest...> {};

}  // namespace remote_detail

// Several lists of methods as one.
template <class... Lists>
using JoinedRemoteMethods = typename remote_detail::Joined<Lists...>::Methods;

// How a C++ type travels: its parameter, the value it becomes, and the value back. `fromValue` is only given
// what the parameter allows.
template <class T>
struct RemoteCoding;

namespace remote_detail {

inline RemoteParameter scalar(RemoteType type) {
  return {.type = type, .classes = {}};
}
// Of one class, which its receiver relies on.
inline RemoteParameter object(CodedClass its) {
  return {.type = RemoteType::object, .classes = {its}, .objectClass = its.name};
}

template <class T>
struct ScalarCoding {
  static Value toValue(T value) { return value; }
  static T fromValue(const Value& value) { return *value.as<T>(); }
};

// Of a type that Value holds as it is; nil is the empty one.
template <class T>
struct ObjectCoding {
  static Value toValue(T value) { return value; }
  static T fromValue(const Value& value) { return value.isNull() ? T() : *value.as<T>(); }
};

}  // namespace remote_detail

template <>
struct RemoteCoding<bool> : remote_detail::ScalarCoding<bool> {
  static RemoteParameter parameter() { return remote_detail::scalar(RemoteType::boolean); }
};
template <>
struct RemoteCoding<std::int64_t> : remote_detail::ScalarCoding<std::int64_t> {
  static RemoteParameter parameter() { return remote_detail::scalar(RemoteType::int64); }
};
template <>
struct RemoteCoding<std::uint64_t> : remote_detail::ScalarCoding<std::uint64_t> {
  static RemoteParameter parameter() { return remote_detail::scalar(RemoteType::uint64); }
};
template <>
struct RemoteCoding<std::uint32_t> {
  static RemoteParameter parameter() { return remote_detail::scalar(RemoteType::uint32); }
  static Value toValue(std::uint32_t value) { return value; }
  static std::uint32_t fromValue(const Value& value) {
    return static_cast<std::uint32_t>(*value.as<std::uint64_t>());
  }
};
template <>
struct RemoteCoding<double> : remote_detail::ScalarCoding<double> {
  static RemoteParameter parameter() { return remote_detail::scalar(RemoteType::real); }
};
template <>
struct RemoteCoding<std::string> : remote_detail::ObjectCoding<std::string> {
  static RemoteParameter parameter() { return remote_detail::object({"NSString"}); }
};
template <>
struct RemoteCoding<Date> : remote_detail::ObjectCoding<Date> {
  static RemoteParameter parameter() { return remote_detail::object({"NSDate"}); }
};
template <>
struct RemoteCoding<Data> : remote_detail::ObjectCoding<Data> {
  static RemoteParameter parameter() { return remote_detail::object({"NSData"}); }
};
template <>
struct RemoteCoding<Array> : remote_detail::ObjectCoding<Array> {
  static RemoteParameter parameter() { return remote_detail::object({"NSArray"}); }
};
template <>
struct RemoteCoding<Dictionary> : remote_detail::ObjectCoding<Dictionary> {
  static RemoteParameter parameter() { return remote_detail::object({"NSDictionary"}); }
};
template <>
struct RemoteCoding<ErrorPtr> : remote_detail::ObjectCoding<ErrorPtr> {
  static RemoteParameter parameter() { return remote_detail::object({"NSError"}); }
};
template <>
struct RemoteCoding<std::optional<std::string>> {
  static RemoteParameter parameter() { return RemoteCoding<std::string>::parameter(); }
  static Value toValue(std::optional<std::string> value) {
    return value ? Value(std::move(*value)) : Value();
  }
  static std::optional<std::string> fromValue(const Value& value) {
    return value.isNull() ? std::nullopt : std::optional(*value.as<std::string>());
  }
};
// Of whatever class setClasses allows.
template <>
struct RemoteCoding<Value> {
  static RemoteParameter parameter() { return {}; }
  static Value toValue(Value value) { return value; }
  static Value fromValue(const Value& value) { return value; }
};
// The same; null also when a value came that is no object.
template <>
struct RemoteCoding<ObjectPtr> {
  static RemoteParameter parameter() { return {}; }
  static Value toValue(ObjectPtr object) { return object; }
  static ObjectPtr fromValue(const Value& value) {
    const ObjectPtr* object = value.as<ObjectPtr>();
    return object == nullptr ? nullptr : *object;
  }
};
template <>
struct RemoteCoding<XPCEndpoint> {
  static RemoteParameter parameter() { return remote_detail::object({"NSXPCListenerEndpoint"}); }
  static Value toValue(XPCEndpoint endpoint) {
    return endpoint ? Value(std::make_shared<const EndpointObject>(std::move(endpoint))) : Value();
  }
  static XPCEndpoint fromValue(const Value& value) {
    const ObjectPtr* object = value.as<ObjectPtr>();
    return object == nullptr ? XPCEndpoint() : static_cast<const EndpointObject&>(**object).endpoint();
  }
};
template <>
struct RemoteCoding<std::optional<URL>> {
  static RemoteParameter parameter() { return remote_detail::object({"NSURL"}); }
  static Value toValue(std::optional<URL> url) {
    return url ? Value(std::make_shared<const URLObject>(std::move(*url))) : Value();
  }
  static std::optional<URL> fromValue(const Value& value) {
    const ObjectPtr* object = value.as<ObjectPtr>();
    return object == nullptr ? std::nullopt : std::optional(static_cast<const URLObject&>(**object).url());
  }
};
template <std::derived_from<Record> T>
struct RemoteCoding<std::shared_ptr<const T>> {
  static RemoteParameter parameter() {
    return remote_detail::object({T::codedClass().name, &T::codedClass()});
  }
  static Value toValue(std::shared_ptr<const T> record) { return ObjectPtr(std::move(record)); }
  static std::shared_ptr<const T> fromValue(const Value& value) {
    const ObjectPtr* object = value.as<ObjectPtr>();
    return object == nullptr ? nullptr : std::static_pointer_cast<const T>(*object);
  }
};

namespace remote_detail {

template <class T>
using Plain = std::remove_cvref_t<T>;

template <class T>
inline constexpr bool isBlock = false;
template <class... Replied>
inline constexpr bool isBlock<Block<void(Replied...)>> = true;

// The arguments of a method or of a reply block.
template <class... T>
struct Parameters {
  static std::vector<RemoteParameter> list() { return {RemoteCoding<Plain<T>>::parameter()...}; }
  static Array encode(Plain<T>... values) { return {RemoteCoding<Plain<T>>::toValue(std::move(values))...}; }
  // Calls with the decoded values, and `last` behind them.
  template <class Callable, class... Last>
  static void apply(const Array& values, const Callable& callable, const Last&... last) {
    applyEach(values, callable, std::index_sequence_for<T...>(), last...);
  }

 private:
  template <class Callable, std::size_t... Index, class... Last>
  static void applyEach([[maybe_unused]] const Array& values, const Callable& callable,
                        std::index_sequence<Index...>, const Last&... last) {
    callable(RemoteCoding<Plain<T>>::fromValue(values[Index])..., last...);
  }
};

template <class Reply>
struct ReplyBlock;
template <class... Replied>
struct ReplyBlock<Block<void(Replied...)>> {
  using Values = Parameters<Replied...>;
  static RemoteProxy::ReplyHandler handler(Block<void(Replied...)> reply) {
    return [reply = std::move(reply)](const Array& values) {
      if (reply) Values::apply(values, reply);
    };
  }
  static Block<void(Replied...)> block(RemoteExport::Reply reply) {
    return [reply = std::move(reply)](Replied... values) { reply(Values::encode(std::move(values)...)); };
  }
};

// Arguments with the reply block, if there is one, split off.
template <class Arguments, class... Left>
struct Split;
template <class... Values>
struct Split<std::tuple<Values...>> {
  using Passed = Parameters<Values...>;
  static constexpr bool replies = false;
};
template <class... Values, class Last>
struct Split<std::tuple<Values...>, Last>
    : std::conditional_t<isBlock<Plain<Last>>, Split<std::tuple<Values...>>,
                         Split<std::tuple<Values..., Last>>> {
  static constexpr bool replies = isBlock<Plain<Last>>;
  using Reply = std::conditional_t<replies, Plain<Last>, Block<void()>>;
};
template <class... Values, class Next, class Following, class... Left>
struct Split<std::tuple<Values...>, Next, Following, Left...>
    : Split<std::tuple<Values..., Next>, Following, Left...> {};

template <class Member>
struct MemberTraits;
template <class Protocol, class... Arguments>
struct MemberTraits<void (Protocol::*)(Arguments...)> {
  using Class = Protocol;
  using Parts = Split<std::tuple<>, Arguments...>;

  static RemoteMethodSignature signature(std::string_view selector) {
    RemoteMethodSignature result{.selector = std::string(selector), .arguments = Parts::Passed::list()};
    if constexpr (Parts::replies) result.reply = ReplyBlock<typename Parts::Reply>::Values::list();
    return result;
  }

  static void call(const RemoteProxy& proxy, std::string_view selector, Plain<Arguments>... arguments) {
    if constexpr (Parts::replies)
      callWithReply(proxy, selector, std::forward_as_tuple(std::move(arguments)...),
                    std::make_index_sequence<sizeof...(Arguments) - 1>());
    else
      proxy.invoke(selector, Parts::Passed::encode(std::move(arguments)...), nullptr);
  }

  static RemoteExport::Handler handler(std::weak_ptr<Protocol> object,
                                       void (Protocol::*member)(Arguments...)) {
    return [object = std::move(object), member](const Array& values, const RemoteExport::Reply& reply) {
      const std::shared_ptr<Protocol> target = object.lock();
      if (target == nullptr) return;
      const auto callMember = [&](auto&&... arguments) {
        ((*target).*member)(std::forward<decltype(arguments)>(arguments)...);
      };
      if constexpr (Parts::replies)
        Parts::Passed::apply(values, callMember, ReplyBlock<typename Parts::Reply>::block(reply));
      else
        Parts::Passed::apply(values, callMember);
    };
  }

 private:
  template <class Tuple, std::size_t... Index>
  static void callWithReply(const RemoteProxy& proxy, std::string_view selector, Tuple&& arguments,
                            std::index_sequence<Index...>) {
    proxy.invoke(
        selector, Parts::Passed::encode(std::move(std::get<Index>(arguments))...),
        ReplyBlock<typename Parts::Reply>::handler(std::move(std::get<sizeof...(Index)>(arguments))));
  }
};

template <auto Member, class Methods>
struct SelectorOf;
template <auto Member, class First, class... Rest>
struct SelectorOf<Member, RemoteMethods<First, Rest...>> : SelectorOf<Member, RemoteMethods<Rest...>> {};
template <auto Member, RemoteSelector Selector, class... Rest>
struct SelectorOf<Member, RemoteMethods<RemoteMethod<Selector, Member>, Rest...>> {
  static constexpr std::string_view value = RemoteMethod<Selector, Member>::selector;
};

template <class... Methods>
std::vector<RemoteMethodSignature> signatures(RemoteMethods<Methods...>) {
  return {MemberTraits<std::remove_cv_t<decltype(Methods::member)>>::signature(Methods::selector)...};
}

template <class Protocol, class... Methods>
std::map<std::string, RemoteExport::Handler, std::less<>> handlers(const std::weak_ptr<Protocol>& object,
                                                                   RemoteMethods<Methods...>) {
  return {{std::string(Methods::selector),
           MemberTraits<std::remove_cv_t<decltype(Methods::member)>>::handler(object, Methods::member)}...};
}

}  // namespace remote_detail

template <auto Method>
struct RemoteMethodTraits {
  template <class... Arguments>
  static void call(const RemoteProxy& proxy, Arguments&&... arguments) {
    using Member = remote_detail::MemberTraits<decltype(Method)>;
    using Selector =
        remote_detail::SelectorOf<Method, typename RemoteProtocol<typename Member::Class>::Methods>;
    Member::call(proxy, Selector::value, std::forward<Arguments>(arguments)...);
  }
};

template <class Protocol>
RemoteInterface remoteInterface() {
  return {std::string(RemoteProtocol<Protocol>::name),
          remote_detail::signatures(typename RemoteProtocol<Protocol>::Methods())};
}

// The object is held weakly: a call that comes when it is gone is dropped.
template <class Protocol>
RemoteExport remoteExport(const std::weak_ptr<Protocol>& object) {
  return {remoteInterface<Protocol>(),
          remote_detail::handlers(object, typename RemoteProtocol<Protocol>::Methods())};
}

}  // namespace qm
