// What the transport's tests share: events to wait for, services, and a client that speaks the wire by hand.
#pragma once

#include <gtest/gtest.h>

#include <condition_variable>
#include <cstdint>
#include <deque>
#include <memory>
#include <mutex>
#include <optional>
#include <span>
#include <string>
#include <utility>
#include <vector>

#include "platform/file_descriptor.hpp"
#include "platform/linux/xpc_frame.hpp"
#include "platform/xpc.hpp"

namespace qm::test {

// Long enough for a loaded machine; a test that waits this long has failed.
inline constexpr std::chrono::seconds kPatience{60};

// A service name that no other test process uses.
std::string uniqueServiceName();
std::string socketPath(const std::string& serviceName);

// Values that handlers hand to the test's thread.
template <class T>
class Inbox {
 public:
  void put(T value) {
    {
      std::lock_guard lock(mutex_);
      values_.push_back(std::move(value));
    }
    condition_.notify_all();
  }
  // Waits for the next one; nothing, and a failed test, when none comes.
  std::optional<T> take() {
    std::unique_lock lock(mutex_);
    if (!condition_.wait_for(lock, kPatience, [this] { return !values_.empty(); })) {
      ADD_FAILURE() << "nothing came";
      return std::nullopt;
    }
    T value = std::move(values_.front());
    values_.pop_front();
    return value;
  }
  std::size_t size() const {
    std::lock_guard lock(mutex_);
    return values_.size();
  }

 private:
  mutable std::mutex mutex_;
  std::condition_variable condition_;
  std::deque<T> values_;
};

using Events = Inbox<XPCObject>;

// A listener that admits every peer: messages and errors of all of them go to `events`, peers to `peers`.
struct Service {
  explicit Service(const std::string& serviceName);
  ~Service();
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
  explicit Client(const std::string& serviceName);
  ~Client();
  Client(const Client&) = delete;
  Client& operator=(const Client&) = delete;

  XPCConnection connection;
  std::shared_ptr<Events> events = std::make_shared<Events>();
};

// A request of the given text, the text of one that came, and a service's usual answer to it.
XPCDictionary textMessage(std::string_view text);
std::string textOf(const std::optional<XPCObject>& message);
void answer(const XPCObject& request, std::string_view text);

// A client below the transport: writes what it likes.
class RawClient {
 public:
  explicit RawClient(FileDescriptor socket) : socket_(std::move(socket)) {}
  static RawClient connect(const std::string& serviceName);

  int socket() const { return socket_.get(); }
  void closeSocket() { socket_.reset(); }
  // Nothing when the connection ended.
  std::optional<xpc::Frame> readFrame();
  void write(std::span<const std::uint8_t> bytes, std::span<const int> descriptors = {}) const;
  void writeFrame(xpc::FrameHeader header, std::span<const std::uint8_t> body,
                  std::span<const int> descriptors = {}) const;
  // Reads the welcome and returns its nonce.
  std::vector<std::uint8_t> readNonce();
  void greet();
  // True once the other side has closed; false when something else arrives.
  bool isClosedByPeer();

 private:
  FileDescriptor socket_;
};

// Both ends of a pipe; nobody else has the write end: the read end says when its last holder is gone.
struct Pipe {
  Pipe();
  bool isWriteEndClosedEverywhere();  // waits for it
  FileDescriptor readEnd;
  FileDescriptor writeEnd;
};

}  // namespace qm::test
