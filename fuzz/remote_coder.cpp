// The decoder of remote calls, behind the message decoder: the first byte says how many sockets, which could
// be endpoints, come with the message. What is accepted must be of its parameter's type and survive being
// sent on.
#include <sys/socket.h>

#include <cstdlib>
#include <optional>
#include <span>

#include "platform/linux/remote_coder.hpp"
#include "platform/linux/xpc_codec.hpp"
#include "platform/linux/xpc_socket.hpp"
#include "platform/remote_protocol.hpp"

namespace {

using namespace qm;

class Specimen final : public Record {
 public:
  explicit Specimen(Dictionary fields) : fields_(std::move(fields)) {}
  static const RecordClass& codedClass() {
    static const RecordClass its{
        .name = "Specimen",
        .fields = {{"valid", FieldCoding::boolean, {}},
                   {"number", FieldCoding::integer, {}},
                   {"things", FieldCoding::object, {{"NSDictionary"}, {"NSString"}, {"NSNumber"}}}},
        .make = [](const Dictionary& fields) -> ObjectPtr {
          return std::make_shared<const Specimen>(fields);
        }};
    return its;
  }
  const RecordClass& recordClass() const override { return codedClass(); }
  Dictionary fields() const override { return fields_; }

 private:
  const Dictionary fields_;
};

RemoteParameter anything() {
  return {.classes = {{"NSString"},
                      {"NSNumber"},
                      {"NSData"},
                      {"NSDate"},
                      {"NSUUID"},
                      {"NSNull"},
                      {"NSArray"},
                      {"NSDictionary"},
                      {"NSError"},
                      {"NSURL"},
                      {"NSXPCListenerEndpoint"},
                      {"NSFileHandle"},
                      {"Specimen", &Specimen::codedClass()}},
          .hasOwnContents = true};
}

// A parameter of the type, with every class allowed in it.
template <class T>
void checkAs(const XPCObject& coded) {
  RemoteParameter parameter = RemoteCoding<T>::parameter();
  if (parameter.type == RemoteType::object) {
    parameter.classes = anything().classes;
    parameter.hasOwnContents = true;
  }
  ErrorPtr error;
  const std::optional<Array> values = remote::decodeArguments({parameter}, coded, &error);
  if (values.has_value() == (error != nullptr)) std::abort();
  if (!values) return;
  const Value again = RemoteCoding<T>::toValue(RemoteCoding<T>::fromValue(values->front()));
  const std::optional<XPCArray> sentOn = remote::encodeArguments({parameter}, {again}, nullptr);
  if (!sentOn) std::abort();
  const std::optional<Array> received = remote::decodeArguments({parameter}, *sentOn, nullptr);
  if (!received || !(*remote::encodeArguments({parameter}, *received, nullptr) == *sentOn)) std::abort();
}

void check(const XPCObject& arguments) {
  checkAs<bool>(arguments);
  checkAs<std::int64_t>(arguments);
  checkAs<std::uint64_t>(arguments);
  checkAs<std::uint32_t>(arguments);
  checkAs<double>(arguments);
  checkAs<std::string>(arguments);
  checkAs<Array>(arguments);
  checkAs<Dictionary>(arguments);
  checkAs<ErrorPtr>(arguments);
  checkAs<XPCEndpoint>(arguments);
  checkAs<std::optional<URL>>(arguments);
  checkAs<std::shared_ptr<const Specimen>>(arguments);
  checkAs<Value>(arguments);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t length) {
  if (length == 0) return 0;
  std::vector<FileDescriptor> descriptors;
  for (int i = 0; i < bytes[0] % 3; ++i)
    if (std::optional<xpc::SocketPair> pair = xpc::makeSocketPair(SOCK_SEQPACKET))
      descriptors.push_back(std::move(pair->first));
  const xpc::DecodedMessage decoded =
      xpc::decodeMessage(std::span(bytes + 1, length - 1), std::move(descriptors));
  if (!decoded.message) return 0;
  if (const auto call = remote::decodeCall(decoded.message, nullptr)) {
    if (remote::shownText(call->selector).size() > 3 * 128) std::abort();
    check(call->arguments);
  }
  if (const auto reply = remote::decodeReply(decoded.message, nullptr)) check(*reply);
  return 0;
}
