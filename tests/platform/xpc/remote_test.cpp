// Remote calls: what a user of platform/remote_connection.hpp and remote_protocol.hpp sees.
#include "platform/linux/remote_coder.hpp"
#include "platform/linux/worker_pool.hpp"
#include "platform/linux/xpc_limits.hpp"
#include "remote_workshop.hpp"
#include "support/child_process.hpp"
#include "xpc_test_support.hpp"

namespace {

// What happens to a connection, in order: "4097 TEXT" for an error, "interrupted", "invalidated" or what a
// reply puts.
using Story = Inbox<std::string>;

std::string told(const ErrorPtr& error) {
  return std::to_string(error->code()) + " " + *find<std::string>(error->userInfo(), kDebugDescriptionKey);
}

struct RemoteClient {
  explicit RemoteClient(std::shared_ptr<RemoteConnection> its) : connection(std::move(its)) {
    connection->setRemoteObjectInterface(workshopInterface());
    connection->setInterruptionHandler([story = story] { story->put("interrupted"); });
    connection->setInvalidationHandler([story = story] { story->put("invalidated"); });
  }
  RemoteClient(const std::string& serviceName)
      : RemoteClient(RemoteConnection::createWithMachServiceName(serviceName)) {
    connection->resume();
  }
  RemoteClient(const XPCEndpoint& endpoint)
      : RemoteClient(RemoteConnection::createWithListenerEndpoint(endpoint)) {
    connection->resume();
  }
  RemoteProxy proxy(bool isSynchronous = false) const {
    auto handler = [story = story](const ErrorPtr& error) { story->put(told(error)); };
    return isSynchronous ? connection->synchronousRemoteObjectProxyWithErrorHandler(handler)
                         : connection->remoteObjectProxyWithErrorHandler(handler);
  }
  void identify(bool isSynchronous = false) const {
    proxy(isSynchronous).call<&Workshop::identify>([story = story](std::int64_t process) {
      story->put("process " + std::to_string(process));
    });
  }
  // A call that is made before there is a connection, and cannot come too late.
  void identifyFirst() const {
    identify();
    connection->resume();
  }
  void keep() const {
    proxy().call<&Workshop::keep>([story = story] { story->put("answered"); });
  }
  void expect(const std::vector<std::string>& events) const {
    for (const std::string& event : events) EXPECT_EQ(story->take(), event);
  }

