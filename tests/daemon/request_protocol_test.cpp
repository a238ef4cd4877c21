#include "daemon/request_protocol.hpp"

#include <sys/mman.h>

#include "daemon/daemon_support.hpp"
#include "daemon/peers.hpp"
#include "filefacts/QMRHashCacheEntry.hpp"
#include "platform/common/disposal_lanes.hpp"
#include "platform/disposal.hpp"
#include "support/child_process.hpp"
#include "support/lingering_socket.hpp"

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
  // Where the answer's provider serves.
  XPCEndpoint serve(const SubstituteProvider::Answer& answer) const {
    const auto provider = std::make_shared<SubstituteProvider>(answer);
    listener_.setEventHandler([provider, queue = queue_](const XPCObject& event) {
      const XPCConnection peer = event.asConnection();
      if (!peer) return;
      peer.setEventHandler([=](const XPCObject& inner) { handle_peer_event(provider, queue, inner); });
      peer.activate();
    });
    listener_.activate();
    return listener_.endpoint();
  }
  void TearDown() override { listener_.cancel(); }

  XPCDictionary requestFor(const std::string& name, std::int64_t size = 10) const {
    XPCDictionary request = qm::test::requestFor(name, file_.get(), size);
    request.setUInt64("uid", 0x1'0000'01F5);
    return request;
  }
  static FileDescriptor tenBytes() {
    FileDescriptor file(::memfd_create("file", MFD_CLOEXEC));
    EXPECT_EQ(::write(file.get(), "#!/bin/sh\n", 10), 10);
    return file;
  }

  const FileDescriptor file_ = tenBytes();
  LogRecorder recorder_;
  const RequestQueue queue_{Queue::concurrent("com.quillmarsh.reputationhandlingqueue"),
                            2};  // one of a share
  const XPCConnection listener_ = XPCConnection::createAnonymousListener();
};

TEST_F(RequestProtocol, RequestsOfOneUserThatHangLeaveWorkersToTheOthersAndToLongFiles) {
  Inbox<std::string> asked;
  std::latch answers{1};
  const auto provider = std::make_shared<SubstituteProvider>([&](const auto& request, const Reply& reply) {
    asked.put(request->path());
    EXPECT_EQ(request->fileHandle()->userID(), request->path() == "of another user" ? 502 : 501);
    if (request->path() == "hung") answers.wait();
    reply(resultFor(request->path(), 0), nullptr);
  });
  const auto ask = [&](const char* name, std::uint64_t userID, std::int64_t size = 10) {
    XPCDictionary request = requestFor(name, size);
    request.setUInt64("uid", userID);
    process_message(provider, request, queue_);  // nobody's peer: as one of root's
  };
  for (const char* name : {"hung", "first that waits", "second that waits"}) ask(name, 501);
  EXPECT_EQ(asked.waitForOne(), "hung");
  ask("of another user", 502);
  EXPECT_EQ(asked.waitFor(2).back(), "of another user");
  ask("as long as it is said to be", 501, 1024 * 1024 + 1);
  EXPECT_TRUE(eventually([&] {
    return recorder_.hasContaining(LogLevel::error, "Error calculating hashes for as long as it is said");
  }));
  EXPECT_EQ(asked.size(), 2U);
  answers.count_down();
  EXPECT_THAT(asked.waitFor(4),
              ::testing::ElementsAre("hung", "of another user", "first that waits", "second that waits"));
}

TEST_F(RequestProtocol, WhatCannotBeClosedOfOneUsersRequestsLeavesLanesToTheOthers) {
  setDisposalPatience(std::chrono::hours(1));
  std::array<LingeringSocket, kDisposalLanes> lingering;
  std::vector<XPCDictionary> requests;
  for (LingeringSocket& each : lingering) {
    requests.push_back(requestFor("hung"));
    requests.back().setValue("filedescriptor", XPCObject::fileDescriptor(std::move(each.socket)));
    process_message(nullptr, requests.back(), queue_);
  }
  const auto isOursAlone = [](const XPCDictionary& request) {
    return request.representation().use_count() == 1;
  };
  EXPECT_TRUE(eventually([&] { return std::all_of(requests.begin(), requests.end(), isOursAlone); }));
  requests.clear();
  Pipe pipe;
  closeElsewhere(std::move(pipe.writeEnd), 502);
  EXPECT_TRUE(pipe.isWriteEndClosedEverywhere());
}

