// A remote protocol for tests, with every type that travels and every way to treat a reply.
#pragma once

#include <unistd.h>

#include <csignal>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "platform/remote_protocol.hpp"

namespace qm::test {

class Badge final : public Record {
 public:
  explicit Badge(Dictionary fields) : fields_(std::move(fields)) {}
  static const RecordClass& codedClass() {
    static const RecordClass& its = *new RecordClass{
        .name = "Badge",
        .fields = {{"valid", FieldCoding::boolean, {}},
                   {"number", FieldCoding::integer, {}},
                   {"names", FieldCoding::object, {{"NSDictionary"}, {"NSString"}, {"NSNumber"}}}},
        .make = [](const Dictionary& fields) -> ObjectPtr { return std::make_shared<const Badge>(fields); }};
    return its;
  }
  const RecordClass& recordClass() const override { return codedClass(); }
  Dictionary fields() const override { return fields_; }

 private:
  const Dictionary fields_;
};
using BadgePtr = std::shared_ptr<const Badge>;

using EverythingReply = Block<void(bool, std::int64_t, std::uint64_t, std::uint32_t, double, std::string,
                                   Data, Date, Array, Dictionary, ErrorPtr, Value, XPCEndpoint,
                                   std::optional<std::string>, std::optional<URL>, BadgePtr)>;

class Workshop : public std::enable_shared_from_this<Workshop> {
 public:
  virtual ~Workshop() = default;

  virtual void everything(bool a, std::int64_t b, std::uint64_t c, std::uint32_t d, double e, std::string f,
                          Data g, Date h, Array i, Dictionary j, ErrorPtr k, Value l, XPCEndpoint m,
                          std::optional<std::string> n, std::optional<URL> o, BadgePtr p,
                          EverythingReply reply) {
    reply(a, b, c, d, e, f, g, h, i, j, k, l, m, n, o, p);
  }
  virtual void echo(Value value, Block<void(Value)> reply) { reply(value); }
  virtual void identify(Block<void(std::int64_t)> reply) { reply(::getpid()); }
  virtual void forget(Block<void()>) {}
  virtual void keep(Block<void()> reply) {
    const std::lock_guard lock(mutex_);
    kept_.push_back(std::move(reply));
  }
  // The same workshop at an endpoint.
  virtual void branch(Block<void(XPCEndpoint)> reply);
  virtual void die() { ::kill(::getpid(), SIGKILL); }
  virtual void note(std::string) {}

 private:
  std::mutex mutex_;
  std::vector<Block<void()>> kept_;
  std::shared_ptr<RemoteListener> branch_;
};

}  // namespace qm::test

template <>
struct qm::RemoteProtocol<qm::test::Workshop> {
  using Workshop = qm::test::Workshop;
  static constexpr std::string_view name = "Workshop";
  using Methods = RemoteMethods<
      RemoteMethod<"everything:reply:", &Workshop::everything>, RemoteMethod<"echo:reply:", &Workshop::echo>,
      RemoteMethod<"identify:", &Workshop::identify>, RemoteMethod<"forget:", &Workshop::forget>,
      RemoteMethod<"keep:", &Workshop::keep>, RemoteMethod<"branch:", &Workshop::branch>,
      RemoteMethod<"die", &Workshop::die>, RemoteMethod<"note:", &Workshop::note>>;
};

namespace qm::test {

// What the workshop takes and gives as objects.
inline CodedClasses workshopClasses() {
  CodedClasses classes = {{"Badge", &Badge::codedClass()}};
  for (const char* name : {"NSDictionary", "NSArray", "NSString", "NSNumber", "NSUUID", "NSNull", "NSError",
                           "NSURL", "NSXPCListenerEndpoint"})
    classes.push_back({name});
  return classes;
}

inline RemoteInterface workshopInterface() {
  RemoteInterface interface = remoteInterface<Workshop>();
  for (const bool ofReply : {false, true})
    interface.setClasses(workshopClasses(), "everything:reply:", 11, ofReply);
  interface.setClasses(workshopClasses(), "echo:reply:", 0, false);
  interface.setClasses({{"NSXPCListenerEndpoint"}}, "echo:reply:", 0, true);
  return interface;
}

// The workshop for whoever connects.
inline RemoteListener::Delegate admitTo(const std::shared_ptr<Workshop>& workshop) {
  return [workshop](const auto&, const std::shared_ptr<RemoteConnection>& connection) {
    RemoteExport exported = remoteExport<Workshop>(workshop);
    exported.interface() = workshopInterface();
    connection->setExport(std::move(exported));
    connection->resume();
    return true;
  };
}

inline void Workshop::branch(Block<void(XPCEndpoint)> reply) {
  branch_ = RemoteListener::anonymousListener();
  branch_->setDelegate(admitTo(shared_from_this()));
  branch_->resume();
  reply(branch_->endpoint());
}

}  // namespace qm::test
