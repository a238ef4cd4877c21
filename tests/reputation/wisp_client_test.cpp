#include "reputation/backends/QMRWispClient.hpp"

#include "reputation/backends/QMRWispInfectionInfoObjC.hpp"
#include "support/testing.hpp"

namespace {

URL url(const char* text) {
  return URL::create(text).value();
}
Value urlValue(const char* text) {
  return std::make_shared<const URLObject>(url(text));
}

struct Call {
  std::string selector;
  Array arguments;
  RemoteExport::Reply reply;
};

// Stands in for the daemon below its types: it hands out the calls as they came and may answer anything.
class RawDaemon {
 public:
  RawDaemon(const RemoteInterface& interface, const std::vector<std::string>& selectors) {
    std::map<std::string, RemoteExport::Handler, std::less<>> handlers;
    for (const std::string& selector : selectors)
      handlers.emplace(selector, [calls = calls_, selector](const Array& arguments, const auto& reply) {
        calls->put({selector, arguments, reply});
      });
    listener_->setDelegate(
        [exported = RemoteExport(interface, std::move(handlers))](const auto&, const auto& connection) {
          connection->setExport(exported);
          connection->resume();
          return true;
        });
    listener_->resume();
  }
  XPCEndpoint endpoint() const { return listener_->endpoint(); }
  std::size_t pendingCalls() const { return calls_->size(); }
  Call next() { return calls_->take().value_or(Call{}); }

 private:
  const std::shared_ptr<Inbox<Call>> calls_ = std::make_shared<Inbox<Call>>();
  const std::shared_ptr<RemoteListener> listener_ = RemoteListener::anonymousListener();
};

template <class... Methods>
std::vector<std::string> selectorsOf(RemoteMethods<Methods...>) {
  return {std::string(Methods::selector)...};
}

RemoteInterface wispInterface() {
  RemoteInterface interface = remoteInterface<QMRWispProtocol>();
  allowWispSettingValues(interface);
  return interface;
}

// A record of any class name and content, as a broken or hostile daemon could send it.
class ForgedRecord final : public Record {
 public:
  ForgedRecord(std::string name, Dictionary fields)
      : class_{.name = std::move(name), .fields = {}, .make = nullptr}, fields_(std::move(fields)) {}
  const RecordClass& recordClass() const override { return class_; }
  Dictionary fields() const override { return fields_; }

 private:
  const RecordClass class_;
  const Dictionary fields_;
};

ObjectPtr forged(std::string_view className, Dictionary fields) {
  return std::make_shared<const ForgedRecord>(std::string(className), std::move(fields));
}

Dictionary fieldsOf() {
  return {};
}
template <class... Rest>
Dictionary fieldsOf(const char* key, const Value& value, const Rest&... rest) {
  Dictionary fields = fieldsOf(rest...);
  fields.emplace(key, value);
  return fields;
}

TEST(WispRecordsTest, EveryRecordKeepsItsKeysOnTheWay) {
  const Dictionary categories{{"spam", Dictionary{{"value", true}, {"source", "cloud"}, {"weight", 0.5}}}};
  const auto large = std::numeric_limits<std::int64_t>::min();
  Dictionary configuration{{"porterNamespace", -1}};
  for (const char* key :
       {"porterEnvironment", "porterUuid", "porterSha", "porterRegion", "productName", "productVersion"})
    configuration.emplace(key, key);
  for (const char* key : {"porterUrl", "wpcoreMacosPath", "sensorMacosPath", "sensorMacosDbPath",
                          "tallowClientMacosPath", "lintelMacosPath", "gantry2Path", "binPath"})
    configuration.emplace(key, urlValue(key));
  const std::pair<const RecordClass&, Dictionary> cases[] = {
      {QMRWispQvsResponseObjC::codedClass(),
       fieldsOf("safetyVerdict", 4, "ttl", large, "safetyFinal", true, "prevalence", 255, "detectionName",
                "Trojan", "categories", categories)},
      {QMRWispCloudScanResponseObjC::codedClass(),
       fieldsOf("result", 5, "ttl", 60, "infectionName", "", "categories", Dictionary(), "prevalence", 7)},
      {QMRWispFileScanParametersObjC::codedClass(),
       fieldsOf("maxNested", 200, "stopOnFirst", true, "onAccess", false, "skyvault", true, "detectPUA",
                false, "quarantine", true, "priority", false)},
      {QMRWispInfectionInfoObjC::codedClass(),
       fieldsOf("uri", urlValue("file:///x"), "engine", "yara", "type", 3, "infectionName", "Eicar")},
      {QMRWispScanCompleteSummaryObjC::codedClass(),
       fieldsOf("scannedCount", 3, "errorCount", 2, "infectedCount", 1)},
      {QMRWispConfigurationObjC::codedClass(), configuration},
      {QMRWispConfigurationObjC::codedClass(), fieldsOf("porterNamespace", 0)},
  };
  CodedClasses classes;
  for (const auto& [its, fields] : cases) classes.push_back({its.name, &its});
  const std::vector<RemoteParameter> parameters{{.classes = classes, .hasOwnContents = true}};
  const RemoteInterface interface("Echo",
                                  {{.selector = "echo:", .arguments = parameters, .reply = parameters}});
  RawDaemon daemon(interface, {"echo:"});
  const auto connection = RemoteConnection::createWithListenerEndpoint(daemon.endpoint());
  connection->setRemoteObjectInterface(interface);
  connection->resume();
  const auto replies = std::make_shared<Inbox<Array>>();
  for (const auto& [its, fields] : cases) {
    SCOPED_TRACE(its.name);
    connection->remoteObjectProxyWithErrorHandler(nullptr).invoke(
        "echo:", {forged(its.name, fields)}, [replies](const Array& values) { replies->put(values); });
    const Call call = daemon.next();
    ASSERT_EQ(call.arguments.size(), 1U);
    const auto made = std::dynamic_pointer_cast<const Record>(*call.arguments[0].as<ObjectPtr>());
    EXPECT_EQ(Value(made->fields()), Value(fields));
    call.reply(call.arguments);
    EXPECT_EQ(replies->take(), call.arguments);
  }
}

class WispClientTest : public testing::Test {
 protected:
  // A client whose asynchronous errors come to the inbox.
  template <class... Endpoint>
  std::shared_ptr<QMRWispClient> makeClient(Endpoint... endpoint) {
    return std::make_shared<QMRWispClient>(endpoint...,
                                           [errors = errors](const ErrorPtr& error) { errors->put(error); });
  }