TEST_F(RequestProtocol, OnlyAServiceOfRootsTakesTheShareOfTheUserItNames) {
  const auto share = [this](std::uint32_t peer, std::int64_t size) {
    return share_of_request(peer, requestFor("f", size));  // for 501, with bits above the lower 32
  };
  EXPECT_EQ(share(0, 10), (RequestShare{.userID = 501, .isOfLongFiles = false}));
  EXPECT_EQ(share(502, 1024 * 1024), (RequestShare{.userID = 502, .isOfLongFiles = false}));
  EXPECT_EQ(share(502, 1024 * 1024 + 1), (RequestShare{.userID = 502, .isOfLongFiles = true}));
}

TEST_F(RequestProtocol, AReplyCarriesTheResultAndWhatTheClientWantsBack) {
  Inbox<std::shared_ptr<QMRFileReputationRequest>> asked;
  const ReputationPeer client(serve([&asked](const auto& request, const Reply& reply) {
    asked.put(request);
    reply(resultFor(request->path(), 0), nullptr);
  }));
  XPCDictionary request = requestFor("/tmp/a/script.sh");
  request.setBool("is-downloaded-file", true);
  request.setValue("requestId", XPCObject::uint64(77));
  request.setValue("txTime", XPCObject::date(Date{123456789}));

  const XPCDictionary reply = client.ask(request);
  ASSERT_TRUE(reply);
  EXPECT_THAT(keysOf(reply),
              ::testing::UnorderedElementsAre("txTime", "requestId", "replyTime", "ttl", "uid", "filename",
                                              "prevalence", "reputationVerdict", "infectionName"));
  EXPECT_EQ(reply.value("txTime"), XPCObject::date(Date{123456789}));
  EXPECT_EQ(reply.value("replyTime").type(), XPCType::date);
  EXPECT_EQ(reply.value("uid"), XPCObject::uint64(501));

  const auto seen = asked.waitForOne();
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
  const ReputationPeer client(serve([error](const auto& request, const Reply& reply) {
    reply(request->path() == "/result"
              ? std::make_shared<QMRFileReputationResult>("/result", 501, 6, std::nullopt, 0, 0)
              : nullptr,
          error);
  }));
  const XPCDictionary reply = client.ask(requestFor("/result"));
  EXPECT_THAT(keysOf(reply), ::testing::UnorderedElementsAre("replyTime", "ttl", "uid", "filename",
                                                             "prevalence", "error", "error-string"));
  EXPECT_EQ(reply.getString("error-string"), error->description());
  EXPECT_THAT(
      keysOf(client.ask(requestFor("/no result"))),
      ::testing::UnorderedElementsAre("replyTime", "ttl", "uid", "prevalence", "error", "error-string"));
  EXPECT_TRUE(recorder_.hasError("Error from reputation provider when processing message"));
}

TEST_F(RequestProtocol, EarlyErrorsAnswerWithNothingOfTheRequest) {
  const ReputationPeer client(serve([](const auto&, const Reply&) { ADD_FAILURE(); }));
  const auto expectFailedHash = [&client](const XPCDictionary& request, const std::string& code) {
    const XPCDictionary reply = client.ask(request);
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
  const XPCDictionary reply = client.ask(request);
  EXPECT_THAT(keysOf(reply), ::testing::UnorderedElementsAre("error", "error-string"));
  EXPECT_EQ(reply.getString("error-string"), "No file name in request");

  request.setInt64("FileReputationRequest", 1);  // a number is not true
  EXPECT_EQ(client.send(request)->waitForOne().type(), XPCType::error)
      << "the transport says that nobody will answer";
  EXPECT_TRUE(recorder_.hasError("Unexpected XPC message: "));
}

TEST_F(RequestProtocol, TheProviderMayAnswerLaterAndOutOfOrderButOnlyOnce) {
  Inbox<Reply> parked;
  const ReputationPeer client(serve([&parked](const auto&, const Reply& reply) { parked.put(reply); }));
  const auto first = client.send(requestFor("/a"));
  const auto early = parked.take();
  const auto second = client.send(requestFor("/b"));
  const auto late = parked.take();
  (*late)(resultFor("/b", 2), nullptr);
  EXPECT_EQ(second->waitForOne().asDictionary().getString("filename"), "/b");
  (*late)(resultFor("/b", 0), nullptr);
  EXPECT_TRUE(recorder_.has(
      LogLevel::error,
      "Failed to create reply object! Aborting. The origin message may have already been replied to."));
  (*early)(resultFor("/a", 2), nullptr);
  EXPECT_EQ(first->waitForOne().asDictionary().getString("filename"), "/a");
}

}  // namespace
