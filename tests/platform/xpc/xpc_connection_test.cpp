// Connections between listeners and clients: what a user of platform/xpc.hpp sees.
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <csignal>
#include <thread>

#include "platform/linux/process_identity.hpp"
#include "platform/linux/run_folder.hpp"
#include "platform/linux/xpc_codec.hpp"
#include "platform/linux/xpc_limits.hpp"
#include "support/blocked_items.hpp"
#include "support/log_recorder.hpp"
#include "xpc_test_support.hpp"

namespace qm::test {
namespace {

mode_t modeOf(const std::string& path) {
  struct stat status {};
  return ::stat(path.c_str(), &status) == 0 ? status.st_mode & 07777 : 0;
}

std::shared_ptr<Events> askLater(const XPCConnection& connection, std::string_view question) {
  auto replies = std::make_shared<Events>();
  connection.sendMessageWithReply(textMessage(question), Queue::global(),
                                  [replies](const XPCObject& reply) { replies->put(reply); });
  return replies;
}

class XPCConnectionTest : public ServedTest {
 protected:
  const Client client{name};
};
using XPCConnectionEnd = ServedTest;

TEST_F(XPCConnectionTest, ARequestIsAnsweredOnItsWayBackAndBothKnowTheOther) {
  const auto replies = askLater(client.connection, "question");
  const XPCObject request = *service.events->take();
  EXPECT_EQ(textOf(request), "question");
  const XPCConnection peer = *service.peers->take();
  EXPECT_EQ(request.asDictionary().remoteConnection(), peer);
  EXPECT_EQ(peer.auditToken(), auditTokenOfProcess(::getpid()));
  answer(request, "answer");
  EXPECT_EQ(textOf(replies->take()), "answer");
  EXPECT_EQ(client.connection.processID(), ::getpid());
  EXPECT_FALSE(request.asDictionary().createReply()) << "a request has one reply";
}

TEST_F(XPCConnectionTest, ALargeMessageWithADescriptorArrivesWhole) {
  Pipe pipe;
  XPCDictionary message = textMessage(std::string(3'000'000, 'x'));
  message.setValue("descriptor", XPCObject::fileDescriptor(pipe.writeEnd.get()));
  client.connection.sendMessage(message);
  message = XPCDictionary();
  XPCObject received = *service.events->take();
  EXPECT_EQ(textOf(received).size(), 3'000'000U);
  EXPECT_TRUE(received.asDictionary().duplicateDescriptor("descriptor"));
  received = XPCObject();
  EXPECT_TRUE(pipe.isWriteEndClosedEverywhere());
}

TEST_F(XPCConnectionTest, ARequestThatIsDroppedGivesAnErrorAndTheConnectionGoesOn) {
  const auto dropped = askLater(client.connection, "drop me");
  const auto dropReply = askLater(client.connection, "drop my reply");
  { const XPCObject request = *service.events->take(); }
  EXPECT_EQ(*dropped->take(), xpcErrorConnectionInterrupted());
  { const XPCDictionary reply = service.events->take()->asDictionary().createReply(); }
  EXPECT_EQ(*dropReply->take(), xpcErrorConnectionInterrupted());

  const auto answered = askLater(client.connection, "answer me");
  answer(*service.events->take(), "yes");
  EXPECT_EQ(textOf(answered->take()), "yes");
  EXPECT_EQ(client.events->size(), 0U);
}

TEST_F(XPCConnectionTest, AMessageThatCannotBeSentIsReportedAtOnce) {
  LogRecorder log;
  const std::string large(xpc::kMaximumBodyBytes, 'x');
  EXPECT_EQ(*askLater(client.connection, large)->take(), xpcErrorMessageRefused());
  EXPECT_TRUE(log.hasContaining(LogLevel::error, "not sent: message too long"));

  const auto replies = askLater(client.connection, "question");
  answer(*service.events->take(), large);
  EXPECT_EQ(*replies->take(), xpcErrorConnectionInterrupted()) << "who asked is told";
}

TEST_F(XPCConnectionTest, APeerThatIsCancelledEndsItsClientsConnectionOnly) {
  const auto replies = askLater(client.connection, "one");
  const XPCObject request = *service.events->take();
  service.peers->take()->cancel();
  EXPECT_EQ(*replies->take(), xpcErrorConnectionInterrupted());
  EXPECT_EQ(*client.events->take(), xpcErrorConnectionInterrupted());
  EXPECT_EQ(*service.events->take(), xpcErrorConnectionInvalid());

  const auto again = askLater(client.connection, "two");
  answer(*service.events->take(), "served again");
  EXPECT_EQ(textOf(again->take()), "served again") << "a named client connects again";
}

TEST_F(XPCConnectionEnd, CancelAnswersFirstThenReportsOnce) {
  const auto order = std::make_shared<Inbox<std::string>>();
  const XPCConnection client = XPCConnection::createClient(name);
  client.setEventHandler([order](const XPCObject& event) {
    order->put(event == xpcErrorConnectionInvalid() ? "event" : "something else");
  });
  client.activate();
  std::vector<XPCObject> requests;  // dropped, they would be answered with an error
  for (int i = 0; i < 3; ++i) {
    client.sendMessageWithReply(
        textMessage("unanswered"), Queue::serial("replies"), [order](const XPCObject& reply) {
          order->put(reply == xpcErrorConnectionInvalid() ? "reply" : "something else");
        });
    requests.push_back(*service.events->take());
  }
  client.cancel();
  client.cancel();
  for (const char* expected : {"reply", "reply", "reply", "event"}) EXPECT_EQ(*order->take(), expected);
  EXPECT_EQ(*askLater(client, "too late")->take(), xpcErrorConnectionInvalid());
  const auto passed = std::make_shared<Inbox<int>>();
  client.sendBarrier([passed] { passed->put(1); });
  EXPECT_TRUE(passed->take());
  EXPECT_EQ(order->size(), 0U);
}

TEST_F(XPCConnectionEnd, WhoCancelsAndLetsGoStillGetsTheFinalError) {
  const auto events = std::make_shared<Events>();
  XPCConnection client = XPCConnection::createClient(name);
  client.setEventHandler([events](const XPCObject& event) { events->put(event); });
  client.activate();
  client.cancel();
  client = XPCConnection();
  EXPECT_EQ(*events->take(), xpcErrorConnectionInvalid());
}

TEST_F(XPCConnectionEnd, AClientThatGoesEndsItsPeerBehindItsMessages) {
  auto token = std::make_shared<int>();
  const std::weak_ptr<int> handlerLives = token;
  {
    const XPCConnection client = XPCConnection::createClient(name);
    client.setEventHandler([kept = std::move(token)](const XPCObject&) {});
    for (int i = 0; i < 50; ++i) client.sendMessage(textMessage(std::to_string(i)));
    client.activate();
    for (int i = 50; i < 100; ++i) client.sendMessage(textMessage(std::to_string(i)));
  }
  for (int i = 0; i < 100; ++i) EXPECT_EQ(textOf(service.events->take()), std::to_string(i));
  EXPECT_EQ(*service.events->take(), xpcErrorConnectionInvalid());
  EXPECT_TRUE(handlerLives.expired());
}

TEST(XPCConnection, EndsWithItsProcessThoughAnotherHasTheSocket) {
  const std::string name = uniqueServiceName();
  const Pipe serves;
  const pid_t owner = ::fork();  // as long as there is one thread
  if (owner == 0) {
    char byte = 0;
    if (::read(serves.readEnd.get(), &byte, 1) != 1) ::_exit(1);
    RawClient client = RawClient::connect(name);
    client.greet();
    const pid_t heir = ::fork();
    if (heir == 0) {
      ::alarm(100);
      ::pause();
    }
    XPCDictionary message = XPCDictionary::create();
    message.setInt64("heir", heir);
    client.writeFrame({.kind = xpc::FrameKind::message}, xpc::encodeMessage(message, 0).bytes);
    ::_exit(0);
  }
  const Service service(name);
  ASSERT_EQ(::write(serves.writeEnd.get(), "x", 1), 1);
  const auto heir = static_cast<pid_t>(service.events->take()->asDictionary().getInt64("heir"));
  EXPECT_EQ(service.peers->take()->processID(), owner);
  EXPECT_EQ(*service.events->take(), xpcErrorConnectionInvalid());
  ASSERT_GT(heir, 0);
  EXPECT_EQ(::kill(heir, SIGKILL), 0) << "it had the socket all the time";
  ::waitpid(owner, nullptr, 0);
}

TEST(XPCListener, HandlersRunOneAtATimeAndOnASerialQueueThatIsGiven) {
  const Queue serial = Queue::serial("handlers");
  for (const Queue& queue : {serial, Queue::concurrent("handlers"), Queue()}) {
    const std::string name = uniqueServiceName();
    const XPCConnection listener = XPCConnection::createListener(name, queue);
    const auto seen = std::make_shared<Inbox<bool>>();
    const auto running = std::make_shared<std::atomic<int>>(0);
    listener.setEventHandler([=](const XPCObject& event) {
      const XPCConnection peer = event.asConnection();
      if (!peer) return;
      peer.setEventHandler([=](const XPCObject&) {
        const bool isAlone = running->fetch_add(1) == 0;
        std::this_thread::yield();
        running->fetch_sub(1);
        seen->put(isAlone && serial.isCurrent() == (queue == serial));
      });
      peer.activate();
    });
    listener.activate();
    const Client client(name);
    for (int i = 0; i < 500; ++i) client.connection.sendMessage(textMessage("x"));
    for (int i = 0; i < 500; ++i) ASSERT_TRUE(*seen->take());
    listener.cancel();
  }
}

TEST_F(XPCConnectionEnd, PeersAreAdmittedAndHeardWhileConcurrentItemsBlock) {
  const BlockedItems blocked(Queue::global());
  const Client client(name);
  client.connection.sendMessage(textMessage("heard"));
  EXPECT_EQ(textOf(service.events->take()), "heard");
  service.peers->take()->cancel();
  EXPECT_EQ(*client.events->take(), xpcErrorConnectionInterrupted());
}

TEST(XPCListener, ItsFilesTellWhoMayWhatAndItsSocketGoesWithIt) {
  const std::string name = uniqueServiceName() + std::string(50, 'n');
  ASSERT_GT(socketPath(name).size(), sizeof(sockaddr_un::sun_path))
      << "too long for an address, served all the same";
  const Service service(name);
  const Client client(name);
  client.connection.sendMessage(textMessage("far"));
  EXPECT_EQ(textOf(service.events->take()), "far");
  EXPECT_EQ(modeOf(socketPath(name)), 0666U);
  EXPECT_EQ(modeOf(socketPath(name) + ".lock"), 0600U);
  EXPECT_EQ(modeOf(runFolder()), 0755U);
  service.listener.cancel();
  EXPECT_EQ(*service.events->take(), xpcErrorConnectionInvalid());
  EXPECT_NE(::access(socketPath(name).c_str(), F_OK), 0);
}

TEST(XPCListener, CancelledWhileItStartsItLeavesItsNameFree) {
  const std::string name = uniqueServiceName();
  for (int i = 0; i < 200; ++i) {
    const XPCConnection listener = XPCConnection::createListener(name);
    listener.setEventHandler([](const XPCObject&) {});
    std::atomic<bool> starts = false;
    std::thread starter([&] {
      starts = true;
      listener.activate();
    });
    const auto moment = std::chrono::steady_clock::now() + std::chrono::microseconds(2 * i);
    while (!starts || std::chrono::steady_clock::now() < moment) std::this_thread::yield();
    listener.cancel();
    starter.join();
    ASSERT_NE(::access(socketPath(name).c_str(), F_OK), 0) << "at " << i;
  }
}

}  // namespace
}  // namespace qm::test
