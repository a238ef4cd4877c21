// What the transport's tests share: services, clients, and a client that speaks the wire by hand.
#pragma once

#include <poll.h>

#include "platform/linux/run_folder.hpp"
#include "platform/linux/xpc_frame.hpp"
#include "platform/linux/xpc_place.hpp"
#include "platform/linux/xpc_socket.hpp"
#include "platform/xpc.hpp"
#include "support/child_process.hpp"

namespace qm::test {

using Events = Inbox<XPCObject>;

// A service name that no other test process uses.
inline std::string uniqueServiceName() {
  static std::atomic<int> last{0};
  return "com.quillmarsh.test." + std::to_string(::getpid()) + "." + std::to_string(++last);
}
inline std::string socketPath(const std::string& serviceName) {
  return runFolder() + "/" + serviceName;
}

// A listener that admits every peer: messages and errors of all of them go to `events`, peers to `peers`.
struct Service {
  explicit Service(const std::string& serviceName) : listener(XPCConnection::createListener(serviceName)) {
    listener.setEventHandler([all = events, found = peers](const XPCObject& event) {
      const XPCConnection peer = event.asConnection();
      if (!peer) return all->put(event);
      peer.setEventHandler([all](const XPCObject& inner) { all->put(inner); });
      peer.activate();
      found->put(peer);
    });
    listener.activate();
  }
  ~Service() { listener.cancel(); }
  Service(const Service&) = delete;
  Service& operator=(const Service&) = delete;

  XPCConnection listener;
  std::shared_ptr<Events> events = std::make_shared<Events>();
  std::shared_ptr<Inbox<XPCConnection>> peers = std::make_shared<Inbox<XPCConnection>>();
};

// With such a service.
class ServedTest : public testing::Test {
 protected:
  const std::string name = uniqueServiceName();
  const Service service{name};
};

// A client whose events go to `events`.
struct Client {
  explicit Client(const std::string& serviceName) : connection(XPCConnection::createClient(serviceName)) {
    connection.setEventHandler([all = events](const XPCObject& event) { all->put(event); });
    connection.activate();
  }
  ~Client() { connection.cancel(); }
  Client(const Client&) = delete;
  Client& operator=(const Client&) = delete;

  XPCConnection connection;
  std::shared_ptr<Events> events = std::make_shared<Events>();
};

// A request of the given text, the text of one that came, and a service's usual answer to it.
inline XPCDictionary textMessage(std::string_view text) {
  XPCDictionary message = XPCDictionary::create();
  message.setString("text", text);
  return message;
}
inline std::string textOf(const std::optional<XPCObject>& message) {
  return message ? message->asDictionary().getString("text").value_or("(no text)") : "(nothing)";
}
inline void answer(const XPCObject& request, std::string_view text) {
  XPCDictionary reply = request.asDictionary().createReply();
  ASSERT_TRUE(reply);
  reply.setString("text", text);
  reply.remoteConnection().sendMessage(reply);
}

// A client below the transport: writes what it likes.
class RawClient {
 public:
  explicit RawClient(FileDescriptor socket) : socket_(std::move(socket)) {
    ::fcntl(socket_.get(), F_SETFL, 0);  // it waits
  }
  static RawClient connect(const std::string& serviceName) {
    return RawClient(xpc::connectToService(serviceName));
  }

  int socket() const { return socket_.get(); }
  void closeSocket() { socket_.reset(); }
  void write(std::span<const std::uint8_t> bytes, std::span<const int> descriptors = {}) const {
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
  void writeFrame(xpc::FrameHeader header, std::span<const std::uint8_t> body,
                  std::span<const int> descriptors = {}) const {
    header.bodyBytes = static_cast<std::uint32_t>(body.size());
    std::vector<std::uint8_t> bytes(xpc::kHeaderBytes);
    xpc::writeHeader(header, bytes.data());
    bytes.insert(bytes.end(), body.begin(), body.end());
    write(bytes, descriptors);
  }
  // Reads the welcome and returns its nonce.
  std::vector<std::uint8_t> readNonce() const {
    std::vector<std::uint8_t> welcome(xpc::kHeaderBytes + xpc::kNonceBytes);
    EXPECT_EQ(::recv(socket_.get(), welcome.data(), welcome.size(), MSG_WAITALL), std::ssize(welcome));
    EXPECT_EQ(static_cast<xpc::FrameKind>(welcome[5]), xpc::FrameKind::welcome);
    welcome.erase(welcome.begin(), welcome.begin() + xpc::kHeaderBytes);
    return welcome;
  }
  void greet() const { writeFrame({.kind = xpc::FrameKind::hello}, readNonce()); }
  // True once the other side has closed; false when something else arrives.
  bool isClosedByPeer() const {
    char byte = 0;
    const ssize_t length = ::recv(socket_.get(), &byte, 1, 0);
    return length == 0 || (length < 0 && errno == ECONNRESET);
  }

 private:
  FileDescriptor socket_;
};

}  // namespace qm::test
