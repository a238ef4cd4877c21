// The client with a service that answers, and with one that is not there, ends, is silent or refuses.
#include "client/reputation_client.hpp"

#include <sys/xattr.h>

#include "platform/file_io.hpp"
#include "support/lingering_socket.hpp"
#include "support/scripted_service.hpp"

namespace {

class Answers : public Inbox<ReputationAnswer> {
 public:
  ReputationClient::Completion collector() {
    return [this](const ReputationAnswer& answer) { put(answer); };
  }
};

// So many answers, all failed that way.
void expectAll(ReputationFailure failure, std::size_t count, const Answers& answers) {
  for (const ReputationAnswer& answer : answers.waitFor(count))
    EXPECT_EQ(answer.failure, failure) << answer.errorText;
}

void trustAll(const XPCDictionary& request) {
  answer(request, {.level = 2});
}

class ClientTest : public ::testing::Test {
 protected:
  const std::string serviceName = "com.quillmarsh.test" + std::to_string(::getpid()) + ".qmreputationd";
  ReputationClientOptions options{
      .serviceName = serviceName, .requestsInFlight = 7, .reconnectTimeout = kPatience};
  ScratchFolder folder;
  const std::string path = folder.write("file", "content");
  Answers answers;  // outlives the clients of the tests
  Answers delayed;
};

TEST_F(ClientTest, ARequestCarriesTheOpenFileAndItsFacts) {
  const bool isMarked = ::setxattr(path.c_str(), "user.xdg.origin.url", "https://a.test/", 15, 0) == 0;
  std::promise<XPCDictionary> promise;
  const ScriptedService service(serviceName, [&promise](const XPCDictionary& request) {
    promise.set_value(request);
    answer(request, {.level = 2, .prevalence = 200, .ttl = 60});
  });
  ReputationClient client(options);
  client.ask({.path = path, .userID = 501}, answers.collector());
  const ReputationAnswer answer = answers.waitForOne();
  EXPECT_EQ(answer.verdict, ReputationVerdict::trusted);
  EXPECT_EQ(answer.prevalence, 200);
  EXPECT_EQ(answer.path, path);
  EXPECT_EQ(answer.downloaded, isMarked);

  const XPCDictionary request = promise.get_future().get();
  EXPECT_TRUE(request.getBool("FileReputationRequest"));
  EXPECT_EQ(request.getString("filename"), path);
  EXPECT_EQ(request.value("filesize"), XPCObject::int64(7));
  EXPECT_EQ(request.value("uid"), XPCObject::uint64(501));
  EXPECT_EQ(request.getBool("is-downloaded-file"), isMarked);
  EXPECT_TRUE(request.value("requestId"));
  EXPECT_EQ(request.value("txTime").type(), XPCType::date);
  char content[16];
  const FileDescriptor descriptor = request.duplicateDescriptor("filedescriptor");
  EXPECT_EQ(readAt(descriptor.get(), content, sizeof content, 0), 7);
  EXPECT_EQ(::fcntl(descriptor.get(), F_GETFL) & O_ACCMODE, O_RDONLY);
}

TEST_F(ClientTest, ManyFilesAreAskedAboutWithABoundAndEachIsAnsweredOnce) {
  constexpr std::size_t kFiles = 3000;
  std::atomic<int> held{0};
  std::atomic<int> mostHeld{0};
  std::atomic<std::size_t> mostDescriptors{0};
  const Queue answering = Queue::concurrent("answering");
  const ScriptedService service(serviceName, [&](const XPCDictionary& request) {
    mostHeld = std::max(mostHeld.load(), ++held);
    if (request.getUInt64("requestId") % 100 == 0)
      mostDescriptors = std::max(mostDescriptors.load(), openDescriptors());
    answering.async([&held, request] {
      --held;
      answer(request, {.level = 1});
    });
  });
  const std::size_t descriptorsBefore = openDescriptors();
  ReputationClient client(options);
  for (std::size_t i = 0; i < kFiles; ++i) client.ask({.path = path}, answers.collector());
  for (const ReputationAnswer& answer : answers.waitFor(kFiles))
    EXPECT_EQ(answer.verdict, ReputationVerdict::unknown) << answer.errorText;
  client.close();
  EXPECT_EQ(answers.size(), kFiles);
  EXPECT_LE(mostHeld, 7);
  // Each question in flight costs a few on both sides, and both are in this process.
  EXPECT_LT(mostDescriptors, descriptorsBefore + 100);
}

TEST_F(ClientTest, WhatIsNoReadableRegularFileIsReportedAndNotSent) {
  const std::string fifo = folder.path("fifo");
  ASSERT_EQ(::mkfifo(fifo.c_str(), 0600), 0);
  const std::string largest = folder.write("largest", "");
  std::filesystem::resize_file(largest, 536870912);
  const std::string tooLarge = folder.write("too large", "");
  std::filesystem::resize_file(tooLarge, 536870913);
  const std::string link = folder.path("link");
  std::filesystem::create_symlink(path, link);
  const struct {
    std::string path;
    ReputationFailure failure;
    std::string text;
    SymbolicLinks links = SymbolicLinks::follow;
  } cases[] = {
      {folder.path("missing"), ReputationFailure::unreadableFile, "No such file or directory"},
      {path + std::string("\0x", 2), ReputationFailure::unreadableFile, "Invalid argument"},
      {folder.path(), ReputationFailure::notARegularFile, "is a directory"},
      {fifo, ReputationFailure::notARegularFile, "is a named pipe"},
      {link, ReputationFailure::notARegularFile, "is a symbolic link", SymbolicLinks::refuse},
      {tooLarge, ReputationFailure::fileTooLarge, "is larger than 512 MiB"},
      {link, ReputationFailure::none, ""},
      {largest, ReputationFailure::none, ""},
  };
  std::atomic<int> requests{0};
  const ScriptedService service(serviceName, [&requests](const XPCDictionary& request) {
    ++requests;
    trustAll(request);
  });
  ReputationClient client(options);
  for (const auto& [name, failure, text, links] : cases) {
    Answers one;
    client.ask({.path = name, .symbolicLinks = links}, one.collector());
    EXPECT_EQ(one.waitForOne().failure, failure) << name;
    EXPECT_EQ(one.waitForOne().errorText, text) << name;
  }
  EXPECT_EQ(requests, 2);
}

TEST_F(ClientTest, ADescriptorThatCannotBeClosedKeepsNoOtherQuestionWaiting) {
  const ScriptedService service(serviceName, trustAll);
  LingeringSocket lingering;
  ReputationClient client(options);
  client.ask({.path = "socket", .descriptor = std::move(lingering.socket)}, answers.collector());
  EXPECT_EQ(answers.waitForOne().failure, ReputationFailure::notARegularFile);
  Answers others;
  client.ask({.path = "given", .descriptor = openForReading(path.c_str())}, others.collector());
  EXPECT_EQ(others.waitForOne().verdict, ReputationVerdict::trusted);
  client.close();
}

TEST_F(ClientTest, DelayedAnswersFollowTheReplyOfTheirPathWhichNeedNotBeUTF8) {
  const std::string odd = folder.write("a\xff", "x");
  const ScriptedService service(serviceName, [&](const XPCDictionary& request) {
    EXPECT_EQ(request.getString("filename"), folder.path("a\xef\xbf\xbd"));
    answerLater(request, {.level = 1});  // overtakes the reply
    answer(request, {.level = 1});
    answerLater(request, {.level = 0, .infectionName = "Late.Virus"});
  });
  std::vector<std::string> order;
  ReputationClient client(options);
  const auto keep = [&](const ReputationAnswer& answer) {
    EXPECT_EQ(answer.path, odd);
    EXPECT_TRUE(answer.delayed);
    order.push_back(answer.answered() ? name(answer.verdict) : name(answer.failure));
    delayed.collector()(answer);
  };
  client.ask({.path = odd, .delayedAnswer = keep}, [&order](const ReputationAnswer& answer) {
    EXPECT_FALSE(answer.delayed);
    order.push_back("reply");
  });
  EXPECT_EQ(delayed.waitFor(2)[1].infectionName, "Late.Virus");
  client.close();
  EXPECT_EQ(order, (std::vector<std::string>{"reply", "unknown", "untrusted", "closed"}));
}

TEST_F(ClientTest, AServiceThatIsNotThereOrAdmitsNobodyFailsWhatWasAskedSoFarAndIsTriedAgain) {
  ReputationClient client(options);
  for (int i = 0; i < 200; ++i) client.ask({.path = path}, answers.collector());
  expectAll(ReputationFailure::serviceUnavailable, 200, answers);
  std::optional<ScriptedService> service;
  service.emplace(serviceName, trustAll, /*admitsPeers=*/false);
  Answers refused;
  for (int i = 0; i < 200; ++i) client.ask({.path = path}, refused.collector());
  expectAll(ReputationFailure::refused, 200, refused);
  EXPECT_LT(service->peers(), 100U)
      << "those asked so far fail together, not each with a connection of its own";
  service.reset();
  service.emplace(serviceName, trustAll);
  client.ask({.path = path}, answers.collector());
  EXPECT_TRUE(answers.waitFor(201).back().answered());
}

TEST_F(ClientTest, ASilentServiceCostsTheTimeoutAndItsLateReplyIsDropped) {
  std::vector<XPCDictionary> held;
  const ScriptedService service(serviceName, [&held](const XPCDictionary& request) {
    if (!request.getBool("is-downloaded-file")) return held.push_back(request);
    for (const XPCDictionary& each : held) trustAll(each);
    trustAll(request);
  });
  options.requestTimeout = std::chrono::milliseconds(200);
  ReputationClient client(options);
  for (int i = 0; i < 14; ++i) client.ask({.path = path, .downloaded = false}, answers.collector());
  expectAll(ReputationFailure::timedOut, 14, answers);
  client.ask({.path = path, .downloaded = true}, answers.collector());
  answers.waitFor(15);
  client.close();
  EXPECT_EQ(answers.size(), 15U);
}

TEST_F(ClientTest, ADroppedRequestFailsAloneAndTheOthersKeepTheirConnection) {
  std::vector<XPCDictionary> held;
  const ScriptedService service(serviceName, [&held](const XPCDictionary& request) {
    if (request.getBool("is-downloaded-file")) return;  // dropped unanswered
    held.push_back(request);
    if (held.size() == 2)
      for (const XPCDictionary& each : std::exchange(held, {})) trustAll(each);
  });
  ReputationClient client(options);
  Answers dropped;
  client.ask({.path = path, .downloaded = false}, answers.collector());
  client.ask({.path = path, .downloaded = true}, dropped.collector());
  expectAll(ReputationFailure::connectionLost, 1, dropped);
  EXPECT_EQ(answers.size(), 0U);
  client.ask({.path = path, .downloaded = false}, answers.collector());
  expectAll(ReputationFailure::none, 2, answers);
  EXPECT_EQ(service.peers(), 1U);
}

TEST_F(ClientTest, AServiceThatEndsTwiceOverAQuestionLosesIt) {
  Inbox<bool> received;
  const auto script = [&received](const XPCDictionary& request) {
    request.getBool("is-downloaded-file") ? trustAll(request) : received.put(true);
  };
  std::optional<ScriptedService> service;
  service.emplace(serviceName, script);
  ReputationClient client(options);
  client.ask({.path = path, .downloaded = true, .delayedAnswer = delayed.collector()}, answers.collector());
  answers.waitFor(1);
  Answers lost;
  client.ask({.path = path, .downloaded = false}, lost.collector());
  received.waitFor(1);
  service.reset();
  expectAll(ReputationFailure::connectionLost, 1, delayed);
  service.emplace(serviceName, script);
  received.waitFor(2);
  client.ask({.path = path, .downloaded = true}, answers.collector());
  answers.waitFor(2);
  service.reset();
  expectAll(ReputationFailure::connectionLost, 1, lost);
}

TEST_F(ClientTest, ACompletionMayAskAndDestroyItsClientWhichAnswersEverything) {
  const ScriptedService service(serviceName, trustAll);
  auto* client = new ReputationClient(options);
  std::promise<void> destroyed;
  client->ask({.path = path}, [&](const ReputationAnswer&) {
    for (int i = 0; i < 300; ++i) client->ask({.path = path}, answers.collector());
    delete client;
    destroyed.set_value();
  });
  destroyed.get_future().wait();
  expectAll(ReputationFailure::closed, 300, answers);
}

// Threads that ask, a service that dies and comes back, and a client that closes in the middle: whatever
// happens, each question has one answer.
TEST_F(ClientTest, EachQuestionIsAnsweredOnceThroughRestartsAndClosing) {
  constexpr std::size_t kThreads = 4;
  constexpr std::size_t kQuestions = 250;
  std::vector<std::atomic<int>> calls(kThreads * kQuestions);
  std::atomic<int> requests{0};
  const auto script = [&requests](const XPCDictionary& request) {
    ++requests;
    answer(request, {.level = 1});
    answerLater(request, {.level = 2});
  };
  std::optional<ScriptedService> service;
  service.emplace(serviceName, script);
  {
    ReputationClient client(options);
    std::vector<std::thread> threads;
    for (std::size_t thread = 0; thread < kThreads; ++thread)
      threads.emplace_back([&, thread] {
        for (std::size_t i = 0; i < kQuestions; ++i)
          client.ask({.path = path, .delayedAnswer = delayed.collector()},
                     [&count = calls[thread * kQuestions + i]](const ReputationAnswer&) { ++count; });
      });
    for (int restart = 0; restart < 3; ++restart) {
      const int before = requests;
      while (requests < before + 50 && !client.waitUntilIdle(std::chrono::milliseconds(1))) {
      }
      service.reset();
      service.emplace(serviceName, script);
    }
    for (std::thread& thread : threads) thread.join();
    client.waitUntilIdle(std::chrono::milliseconds(20));
  }
  for (const auto& count : calls) EXPECT_EQ(count, 1);
}

}  // namespace