  std::shared_ptr<Story> story = std::make_shared<Story>();
  std::shared_ptr<RemoteConnection> connection;
};

struct Served {
  Served() {
    listener->setDelegate(admitTo(workshop));
    listener->resume();
  }
  std::shared_ptr<Workshop> workshop = std::make_shared<Workshop>();
  std::shared_ptr<RemoteListener> listener = RemoteListener::anonymousListener();
};

const std::string kSelf = "process " + std::to_string(::getpid());
const std::string kEndpointText = "connection to anonymous listener with pid " + std::to_string(::getpid());

// What the workshop makes of them is what went there.
template <class... T>
void expectToComeBack(const RemoteClient& client, const T&... values) {
  const Array sent = {RemoteCoding<T>::toValue(values)...};
  bool isAnswered = false;
  client.proxy(true).call<&Workshop::everything>(values..., Block<void(T...)>([&](const T&... returned) {
                                                   isAnswered = true;
                                                   EXPECT_EQ(sent,
                                                             (Array{RemoteCoding<T>::toValue(returned)...}));
                                                 }));
  EXPECT_TRUE(isAnswered);
}

TEST(RemoteCall, EveryTypeComesBackAsItWent) {
  const Served served;
  const RemoteClient client(served.listener->endpoint());
  const BadgePtr badge = std::make_shared<const Badge>(Dictionary{
      {"valid", true}, {"number", UINT64_MAX}, {"names", Dictionary{{"n", Dictionary{{"value", 3}}}}}});
  const auto url = std::make_shared<const URLObject>(*URL::create("file:///x"));
  const Date date{-1234567890123456789};
  const ErrorPtr error = makeError("domain", -5, {{kUnderlyingErrorKey, makeError("in", 7, {{"k", url}})}});
  const Array array{true, -1, 1U, 0.5, "text", Data("\0\1", 2), date, Array{Dictionary{{"class", "NSURL"}}}};
  const Value endpoint = std::make_shared<const EndpointObject>(served.listener->endpoint());
  const Value value = Array{UUID{{1, 2, 3}}, Value(), error, badge, Dictionary{{"e", Array{}}}, endpoint};
  expectToComeBack(client, true, std::int64_t{INT64_MIN}, std::uint64_t{UINT64_MAX},
                   std::uint32_t{UINT32_MAX}, 0.1, std::string("täxt"), Data("\0\xff", 2), date, array,
                   Dictionary{{"", Dictionary{}}, {"entries", array}}, error, value,
                   served.listener->endpoint(), std::optional(std::string()), URL::create("https://h/p?q#f"),
                   badge);
  expectToComeBack(client, false, std::int64_t{}, std::uint64_t{}, std::uint32_t{}, 0.0, std::string(),
                   Data(), Date(), Array(), Dictionary(), ErrorPtr(), Value(), XPCEndpoint(),
                   std::optional<std::string>(), std::optional<URL>(), BadgePtr());
}

// What is wrong with a coded argument, and the error that says so.
struct Undecodable {
  const char* what;
  RemoteParameter parameter;
  XPCObject coded;
  std::int64_t code;
  const char* text;
};

XPCObject coded(const char* className, const char* key, const XPCObject& content) {
  XPCDictionary result = XPCDictionary::create();
  result.setString("class", className);
  result.setValue(key, content);
  return result;
}
template <class... Elements>
XPCObject arrayOf(const Elements&... elements) {
  XPCArray result = XPCArray::create();
  (result.append(elements), ...);
  return result;
}
XPCDictionary entry(const char* key, const XPCObject& value) {
  XPCDictionary result = XPCDictionary::create();
  result.setValue(key, value);
  return result;
}
XPCObject codedError(const XPCObject& inUserInfo) {
  XPCDictionary error = coded("NSError", "userInfo", entry("k", inUserInfo)).asDictionary();
  error.setString("domain", "d");
  error.setInt64("code", 1);
  return error;
}

TEST(RemoteCoder, WhatTheInterfaceDoesNotAllowIsNotMadeAtAnyDepth) {
  const XPCObject uuid = XPCObject::uuid({});
  const XPCObject text = XPCObject::string("x");
  const XPCObject url = coded("NSURL", "string", text);
  const XPCObject badge = coded("Badge", "fields", XPCDictionary::create());
  const RemoteParameter number64{.type = RemoteType::int64, .classes = {}};
  const RemoteParameter number32{.type = RemoteType::uint32, .classes = {}};
  const auto anyOf = [](CodedClasses classes) {
    return RemoteParameter{.classes = std::move(classes), .hasOwnContents = true};
  };
  const RemoteParameter array = RemoteCoding<Array>::parameter();
  RemoteParameter arrayOfBadges = array;
  arrayOfBadges.classes = {{"NSArray"}, {"Badge", &Badge::codedClass()}};
  const RemoteParameter error = RemoteCoding<ErrorPtr>::parameter();
  const RemoteParameter badges = RemoteCoding<BadgePtr>::parameter();
  XPCDictionary tooMuch = coded("NSURL", "string", text).asDictionary();
  tooMuch.setBool("more", true);
  const auto field = [](const char* key, const XPCObject& value) {
    return coded("Badge", "fields", entry(key, value));
  };
  const char* const inArray = "value for key 'NS.objects' was of unexpected class 'NSUUID'. Allowed";
  const std::vector<Undecodable> table = {
      {"other integer", number64, XPCObject::uint64(1), 4864, "'argument 0' is not an int64"},
      {"boolean", number64, XPCObject::boolean(true), 4864, "'argument 0' is not an int64"},
      {"range", number32, XPCObject::uint64(1ULL << 32), 4864, "does not fit into 32 bits"},
      {"nil number", number32, XPCObject::null(), 4864, "'argument 0' is not a uint64"},
      {"foreign", array, text, 4864, "'argument 0' was of unexpected class 'NSString'"},
      {"not the type's own class", arrayOfBadges, badge, 4864, "unexpected class 'Badge'"},
      {"in array", array, arrayOf(uuid), 4864, inArray},
      {"in both", array, arrayOf(coded("NSDictionary", "entries", entry("k", arrayOf(uuid)))), 4864, inArray},
      {"null inside", array, arrayOf(XPCObject::null()), 4864, "unexpected class 'NSNull'"},
      {"record inside", array, arrayOf(badge), 4864, "unexpected class 'Badge'"},
      {"in named", anyOf({{"NSArray"}, {"NSURL"}}), arrayOf(url, text), 4864, "unexpected class 'NSString'"},
      {"in error", error, codedError(codedError(arrayOf(uuid))), 4864, inArray},
      {"no domain", error, coded("NSError", "userInfo", text), 4865, "no value for key 'domain'"},
      {"field's type", badges, field("valid", XPCObject::int64(1)), 4864, "'valid' is not a boolean"},
      {"field's class", badges, field("names", url), 4864, "'names' was of unexpected class 'NSURL'"},
      {"in field", badges, field("names", coded("NSDictionary", "entries", entry("k", uuid))), 4864, inArray},
      {"no class", array, XPCDictionary::create(), 4864, "unexpected class ''"},
      {"spelled class", array, coded("NSArray", "entries", text), 4864, "not coded as a dictionary"},
      {"no content", anyOf({{"NSURL"}}), coded("NSURL", "text", text), 4865, "no value for key 'string'"},
      {"no URL", anyOf({{"NSURL"}}), coded("NSURL", "string", XPCObject::string("a b")), 4864, "no URL"},
      {"more content", anyOf({{"NSURL"}}), tooMuch, 4864, "unknown keys"},
      {"descriptor", anyOf({{"NSFileHandle"}}), XPCObject::fileDescriptor(0), 4864, "'NSFileHandle'"},
      {"long name", array, coded(std::string(5000, 'n').c_str(), "x", text), 4864, "nnn…'. Allowed"}};
  for (const Undecodable& row : table) {
    ErrorPtr failure;
    EXPECT_FALSE(remote::decodeArguments({row.parameter}, arrayOf(row.coded), &failure)) << row.what;
    ASSERT_TRUE(failure) << row.what;
    EXPECT_EQ(failure->code(), row.code) << row.what;
    EXPECT_NE(told(failure).find(row.text), std::string::npos) << row.what << ": " << told(failure);
  }
  for (const XPCObject& wrong : {arrayOf(), arrayOf(text, text), text})
    EXPECT_FALSE(remote::decodeArguments({array}, wrong, nullptr)) << wrong.description();
  const auto later = remote::decodeArguments({badges}, arrayOf(field("later", uuid)), nullptr);
  ASSERT_TRUE(later) << "a field of a later version is left alone";
  EXPECT_TRUE(RemoteCoding<BadgePtr>::fromValue(later->front())->fields().empty());
}

TEST(RemoteCall, AForeignMessageIsDroppedWithALineAndTheNextIsServed) {
  const Served served;
  const XPCConnection raw = XPCConnection::createClient(served.listener->endpoint());
  raw.setEventHandler([](const XPCObject&) {});
  raw.activate();
  const auto call = [](const char* selector, const XPCObject& arguments) {
    return remote::encodeCall(selector, arguments.asArray());
  };
  XPCDictionary more = call("identify:", arrayOf());
  more.setBool("more", true);
  LogRecorder log;
  for (const auto& [message, line] : std::vector<std::pair<XPCDictionary, std::string>>{
           {XPCDictionary::create(),
            "selector (none), dropping incoming message. Exception: Error Domain=NSCocoaErrorDomain "
            "Code=4865"},
           {more, "unknown keys in the call"},
           {call("reboot", arrayOf()), "not in the interface of the local object (reboot), dropping"},
           {call("identify:", arrayOf(XPCObject::null())), "1 arguments instead of 0"},
           {call("echo:reply:", arrayOf(XPCObject::fileDescriptor(0))), "unexpected class 'NSFileHandle'"},
           {call("note:", arrayOf(XPCObject::string("x"))), "note: as a request, but it has no reply"}}) {
    EXPECT_EQ(raw.sendMessageWithReplySync(message), xpcErrorConnectionInterrupted()) << line;
    EXPECT_TRUE(log.hasContaining(LogLevel::error, line)) << line;
  }
  EXPECT_EQ(raw.sendMessageWithReplySync(call("identify:", arrayOf())),
            entry("reply", arrayOf(XPCObject::int64(::getpid()))));
}

TEST(RemoteCall, EveryFailureHasItsError) {
  const Served served;
  const RemoteClient client(served.listener->endpoint());
  client.identify();
  client.expect({kSelf});

  client.proxy().call<&Workshop::forget>([] {});
  client.expect({"4097 " + kEndpointText});
  client.proxy().call<&Workshop::echo>(Date::now(), [](const Value&) {});
  client.expect({"4097 " + kEndpointText});  // the service does not allow it
  LogRecorder log;
  client.proxy().call<&Workshop::echo>("text", [](const Value&) {});
  client.expect({"4101 " + kEndpointText});  // and here it is not allowed in the reply
  EXPECT_TRUE(
      log.hasContaining(LogLevel::error,
                        "Exception caught during decoding of received reply to message 'echo:reply:', "
                        "dropping incoming message and calling failure block."));
  const std::string large(xpc::kMaximumBodyBytes, 'x');
  const std::string tooLong = "4101 " + kEndpointText + ": cannot call ";
  client.proxy().call<&Workshop::echo>(large, [](const Value&) {});
  client.expect({tooLong + "echo:reply:: message too long"});
  client.proxy().call<&Workshop::note>(large);
  client.expect({tooLong + "note:: message too long"});
  client.proxy().invoke("reboot", {}, nullptr);
  client.expect({tooLong + "reboot: it is not in the interface of the remote object"});

  const RemoteClient nobody(RemoteConnection::createWithMachServiceName("com.quillmarsh.nobody"));
  nobody.identifyFirst();
  const std::string notFound =
      "4099 The connection to service named com.quillmarsh.nobody was invalidated: failed at lookup with "
      "error 3 - No such process.";
  nobody.expect({notFound, "invalidated"});
  nobody.proxy().call<&Workshop::note>("x");
  nobody.expect({notFound});
}

TEST(RemoteCall, AReplyCountsOnceAndItsBlockGoes) {
  const auto listener = RemoteListener::anonymousListener();
  const auto kept = std::make_shared<Inbox<RemoteExport::Reply>>();
  listener->setDelegate([kept](const auto&, const std::shared_ptr<RemoteConnection>& connection) {
    connection->setExport({workshopInterface(),
                           {{"identify:", [kept](const Array&, const auto& reply) { kept->put(reply); }}}});
    connection->resume();
    return true;
  });
  listener->resume();
  const RemoteClient client(listener->endpoint());
  auto token = std::make_shared<int>();
  const std::weak_ptr<int> blockLives = token;
  LogRecorder log;
  client.proxy().call<&Workshop::identify>(
      [story = client.story, token = std::move(token)](std::int64_t number) {
        story->put("process " + std::to_string(number));
      });
  RemoteExport::Reply reply = *kept->take();
  reply({1});
  reply({2});
  client.identify();
  RemoteExport::Reply misfit = *kept->take();
  misfit({"three"});
  client.expect({"process 1", "4097 " + kEndpointText});
  EXPECT_TRUE(log.hasContaining(LogLevel::error, "Reply to identify: sent twice, ignoring the second"));
  EXPECT_TRUE(log.hasContaining(LogLevel::error, "Cannot reply to identify:"));
  client.identify();
  { const auto dropped = kept->take(); }
  client.expect({"4097 " + kEndpointText});
  EXPECT_TRUE(blockLives.expired());
}

std::string startService(std::optional<ChildProcess>& service, const std::string& name) {
  service.emplace(std::vector<std::string>{QM_TEST_REMOTE_SERVICE, name});
  return service->readLine();
}

TEST(RemoteConnection, ANamedOneOutlivesItsServicesDeathAndAnEndpointsDoesNot) {
  const std::string name = uniqueServiceName();
  std::optional<ChildProcess> service;
  ASSERT_EQ(startService(service, name), "serving");
  const RemoteClient client(name);
  const std::string interrupted = "4097 connection to service named " + name;
  for (int round = 0; round < 3; ++round) {
    client.identify(round == 1);
    client.expect({"process " + std::to_string(service->pid())});
    EXPECT_EQ(client.connection->processIdentifier(), service->pid());
    for (int i = 0; i < 20; ++i) client.keep();
    client.proxy().call<&Workshop::die>();
    for (int i = 0; i < 20; ++i) client.expect({interrupted});
    client.expect({"interrupted"});
    service.reset();
    if (round == 2) continue;
    ASSERT_EQ(startService(service, name), "serving");
  }
  client.identify();
  client.expect({"4099 The connection to service named " + name +
                     " was invalidated: failed at lookup with error 3 - No such process.",
                 "invalidated"});

  ASSERT_EQ(startService(service, name), "serving");
  std::optional<ChildProcess> rival;
  std::string lines = startService(rival, name);
  lines += " " + rival->readLine();
  EXPECT_TRUE(lines == "serving failed" || lines == "failed serving") << lines << ": the name is taken";

  XPCEndpoint endpoint;
  RemoteClient(name).proxy(true).call<&Workshop::branch>([&](const XPCEndpoint& its) { endpoint = its; });
  const RemoteClient branch(endpoint);
  branch.identify();
  branch.expect({"process " + std::to_string(service->pid())});
  branch.keep();
  branch.proxy().call<&Workshop::die>();
  const std::string text = "connection to anonymous listener with pid " + std::to_string(service->pid());
  branch.expect({"4097 " + text, "invalidated"});
  branch.identify(true);
  branch.expect({"4099 The " + text + " was invalidated."});
}

TEST(RemoteConnection, InvalidationComesLastAndOnceAndReleasesTheHandlers) {
  const Served served;
  const RemoteClient client(served.listener->endpoint());
  auto token = std::make_shared<int>();
  const std::weak_ptr<int> handlersLive = token;
  client.connection->setInterruptionHandler([token] {});
  client.connection->setInvalidationHandler([token, story = client.story] { story->put("last"); });
  token.reset();
  for (int i = 0; i < 50; ++i) client.keep();
  client.identify(true);
  client.expect({kSelf});
  client.connection->invalidate();
  client.connection->invalidate();
  const std::string here = "4099 The " + kEndpointText + " was invalidated from this process.";
  for (int i = 0; i < 50; ++i) client.expect({here});
  client.expect({"last"});
  client.identify();  // behind it, nothing but answers to new calls
  client.proxy().call<&Workshop::note>("x");
  client.expect({here, here});
  EXPECT_TRUE(handlersLive.expired());
  EXPECT_EQ(client.story->size(), 0U);
}

// A listener whose peers' "keep:" calls go to the inbox, as do their ends to the story.
std::shared_ptr<RemoteListener> keepingListener(const std::shared_ptr<Inbox<RemoteExport::Reply>>& kept,
                                                const std::shared_ptr<Story>& ended) {
  const auto listener = RemoteListener::anonymousListener();
  listener->setDelegate([=](const auto&, const std::shared_ptr<RemoteConnection>& connection) {
    connection->setExport(
        {workshopInterface(),
         {{"keep:", [kept](const Array&, const RemoteExport::Reply& reply) { kept->put(reply); }},
          {"identify:", [](const Array&, const RemoteExport::Reply& reply) { reply({::getpid()}); }},
          {"note:", [](const Array&, const RemoteExport::Reply&) {}}}});
    connection->setInvalidationHandler([ended] { ended->put("client gone"); });
    connection->resume();  // from now on it lives as long as its client
    return true;
  });
  listener->resume();
  return listener;
}

TEST(RemoteConnection, WithItsLastReferenceItEndsSilentlyBehindItsAnswers) {
  const auto served = std::make_shared<Inbox<RemoteExport::Reply>>();
  const auto ended = std::make_shared<Story>();
  const auto listener = keepingListener(served, ended);
  RemoteClient client(listener->endpoint());
  client.keep();
  const RemoteProxy proxy = client.proxy();
  client.connection = nullptr;
  proxy.call<&Workshop::keep>([] {});
  EXPECT_EQ(client.story->take()->substr(0, 4), "4099") << "a proxy does not keep it alive";
  (*served->take())({});
  EXPECT_EQ(ended->take(), "client gone");
  client.expect({"answered"});
  EXPECT_EQ(client.story->size(), 0U);

  {
    RemoteClient never(RemoteConnection::createWithListenerEndpoint(listener->endpoint()));
    client.story = never.story;
    never.identify();
  }
  EXPECT_EQ(client.story->take()->substr(0, 4), "4099") << "nobody can resume it any more";
}

// Every worker that concurrent queues may have waits in a call, and so does the connection's own queue.
TEST(RemoteConnection, ASynchronousCallNeedsNoWorker) {
  const auto kept = std::make_shared<Inbox<RemoteExport::Reply>>();
  const auto listener = keepingListener(kept, std::make_shared<Story>());
  const RemoteClient client(listener->endpoint());
  const std::size_t workers = WorkerPool::shared().boundedLimit();
  const auto returned = std::make_shared<Inbox<bool>>();
  const auto keepHere = [client, returned] {
    bool isAnswered = false;
    client.proxy(true).call<&Workshop::keep>([&] { isAnswered = true; });
    returned->put(isAnswered);
  };
  for (std::size_t i = 0; i < workers; ++i) Queue::global().async(keepHere);
  client.proxy().call<&Workshop::identify>([keepHere](std::int64_t) { keepHere(); });
  std::vector<RemoteExport::Reply> replies;
  while (replies.size() < workers + 1) replies.push_back(*kept->take());
  EXPECT_EQ(WorkerPool::shared().statistics().runningBounded, workers);
  client.proxy(true).call<&Workshop::note>("returns when it is sent");
  client.identify(true);
  EXPECT_EQ(client.story->size(), 1U) << "answered when the call returns";
  EXPECT_EQ(returned->size(), 0U);
  for (const RemoteExport::Reply& reply : replies) reply({});
  for (std::size_t i = 0; i <= workers; ++i) EXPECT_EQ(returned->take(), true);
}

TEST(RemoteListener, WhatItAdmitsMayWaitToBeResumedAndOutlivesIt) {
  constexpr std::size_t kMany = xpc::kMaximumUndecidedPeers + 10;
  const auto workshop = std::make_shared<Workshop>();
  const auto waiting = std::make_shared<Inbox<std::shared_ptr<RemoteConnection>>>();
  const auto listener = RemoteListener::anonymousListener();
  const auto released = std::make_shared<Inbox<bool>>();
  std::shared_ptr<void> token(nullptr, [released](void*) { released->put(true); });
  listener->setDelegate([waiting, token = std::move(token)](const auto&, const auto& connection) {
    waiting->put(connection);
    return true;
  });
  listener->resume();
  std::vector<RemoteClient> clients;
  for (std::size_t i = 0; i < kMany; ++i) clients.emplace_back(listener->endpoint()).identify();
  std::vector<std::shared_ptr<RemoteConnection>> accepted;
  while (accepted.size() < kMany) accepted.push_back(*waiting->take());
  listener->invalidate();
  EXPECT_TRUE(released->take()) << "the delegate";
  const RemoteClient late(RemoteConnection::createWithListenerEndpoint(listener->endpoint()));
  late.identifyFirst();
  late.expect({"4099 The connection to anonymous listener with pid 0 was invalidated.", "invalidated"});
  accepted.pop_back();  // one that nobody will resume
  const auto admit = admitTo(workshop);
  for (const auto& connection : accepted) admit(listener, connection);
  std::size_t refused = 0;
  for (const RemoteClient& client : clients) {
    const std::string first = client.story->take().value_or("(nothing)");
    refused += first.starts_with("4099");
    EXPECT_TRUE(first == kSelf || first.starts_with("4099")) << first;
  }
  EXPECT_EQ(refused, 1U);
  EXPECT_EQ(accepted.front()->processIdentifier(), ::getpid());
}

TEST(RemoteListener, RefusedIsRefused) {
  const std::string name = uniqueServiceName();
  const auto listener = RemoteListener::createWithMachServiceName(name, [] { FAIL() << "it is free"; });
  const auto refusals = std::make_shared<Story>();
  listener->setDelegate([refusals](const auto&, const std::shared_ptr<RemoteConnection>& connection) {
    connection->setInvalidationHandler([refusals] { refusals->put("invalidated"); });
    return false;
  });
  listener->resume();
  const RemoteClient client(RemoteConnection::createWithMachServiceName(name));
  client.identifyFirst();
  client.expect({"4097 connection to service named " + name, "interrupted"});
  EXPECT_EQ(refusals->take(), "invalidated");
  const auto undelegated = RemoteListener::anonymousListener();
  undelegated->resume();
  const RemoteClient other(RemoteConnection::createWithListenerEndpoint(undelegated->endpoint()));
  other.identifyFirst();
  EXPECT_EQ(other.story->take()->substr(0, 4), "4099");
}

}  // namespace
