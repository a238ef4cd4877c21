// A peer of the daemon for road tests: asks about files with plain messages, and keeps what comes unasked.
#pragma once

#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <future>
#include <mutex>
#include <vector>

#include "platform/file_io.hpp"
#include "platform/xpc.hpp"

namespace qm::test {

// The file's request as a client makes it; the file must exist.
inline XPCDictionary requestFor(const std::filesystem::path& file, bool isDownloaded) {
  const FileDescriptor descriptor = openForReading(file.c_str());
  XPCDictionary request = XPCDictionary::create();
  request.setBool("FileReputationRequest", true);
  request.setString("filename", file.native());
  request.setInt64("filesize", static_cast<std::int64_t>(std::filesystem::file_size(file)));
  request.setUInt64("uid", ::getuid());
  request.setValue("filedescriptor", XPCObject::fileDescriptor(descriptor.get()));
  if (isDownloaded) request.setBool("is-downloaded-file", true);
  return request;
}

class ReputationPeer {
 public:
  ReputationPeer() {
    connection_.setEventHandler([state = state_](const XPCObject& event) {
      const std::lock_guard lock(state->mutex);
      if (event.type() == XPCType::dictionary) state->unasked.push_back(event.asDictionary());
    });
    connection_.activate();
  }
  ~ReputationPeer() { connection_.cancel(); }
  ReputationPeer(const ReputationPeer&) = delete;
  ReputationPeer& operator=(const ReputationPeer&) = delete;

  // The reply; null when there is none, or none in good time.
  XPCDictionary ask(const XPCDictionary& request) {
    auto promise = std::make_shared<std::promise<XPCObject>>();
    std::future<XPCObject> future = promise->get_future();
    connection_.sendMessageWithReply(request, Queue::global(),
                                     [promise](const XPCObject& reply) { promise->set_value(reply); });
    if (future.wait_for(std::chrono::seconds(20)) != std::future_status::ready) return {};
    return future.get().asDictionary();
  }
  XPCDictionary ask(const std::filesystem::path& file, bool isDownloaded = false) {
    return ask(requestFor(file, isDownloaded));
  }
  // Messages that were no reply, in order.
  std::vector<XPCDictionary> unasked() const {
    const std::lock_guard lock(state_->mutex);
    return state_->unasked;
  }

 private:
  struct State {
    std::mutex mutex;
    std::vector<XPCDictionary> unasked;
  };
  const std::shared_ptr<State> state_ = std::make_shared<State>();
  XPCConnection connection_ = XPCConnection::createClient("com.quillmarsh.qmreputationd");
};

}  // namespace qm::test
