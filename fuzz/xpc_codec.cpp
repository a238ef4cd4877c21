// The message decoder, as a peer reaches it: the first byte says how many descriptors come with the bytes
// behind it, in turn a device and a socket that could be an endpoint. What is accepted must survive being
// sent on.
#include <fcntl.h>
#include <sys/socket.h>

#include <cstdlib>
#include <optional>
#include <span>

#include "platform/linux/xpc_codec.hpp"
#include "platform/linux/xpc_socket.hpp"

namespace {

using namespace qm;

std::vector<xpc::PassedDescriptor> someDescriptors(std::size_t count) {
  std::vector<xpc::PassedDescriptor> result;
  for (std::size_t i = 0; i < count; ++i) {
    if (i % 2 == 0) {
      result.emplace_back(FileDescriptor(::open("/dev/null", O_RDONLY | O_CLOEXEC)));
    } else if (std::optional<xpc::SocketPair> pair = xpc::makeSocketPair(SOCK_SEQPACKET)) {
      result.push_back(std::move(pair->first));
    }
  }
  return result;
}

// Sends what was received on: without descriptors, which are different ones each time.
void checkRoundTrip(const XPCDictionary& message) {
  const xpc::EncodedMessage encoded = xpc::encodeMessage(message, 0);
  if (encoded.refusal != nullptr || !encoded.attachments.empty()) return;
  const xpc::DecodedMessage again = xpc::decodeMessage(encoded.bytes, {});
  if (again.refusal != nullptr || !(again.message == message)) std::abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t length) {
  if (length == 0) return 0;
  const std::span<const std::uint8_t> body(bytes + 1, length - 1);
  const xpc::DecodedMessage decoded = xpc::decodeMessage(body, someDescriptors(bytes[0] % 5));
  if ((decoded.refusal == nullptr) != static_cast<bool>(decoded.message)) std::abort();
  if (!decoded.message) return 0;
  (void)decoded.message.description();
  (void)valueFromXPCObject(decoded.message);
  checkRoundTrip(decoded.message);
  return 0;
}
