// The decoder of remote calls, behind the message decoder: the first byte says how many sockets, which could
// be endpoints, come with the message. What is accepted must be of its parameter's type, for a record its
// members' types, too, and survive being sent on.
#include <sys/socket.h>

#include <cstdlib>
#include <optional>
#include <span>

#include "platform/linux/remote_coder.hpp"
#include "platform/linux/xpc_codec.hpp"
#include "platform/linux/xpc_socket.hpp"
#include "platform/remote_protocol.hpp"
#include "reputation/backends/QMRWispInfectionInfoObjC.hpp"
#include "reputation/backends/QMRWispProtocol.hpp"
#include "tests/platform/xpc/remote_workshop.hpp"

namespace {

using namespace qm;

// A parameter of the type, with every class allowed in it.
template <class T>
void checkAs(const XPCObject& coded) {
  RemoteParameter parameter = RemoteCoding<T>::parameter();
  if (parameter.type == RemoteType::object) {
    const CodedClasses others = test::workshopClasses();
    parameter.classes.insert(parameter.classes.end(), others.begin(), others.end());
    for (const char* name : {"NSData", "NSDate", "NSFileHandle"}) parameter.classes.push_back({name});
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

template <class... T>
void checkAsEach(const XPCObject& arguments) {
  (checkAs<T>(arguments), ...);
}
template <class... Record>
void checkAsEachRecord(const XPCObject& arguments) {
  checkAsEach<std::shared_ptr<const Record>...>(arguments);
}
void check(const XPCObject& arguments) {
  checkAsEach<bool, std::int64_t, std::uint64_t, std::uint32_t, double, std::string, Array, Dictionary,
              ErrorPtr, XPCEndpoint, std::optional<URL>, Value>(arguments);
  checkAsEachRecord<test::Badge, QMRWispQvsResponseObjC, QMRWispCloudScanResponseObjC,
                    QMRWispFileScanParametersObjC, QMRWispInfectionInfoObjC, QMRWispScanCompleteSummaryObjC,
                    QMRWispConfigurationObjC>(arguments);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t length) {
  if (length == 0) return 0;
  std::vector<xpc::PassedDescriptor> descriptors;
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