  RawDaemon daemon{wispInterface(), selectorsOf(RemoteProtocol<QMRWispProtocol>::Methods())};
  const std::shared_ptr<Inbox<ErrorPtr>> errors = std::make_shared<Inbox<ErrorPtr>>();
  const std::shared_ptr<Inbox<Array>> replies = std::make_shared<Inbox<Array>>();
  // Callbacks of the calls, which put their arguments into the inbox.
  template <class... Arguments>
  auto keep() {
    return [kept = replies](const Arguments&... arguments) { kept->put({Value(arguments)...}); };
  }
};

TEST_F(WispClientTest, EachCallReachesTheDaemonAndItsAnswerTheCaller) {
  const auto client = makeClient(daemon.endpoint());
  const auto check = [this](const std::string& selector, const Array& arguments, const Array& reply,
                            const std::function<void()>& start) {
    SCOPED_TRACE(selector);
    auto starting = std::async(std::launch::async, start);
    const Call call = daemon.next();
    EXPECT_EQ(call.selector, selector);
    EXPECT_EQ(call.arguments, arguments);
    call.reply(reply);
    starting.get();
    EXPECT_GE(replies->size(), selector.find("Sync:") == std::string::npos ? 0U : 1U) << "not yet answered";
    EXPECT_EQ(replies->take(), reply);
  };
  const URL link = url("http://h/");
  const Value linkValue = urlValue("http://h/"), failure = makeError("daemon", 7), success;
  const Dictionary metadata{{"file_size", 12}, {"file_info", Dictionary{{"a", Data("b", 1)}}}};
  const Dictionary setting{{"list", linkValue}};
  const auto configuration = std::make_shared<const QMRWispConfigurationObjC>();
  const ObjectPtr qvs = std::make_shared<const QMRWispQvsResponseObjC>();
  const ObjectPtr cloud = std::make_shared<const QMRWispCloudScanResponseObjC>();
  const auto keepError = keep<ErrorPtr>();
  const auto keepValue = keep<Value, ErrorPtr>();
  const auto keepResponse = keep<ObjectPtr, ErrorPtr>();

  check("qvsScan:withTimeout:withCallback:", {linkValue, 5U}, {qvs, success},
        [&] { client->qvsScan(link, 5, keepResponse); });
  check("cloudScan:withMetadata:withTimeout:withCallback:", {linkValue, metadata, 30U}, {cloud, success},
        [&] { client->cloudScan(link, metadata, 30, keepResponse); });
  check("getConfiguration:", {}, {configuration},
        [&] { client->getConfiguration(keep<decltype(configuration)>()); });
  check("setConfiguration:withCallback:", {configuration}, {failure},
        [&] { client->setConfiguration(configuration, keepError); });
  check("clearCache:", {}, {success}, [&] { client->clearCache(keepError); });
  check("getSettingValue:withResponse:", {-3}, {linkValue, success},
        [&] { client->getSettingValue(-3, keepValue); });
  check("getSettingValueSync:withResponse:", {-3}, {setting, failure},
        [&] { client->getSettingValueSync(-3, keepValue); });
  check("setSettingValue:forKey:withCallback:", {setting, 4}, {failure},
        [&] { client->setSettingValue(setting, 4, keepError); });
  check("notifyChannelUpdate:withPath:withCallback:", {9U, linkValue}, {success},
        [&] { client->notifyChannelUpdate(9, link, keepError); });
  check("notifyChannelUpdateSync:withPath:withCallback:", {9U, linkValue}, {failure},
        [&] { client->notifyChannelUpdateSync(9, link, keepError); });
  EXPECT_EQ(errors->size(), 0U);

  client->fileScan({"/x"}, 1, std::make_shared<const QMRWispFileScanParametersObjC>(), 60, keepResponse);
  EXPECT_EQ(replies->take(), (Array{std::make_shared<const QMRWispScanCompleteSummaryObjC>(),
                                    makeError("com.quillmarsh.qmr-wisp-client.error", 3328)}));
  EXPECT_EQ(daemon.pendingCalls(), 0U) << "a file scan is answered without the daemon";
  const auto idle = makeClient(daemon.endpoint());
  idle->fileScan({}, 0, nullptr, 0, nullptr);
  EXPECT_FALSE(idle->isConnected());
}

TEST_F(WispClientTest, AnswersWithForeignContentAreRefused) {
  const auto client = makeClient(daemon.endpoint());
  const auto ask = [&](const Dictionary& fields) {
    client->qvsScan(url("data://11"), 5, keep<ObjectPtr, ErrorPtr>());
    daemon.next().reply({forged("QMRWispQvsResponseObjC", fields), Value()});
  };
  // Values of categories of a foreign class, and fields of another than their own.
  const Dictionary foreign[] = {fieldsOf("categories", Dictionary{{"a", Dictionary{{"value", Data()}}}}),
                                fieldsOf("categories", Dictionary{{"a", Array{true}}}),
                                fieldsOf("categories", Dictionary{{"a", Value()}}),
                                fieldsOf("categories", Dictionary{{"a", urlValue("http://h/")}}),
                                fieldsOf("categories", "spam"),
                                fieldsOf("detectionName", 1),
                                fieldsOf("ttl", "60"),
                                fieldsOf("safetyFinal", 1)};
  for (const Dictionary& fields : foreign) {
    ask(fields);
    const ErrorPtr error = errors->take().value_or(nullptr);
    ASSERT_NE(error, nullptr);
    EXPECT_EQ(error->code(), static_cast<std::int64_t>(RemoteErrorCode::replyInvalid));
  }
  EXPECT_EQ(replies->size(), 0U);
  // A field of a later version, more bits than the property has, the other form of an integer.
  ask(fieldsOf("later", Data(), "prevalence", 300, "ttl", std::uint64_t{1} << 63U));
  const Array reply = replies->take().value();
  const auto response = std::dynamic_pointer_cast<const QMRWispQvsResponseObjC>(*reply.at(0).as<ObjectPtr>());
  ASSERT_NE(response, nullptr);
  EXPECT_EQ(response->prevalence, 300 - 256);
  EXPECT_EQ(response->ttl, std::uint64_t{1} << 63U);
  EXPECT_EQ(response->categories, std::nullopt);
}

TEST_F(WispClientTest, ADaemonThatCannotBeReachedIsAnErrorOfTheClientOrOfTheSynchronousCall) {
  const LogRecorder logs;
  const auto invalid = static_cast<std::int64_t>(RemoteErrorCode::invalid);
  const auto client = makeClient();
  EXPECT_EQ(client->xpcMachServiceName(), "com.quillmarsh.wisp.qmwpcored");
  for (const auto& call : std::vector<std::function<void()>>{
           [&] { client->qvsScan(url("data://11"), 5, keep<ObjectPtr, ErrorPtr>()); },
           [&] { client->setSettingValue(1, 2, keep<ErrorPtr>()); }}) {
    call();
    const ErrorPtr error = errors->take().value_or(nullptr);
    ASSERT_NE(error, nullptr);
    EXPECT_EQ(error->code(), invalid);
    EXPECT_TRUE(logs.has(LogLevel::error, "XPC error: " + error->description()));
  }
  EXPECT_EQ(replies->size(), 0U);

  const auto unused = makeClient();
  unused->shutdown();
  for (const auto& synchronous : {client, unused}) {
    synchronous->getSettingValueSync(1, keep<Value, ErrorPtr>());
    synchronous->notifyChannelUpdateSync(1, url("file:///u"), keep<ErrorPtr>());
    ASSERT_EQ(replies->size(), 2U);
    const Array value = *replies->take();
    EXPECT_TRUE(value[0].isNull());
    EXPECT_EQ((*value[1].as<ErrorPtr>())->code(), invalid);
    EXPECT_EQ((*replies->take()->at(0).as<ErrorPtr>())->code(), invalid);
  }
  EXPECT_EQ(errors->size(), 0U) << "a synchronous call answers its caller alone";
}

}  // namespace
