#include "daemon/request_protocol.hpp"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <unistd.h>

#include <map>
#include <optional>

#include "daemon/daemon_support.hpp"
#include "daemon/peers.hpp"
#include "filefacts/QMRHashCacheEntry.hpp"
#include "support/log_recorder.hpp"

namespace qm::test {
namespace {

using Reply = FileReputationCompletion;

std::shared_ptr<const QMRFileReputationResult> resultFor(const std::string& filename, std::uint64_t verdict) {
  return std::make_shared<QMRFileReputationResult>(filename, 501, verdict, "Bad-Thing", 200, 86400);
}

std::vector<std::string> keysOf(const XPCDictionary& dictionary) {
  std::vector<std::string> keys;
  dictionary.apply([&keys](std::string_view key, const XPCObject&) {
    keys.emplace_back(key);
    return true;
  });
  return keys;
}

// A daemon's peer side in this process.
class RequestProtocol : public ::testing::Test {
 protected:
  XPCEndpoint serve(std::shared_ptr<QMRReputationProtocol> provider) {
    listener_ = XPCConnection::createAnonymousListener();
    listener_.setEventHandler([provider, queue = queue_](const XPCObject& event) {
      const XPCConnection peer = event.asConnection();
      if (!peer) return;
      peer.setEventHandler(
          [provider, queue](const XPCObject& peerEvent) { handle_peer_event(provider, queue, peerEvent); });
      peer.activate();
    });
    listener_.activate();
    return listener_.endpoint();
  }
  void TearDown() override { listener_.cancel(); }

  XPCDictionary requestFor(const std::string& name, std::int64_t size = 10) const {
    XPCDictionary request = XPCDictionary::create();
    request.setBool("FileReputationRequest", true);
    request.setString("filename", name);
    request.setInt64("filesize", size);
    request.setUInt64("uid", 0x1'0000'01F5);
    request.setValue("filedescriptor", XPCObject::fileDescriptor(file_.get()));
    return request;
  }

  static FileDescriptor tenBytes() {
    FileDescriptor file(::memfd_create("file", MFD_CLOEXEC));
    EXPECT_EQ(::write(file.get(), "#!/bin/sh\n", 10), 10);
    return file;
  }

