#include "xpc_test_support.hpp"

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cerrno>

#include "platform/linux/run_folder.hpp"
#include "platform/linux/xpc_place.hpp"
#include "platform/linux/xpc_socket.hpp"

namespace qm::test {
namespace {

bool waitReadable(int descriptor) {
  pollfd entry{.fd = descriptor, .events = POLLIN, .revents = 0};
  const auto patience = std::chrono::duration_cast<std::chrono::milliseconds>(kPatience).count();
  return ::poll(&entry, 1, static_cast<int>(patience)) > 0;
}

}  // namespace

std::string uniqueServiceName() {
  static std::atomic<int> last{0};
  return "com.quillmarsh.test." + std::to_string(::getpid()) + "." + std::to_string(++last);
}

std::string socketPath(const std::string& serviceName) {
  return runFolder() + "/" + serviceName;
}

Service::Service(const std::string& serviceName) : listener(XPCConnection::createListener(serviceName)) {
  listener.setEventHandler([all = events, found = peers](const XPCObject& event) {
    const XPCConnection peer = event.asConnection();
    if (!peer) return all->put(event);
    peer.setEventHandler([all](const XPCObject& inner) { all->put(inner); });
    peer.activate();
    found->put(peer);
  });
  listener.activate();
}

Service::~Service() {
  listener.cancel();
}

Client::Client(const std::string& serviceName) : connection(XPCConnection::createClient(serviceName)) {
  connection.setEventHandler([all = events](const XPCObject& event) { all->put(event); });
  connection.activate();
}

Client::~Client() {
  connection.cancel();
}

XPCDictionary textMessage(std::string_view text) {
  XPCDictionary message = XPCDictionary::create();
  message.setString("text", text);
  return message;
}

std::string textOf(const std::optional<XPCObject>& message) {
  return message ? message->asDictionary().getString("text").value_or("(no text)") : "(nothing)";
}

void answer(const XPCObject& request, std::string_view text) {
  XPCDictionary reply = request.asDictionary().createReply();
  ASSERT_TRUE(reply);
  reply.setString("text", text);
  reply.remoteConnection().sendMessage(reply);
}

RawClient RawClient::connect(const std::string& serviceName) {
  return RawClient(xpc::connectToService(serviceName));
}

std::optional<xpc::Frame> RawClient::readFrame() {
  xpc::FrameReader reader;
  xpc::Frame frame;
  std::array<std::uint8_t, 1> byte{};  // one at a time: what follows stays in the socket
  while (reader.next(frame) != xpc::FrameReader::Step::frame) {
    if (!waitReadable(socket_.get())) return std::nullopt;
    xpc::Received received = xpc::receive(socket_.get(), byte);
    if (received.length <= 0) return std::nullopt;
    reader.feed(byte, std::move(received.descriptors));
  }
  return frame;
}

void RawClient::write(std::span<const std::uint8_t> bytes, std::span<const int> descriptors) const {
  while (!bytes.empty()) {
    iovec piece{.iov_base = const_cast<std::uint8_t*>(bytes.data()), .iov_len = bytes.size()};
    const ssize_t written = xpc::sendWithDescriptors(socket_.get(), std::span(&piece, 1), descriptors);
    if (written < 0 && errno != EAGAIN) return;  // the other side has closed
    if (written < 0) {
      pollfd entry{.fd = socket_.get(), .events = POLLOUT, .revents = 0};
      ::poll(&entry, 1, -1);
      continue;
    }
    bytes = bytes.subspan(static_cast<std::size_t>(written));
    descriptors = {};
  }
}

void RawClient::writeFrame(xpc::FrameHeader header, std::span<const std::uint8_t> body,
                           std::span<const int> descriptors) const {
  header.bodyBytes = static_cast<std::uint32_t>(body.size());
  std::vector<std::uint8_t> bytes(xpc::kHeaderBytes);
  xpc::writeHeader(header, bytes.data());
  bytes.insert(bytes.end(), body.begin(), body.end());
  write(bytes, descriptors);
}

std::vector<std::uint8_t> RawClient::readNonce() {
  const std::optional<xpc::Frame> frame = readFrame();
  EXPECT_TRUE(frame && frame->header.kind == xpc::FrameKind::welcome);
  return frame ? frame->body : std::vector<std::uint8_t>();
}

void RawClient::greet() {
  writeFrame({.kind = xpc::FrameKind::hello}, readNonce());
}

bool RawClient::isClosedByPeer() {
  if (!waitReadable(socket_.get())) return false;
  std::array<std::uint8_t, 64> buffer{};
  const xpc::Received received = xpc::receive(socket_.get(), buffer);
  return received.length == 0 || (received.length < 0 && received.error == ECONNRESET);
}

Pipe::Pipe() {
  std::array<int, 2> ends{};
  EXPECT_EQ(::pipe2(ends.data(), O_CLOEXEC), 0);
  readEnd.reset(ends[0]);
  writeEnd.reset(ends[1]);
}

bool Pipe::isWriteEndClosedEverywhere() {
  writeEnd.reset();
  std::array<char, 1> byte{};
  return waitReadable(readEnd.get()) && ::read(readEnd.get(), byte.data(), byte.size()) == 0;
}

}  // namespace qm::test
