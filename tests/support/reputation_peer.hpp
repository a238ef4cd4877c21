// A peer of the daemon that asks about files with plain messages, and keeps what comes unasked.
#pragma once

#include "platform/file_io.hpp"
#include "platform/xpc.hpp"
#include "support/testing.hpp"

namespace qm::test {

// The request about the open file as a client makes it.
inline XPCDictionary requestFor(const std::string& name, int descriptor, std::int64_t size) {
  XPCDictionary request = XPCDictionary::create();
  request.setBool("FileReputationRequest", true);
  request.setString("filename", name);
  request.setInt64("filesize", size);
  request.setUInt64("uid", ::getuid());
  request.setValue("filedescriptor", XPCObject::fileDescriptor(descriptor));
  return request;
}
// The file must exist.
inline XPCDictionary requestFor(const std::filesystem::path& file, bool isDownloaded = false) {
  const FileDescriptor descriptor = openForReading(file.c_str());
  const auto size = static_cast<std::int64_t>(std::filesystem::file_size(file));
  XPCDictionary request = requestFor(file.native(), descriptor.get(), size);
  if (isDownloaded) request.setBool("is-downloaded-file", true);
  return request;
}

class ReputationPeer {
 public:
  // Of the service with that name or endpoint.
  template <class Service = std::string_view>
  explicit ReputationPeer(const Service& service = "com.quillmarsh.qmreputationd")
      : connection_(XPCConnection::createClient(service, queue_)) {
    connection_.setEventHandler([unasked = unasked_](const XPCObject& event) {
      if (event.type() == XPCType::dictionary) unasked->put(event.asDictionary());
    });
    connection_.activate();
  }
  ~ReputationPeer() { connection_.cancel(); }
  ReputationPeer(const ReputationPeer&) = delete;
  ReputationPeer& operator=(const ReputationPeer&) = delete;

  // Without a wish for a reply.
  void tell(const XPCDictionary& message) const { connection_.sendMessage(message); }
  // Where the reply to the request will come.
  std::shared_ptr<Inbox<XPCObject>> send(const XPCDictionary& request) const {
    auto replies = std::make_shared<Inbox<XPCObject>>();
    connection_.sendMessageWithReply(request, queue_,
                                     [replies](const XPCObject& reply) { replies->put(reply); });
    return replies;
  }
  // The reply, null when it is no dictionary.
  XPCDictionary ask(const XPCDictionary& request) const { return send(request)->waitForOne().asDictionary(); }
  XPCDictionary ask(const std::filesystem::path& file, bool isDownloaded = false) const {
    return ask(requestFor(file, isDownloaded));
  }
  // A message that gets no answer but the transport's: once that is here, the daemon has seen the peer, and
  // the peer has what the daemon sent before.
  void waitUntilSeen() const { send(XPCDictionary::create())->waitForOne(); }
  // Messages that were no reply.
  Inbox<XPCDictionary>& unasked() const { return *unasked_; }

 private:
  const std::shared_ptr<Inbox<XPCDictionary>> unasked_ = std::make_shared<Inbox<XPCDictionary>>();
  const Queue queue_ = Queue::serial("peer");  // of messages and replies, which so keep their order
  const XPCConnection connection_;
};

}  // namespace qm::test