  const FileDescriptor file_ = tenBytes();
  LogRecorder recorder_;
  Queue queue_ = Queue::concurrent("com.quillmarsh.reputationhandlingqueue");
  XPCConnection listener_;
};

TEST_F(RequestProtocol, AReplyCarriesTheResultAndWhatTheClientWantsBack) {
  std::shared_ptr<QMRFileReputationRequest> seen;
  Client client(serve(std::make_shared<SubstituteProvider>([&seen](const auto& request, const Reply& reply) {
    seen = request;
    reply(resultFor(request->path(), 0), nullptr);
  })));
  XPCDictionary request = requestFor("/tmp/a/script.sh");
  request.setBool("is-downloaded-file", true);
  request.setValue("requestId", XPCObject::uint64(77));
  request.setValue("txTime", XPCObject::date(Date{123456789}));

  const XPCDictionary reply = client.ask(request).asDictionary();
  ASSERT_TRUE(reply);
  EXPECT_THAT(keysOf(reply),
              ::testing::UnorderedElementsAre("txTime", "requestId", "replyTime", "ttl", "uid", "filename",
                                              "prevalence", "reputationVerdict", "infectionName"));
  EXPECT_EQ(reply.value("txTime"), XPCObject::date(Date{123456789}));
  EXPECT_EQ(reply.value("replyTime").type(), XPCType::date);
  EXPECT_EQ(reply.value("uid"), XPCObject::uint64(501));

  ASSERT_TRUE(seen);
  EXPECT_EQ(seen->fileAccessUserID(), 501U) << "cut to 32 bits";
  EXPECT_TRUE(seen->isDownloadedFile());
  EXPECT_EQ(seen->hashes()->magicBytes()->length(), 10U);
  EXPECT_EQ(seen->metadata().at("file_size"), Value(std::uint64_t{10}));
  EXPECT_TRUE(
      recorder_.has(LogLevel::debug, "Reputation provider reported verdict 0, infection name Bad-Thing"));
}

TEST_F(RequestProtocol, AnErrorOfTheProviderBecomesAReplyWithoutVerdict) {
  const ErrorPtr error = makeError("com.example", 7, {{kLocalizedDescriptionKey, "out of order"}});
  Client client(serve(std::make_shared<SubstituteProvider>([error](const auto& request, const Reply& reply) {
    reply(request->path() == "/result"
              ? std::make_shared<QMRFileReputationResult>("/result", 501, 6, std::nullopt, 0, 0)
              : nullptr,
          error);
  })));
  const XPCDictionary reply = client.ask(requestFor("/result")).asDictionary();
  EXPECT_THAT(keysOf(reply), ::testing::UnorderedElementsAre("replyTime", "ttl", "uid", "filename",
                                                             "prevalence", "error", "error-string"));
  EXPECT_EQ(reply.getString("error-string"), error->description());
  EXPECT_THAT(
      keysOf(client.ask(requestFor("/no result")).asDictionary()),
      ::testing::UnorderedElementsAre("replyTime", "ttl", "uid", "prevalence", "error", "error-string"));
  EXPECT_TRUE(
      recorder_.hasContaining(LogLevel::error, "Error from reputation provider when processing message"));
}

TEST_F(RequestProtocol, EarlyErrorsAnswerWithNothingOfTheRequest) {
  Client client(
      serve(std::make_shared<SubstituteProvider>([](const auto&, const Reply&) { ADD_FAILURE(); })));
  const auto expectFailedHash = [&client](const XPCDictionary& request, const std::string& code) {
    const XPCDictionary reply = client.ask(request).asDictionary();
    EXPECT_THAT(keysOf(reply), ::testing::UnorderedElementsAre("error", "error-string", "error-description"));
    EXPECT_EQ(reply.getString("error-string"), "Failed to calculate hashes for supplied fd");
    EXPECT_THAT(reply.getString("error-description").value_or(""),
                ::testing::HasSubstr("com.quillmarsh.qmrhashprovider Code=" + code));
  };
  expectFailedHash(requestFor("/tmp/shorter", 11), "101");
  XPCDictionary request = requestFor("/tmp/closed");
  request.setValue("filedescriptor", {});
  expectFailedHash(request, "100");
  request.setInt64("filesize", -1);
  expectFailedHash(request, "104");

  request.setValue("filename", {});
  const XPCDictionary reply = client.ask(request).asDictionary();
  EXPECT_THAT(keysOf(reply), ::testing::UnorderedElementsAre("error", "error-string"));
  EXPECT_EQ(reply.getString("error-string"), "No file name in request");

  request.setInt64("FileReputationRequest", 1);  // a number is not true
  EXPECT_EQ(client.ask(request).type(), XPCType::error) << "the transport says that nobody will answer";
  EXPECT_TRUE(recorder_.hasContaining(LogLevel::error, "Unexpected XPC message: "));
}

TEST_F(RequestProtocol, TheProviderMayAnswerLaterAndOutOfOrderButOnlyOnce) {
  std::mutex mutex;
  std::map<std::string, Reply> parked;
  std::promise<void> both;
  Client client(serve(std::make_shared<SubstituteProvider>([&](const auto& request, const Reply& reply) {
    const std::lock_guard lock(mutex);
    parked[request->path()] = reply;
    if (parked.size() == 2) both.set_value();
  })));
  std::future<XPCObject> first = client.send(requestFor("/a"));
  std::future<XPCObject> second = client.send(requestFor("/b"));
  ASSERT_EQ(both.get_future().wait_for(kPatience), std::future_status::ready);
  const std::lock_guard lock(mutex);
  parked["/b"](resultFor("/b", 2), nullptr);
  EXPECT_EQ(second.get().asDictionary().getString("filename"), "/b");
  parked["/b"](resultFor("/b", 0), nullptr);
  EXPECT_TRUE(recorder_.has(
      LogLevel::error,
      "Failed to create reply object! Aborting. The origin message may have already been replied to."));
  parked["/a"](resultFor("/a", 2), nullptr);
  EXPECT_EQ(first.get().asDictionary().getString("filename"), "/a");
}

}  // namespace
}  // namespace qm::test
