#include "reputation/backends/QMRWispClient.hpp"

#include "reputation/backends/QMRWispInfectionInfoObjC.hpp"
#include "reputation/backends/wisp_configuration_keys.hpp"
#include "support/testing.hpp"

namespace {

URL url(const char* text) {
  return URL::create(text).value();
}
Value urlValue(const char* text) {
  return std::make_shared<const URLObject>(url(text));
}

// A call as the daemon got it.
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

// A record's fields as they were sent, and as the record that is made of them sends them on.
struct RecordCase {
  const RecordClass& its;
  Dictionary sent;
  Dictionary made;
};

std::vector<RecordCase> recordCases() {
  const Dictionary categories{{"spam", Dictionary{{"value", true}, {"source", "cloud"}, {"weight", 0.5}}}};
  const auto large = std::numeric_limits<std::int64_t>::min();  // the highest bit of an unsigned one
  Dictionary configuration{{"porterNamespace", -1}};
  for (const char* key :
       {"porterEnvironment", "porterUuid", "porterSha", "porterRegion", "productName", "productVersion"})
    configuration.emplace(key, key);
  for (const char* key : {"porterUrl", "wpcoreMacosPath", "sensorMacosPath", "sensorMacosDbPath",
                          "tallowClientMacosPath", "lintelMacosPath", "gantry2Path", "binPath"})
    configuration.emplace(key, urlValue(key));
  std::vector<RecordCase> cases;
  const auto unchanged = [&cases](const RecordClass& its, const Dictionary& fields) {
    cases.push_back({its, fields, fields});
  };
  unchanged(QMRWispQvsResponseObjC::codedClass(),
            fieldsOf("safetyVerdict", large, "ttl", large + 1, "safetyFinal", true, "prevalence", 255,
                     "detectionName", "Trojan", "categories", categories));
  unchanged(QMRWispCloudScanResponseObjC::codedClass(),
            fieldsOf("result", large, "ttl", large + 1, "infectionName", "", "categories", Dictionary(),
                     "prevalence", 255));
  unchanged(QMRWispFileScanParametersObjC::codedClass(),
            fieldsOf("maxNested", 255, "stopOnFirst", true, "onAccess", false, "skyvault", true, "detectPUA",
                     false, "quarantine", true, "priority", false));
  unchanged(QMRWispInfectionInfoObjC::codedClass(), fieldsOf("uri", urlValue("file:///x"), "engine", "yara",
                                                             "type", large, "infectionName", "Eicar"));
  unchanged(QMRWispScanCompleteSummaryObjC::codedClass(),
            fieldsOf("scannedCount", large, "errorCount", large + 1, "infectedCount", large + 2));
  unchanged(QMRWispConfigurationObjC::codedClass(), configuration);
  // Missing fields, one of a later version, more bits than the property has, the other form of an integer.
  cases.push_back({QMRWispInfectionInfoObjC::codedClass(), {}, fieldsOf("type", 0)});
  cases.push_back({QMRWispFileScanParametersObjC::codedClass(), fieldsOf("later", Data(), "maxNested", 0x1FE),
                   fieldsOf("maxNested", 0xFE, "stopOnFirst", false, "onAccess", false, "skyvault", false,
                            "detectPUA", false, "quarantine", false, "priority", false)});
  cases.push_back({QMRWispQvsResponseObjC::codedClass(),
                   fieldsOf("prevalence", 300, "ttl", std::uint64_t{1} << 63U),
                   fieldsOf("safetyVerdict", 0, "ttl", large, "safetyFinal", false, "prevalence", 44)});
  return cases;
}

// Sends records to a service that sends them back: null, or a record that was made of the fields twice.
class RecordEcho {
 public:
  explicit RecordEcho(const std::vector<RecordCase>& cases) {
    RemoteParameter record{.classes = {}, .hasOwnContents = true};
    for (const RecordCase& row : cases) record.classes.push_back({row.its.name, &row.its});
    const RemoteInterface interface("Echo", {{"echo:", {record}, {{record}}}});
    const RemoteExport exported(
        interface,
        {{"echo:", [](const Array& records, const RemoteExport::Reply& reply) { reply(records); }}});
    listener_->setDelegate([exported](const auto&, const auto& connection) {
      connection->setExport(exported);
      connection->resume();
      return true;
    });
    listener_->resume();
    connection_ = RemoteConnection::createWithListenerEndpoint(listener_->endpoint());
    connection_->setRemoteObjectInterface(interface);
    connection_->resume();
  }

  std::shared_ptr<const Record> operator()(const RecordClass& its, const Dictionary& fields) const {
    std::shared_ptr<const Record> echoed;
    connection_->synchronousRemoteObjectProxyWithErrorHandler(nullptr).invoke(
        "echo:", {forged(its.name, fields)}, [&echoed](const Array& records) {
          echoed = std::dynamic_pointer_cast<const Record>(*records.at(0).as<ObjectPtr>());
        });
    return echoed;
  }

 private:
  const std::shared_ptr<RemoteListener> listener_ = RemoteListener::anonymousListener();
  std::shared_ptr<RemoteConnection> connection_;
};

TEST(WispRecordsTest, EveryRecordKeepsItsKeysAndTakesNoOtherKindOfValueForThem) {
  const LogRecorder logs;
  const std::vector<RecordCase> cases = recordCases();
  const RecordEcho echo(cases);
  const Value kinds[] = {true, 1, 0.5, "text", Data(), Dictionary(), Array(), urlValue("x")};
  for (const RecordCase& row : cases) {
    SCOPED_TRACE(row.its.name);
    const std::shared_ptr<const Record> record = echo(row.its, row.sent);
    ASSERT_NE(record, nullptr);
    EXPECT_EQ(Value(record->fields()), Value(row.made));
    for (const auto& [key, value] : row.made) {
      for (const Value& other : kinds) {
        const bool isItsKind = other.storage().index() == value.storage().index();
        EXPECT_EQ(echo(row.its, {{key, other}}) != nullptr, isItsKind) << key << " = " << other.description();
      }
    }
  }
}

TEST(WispConfigurationTest, TheConstantsAreWhatOtherProgramsWriteAndRead) {
  const std::pair<std::string_view, std::string_view> constants[] = {
      {kQMRWispPorterKeyNamespace, "namespace"},
      {kQMRWispPorterKeyEnvironment, "environment"},
      {kQMRWispPorterKeyUrl, "url"},
      {kQMRWispPorterKeyRegion, "region"},
      {kQMRWispPorterKeyUuid, "uuid"},
      {kQMRWispPorterKeyPassword, "password"},
      {kQMRWispPorterEnvironmentProduction, "prod"},
      {kQMRWispPorterEnvironmentStaging, "stg"},
      {kQMRWispPorterEnvironmentCI, "ci"},
      {kQMRWispProductInfoKeyMode, "mode"},
      {kQMRWispProductInfoKeyVersion, "version"},
      {kQMRWispProductInfoKeyReleaseStage, "release_stage"},
      {kQMRWispProductInfoKeyReleaseGroup, "release_group"},
      {kQMRWispProductModeOrchard, "edr"},
      {kQMRWispProductModeMDR, "mdr"},
      {kQMRWispProductReleaseStageCI, "ci"},
      {kQMRWispProductReleaseStageBeta, "beta"},
      {kQMRWispProductReleaseStageProd, "production"}};
  for (const auto& [constant, text] : constants) EXPECT_EQ(constant, text);
}

// One of the client's calls: how it is made, what reaches the daemon, what that answers.
struct ClientCall {
  std::string selector;
  Array arguments;
  Array reply;
  std::function<void(QMRWispClient& client)> start;
  std::string logged{};  // at level debug

  bool answersFailures() const { return selector.find("Sync:") != std::string::npos; }
};

class WispClientTest : public testing::Test {
 protected:
  // A client whose asynchronous errors come to the inbox.
  template <class... Endpoint>
  std::shared_ptr<QMRWispClient> makeClient(Endpoint... endpoint) {
    return std::make_shared<QMRWispClient>(endpoint...,
                                           [errors = errors](const ErrorPtr& error) { errors->put(error); });
  }
  // A callback that puts its arguments into one inbox when it is called, and itself into another when it is
  // released.
  template <class... Arguments>
  auto keep() {
    return [kept = replies, token = std::shared_ptr<void>(nullptr, [gone = released](void*) {
                              gone->put(true);
                            })](const Arguments&... arguments) { kept->put({Value(arguments)...}); };
  }
  std::vector<ClientCall> calls();
  // What a call that failed came to.
  Value nextError() { return errors->take().value_or(nullptr); }
  static RemoteErrorCode codeOf(const Value& error) {
    const auto* its = error.as<ErrorPtr>();
    return static_cast<RemoteErrorCode>(its == nullptr ? 0 : (*its)->code());
  }

  const LogRecorder logs;
  RawDaemon daemon{wispInterface(), selectorsOf(RemoteProtocol<QMRWispProtocol>::Methods())};
  const std::shared_ptr<Inbox<ErrorPtr>> errors = std::make_shared<Inbox<ErrorPtr>>();
  const std::shared_ptr<Inbox<Array>> replies = std::make_shared<Inbox<Array>>();
  const std::shared_ptr<Inbox<bool>> released = std::make_shared<Inbox<bool>>();
};

std::vector<ClientCall> WispClientTest::calls() {
  using Client = QMRWispClient;
  const URL link = url("http://h/");
  const Value linkValue = urlValue("http://h/"), failure = makeError("daemon", 7), success;
  const Dictionary metadata{{"file_size", 12}, {"file_info", Dictionary{{"a", Data("b", 1)}}}};
  const Dictionary setting{{"list", linkValue}};
  const auto key = std::numeric_limits<std::int64_t>::min();
  const auto channel = std::numeric_limits<std::uint64_t>::max();
  const auto configuration = std::make_shared<const QMRWispConfigurationObjC>();
  const ObjectPtr qvs = std::make_shared<const QMRWispQvsResponseObjC>();
  const ObjectPtr cloud = std::make_shared<const QMRWispCloudScanResponseObjC>();
  return {
      {"qvsScan:withTimeout:withCallback:",
       {linkValue, UINT32_MAX},
       {qvs, success},
       [=, this](Client& client) { client.qvsScan(link, UINT32_MAX, keep<ObjectPtr, ErrorPtr>()); }},
      {"cloudScan:withMetadata:withTimeout:withCallback:",
       {linkValue, metadata, 30U},
       {cloud, success},
       [=, this](Client& client) { client.cloudScan(link, metadata, 30, keep<ObjectPtr, ErrorPtr>()); }},
      {"getConfiguration:",
       {},
       {configuration},
       [=, this](Client& client) { client.getConfiguration(keep<ObjectPtr>()); },
       "will get configuration"},
      {"setConfiguration:withCallback:",
       {configuration},
       {failure},
       [=, this](Client& client) { client.setConfiguration(configuration, keep<ErrorPtr>()); },
       "will try set configuration with " + configuration->description()},
      {"clearCache:", {}, {success}, [=, this](Client& client) { client.clearCache(keep<ErrorPtr>()); }},
      {"clearCache:",
       {},
       {failure},
       [=, this](Client& client) {
         client.synchronousProxy().call<&QMRWispProtocol::clearCache>(keep<ErrorPtr>());
       }},
      {"getSettingValue:withResponse:",
       {key},
       {linkValue, success},
       [=, this](Client& client) { client.getSettingValue(key, keep<Value, ErrorPtr>()); }},
      {"getSettingValueSync:withResponse:",
       {key},
       {setting, failure},
       [=, this](Client& client) { client.getSettingValueSync(key, keep<Value, ErrorPtr>()); }},
      {"setSettingValue:forKey:withCallback:",
       {setting, key},
       {failure},
       [=, this](Client& client) { client.setSettingValue(setting, key, keep<ErrorPtr>()); }},
      {"notifyChannelUpdate:withPath:withCallback:",
       {channel, linkValue},
       {success},
       [=, this](Client& client) { client.notifyChannelUpdate(channel, link, keep<ErrorPtr>()); }},
      {"notifyChannelUpdateSync:withPath:withCallback:",
       {channel, linkValue},
       {failure},
       [=, this](Client& client) { client.notifyChannelUpdateSync(channel, link, keep<ErrorPtr>()); }},
  };
}

TEST_F(WispClientTest, EachCallReachesTheDaemonAndItsAnswerTheCaller) {
  const auto client = makeClient(daemon.endpoint());
  for (const ClientCall& its : calls()) {
    SCOPED_TRACE(its.selector);
    auto starting = std::async(std::launch::async, its.start, std::ref(*client));
    const Call call = daemon.next();
    EXPECT_EQ(call.selector, its.selector);
    EXPECT_EQ(call.arguments, its.arguments);
    call.reply(its.reply);
    starting.get();
    EXPECT_GE(replies->size(), its.answersFailures() ? 1U : 0U) << "not yet answered";
    EXPECT_EQ(replies->take(), its.reply);
    EXPECT_TRUE(its.logged.empty() || logs.has(LogLevel::debug, its.logged));
  }
  EXPECT_EQ(errors->size(), 0U);
}

TEST_F(WispClientTest, AFileScanIsAnsweredWithoutTheDaemon) {
  const auto client = makeClient(daemon.endpoint());
  client->fileScan({"/x"}, 1, std::make_shared<const QMRWispFileScanParametersObjC>(), 60,
                   keep<ObjectPtr, ErrorPtr>());
  EXPECT_EQ(replies->size(), 1U) << "not yet answered";
  EXPECT_EQ(replies->take(), (Array{std::make_shared<const QMRWispScanCompleteSummaryObjC>(),
                                    makeError("com.quillmarsh.qmr-wisp-client.error", 3328)}));
  client->fileScan({}, 0, nullptr, 0, nullptr);
  EXPECT_FALSE(client->isConnected());
}

TEST_F(WispClientTest, AFailureIsAnErrorOfTheClientOrOfTheSynchronousCall) {
  struct Failure {
    const char* what;
    std::shared_ptr<QMRWispClient> client;
    std::function<void(const Call& call, Array reply)> answer;  // null: there is no daemon
    RemoteErrorCode code;
  };
  const auto absent = makeClient();
  EXPECT_EQ(absent->xpcMachServiceName(), "com.quillmarsh.wisp.qmwpcored");
  const Failure failures[] = {
      {"no daemon", absent, nullptr, RemoteErrorCode::invalid},
      {"dropped", makeClient(daemon.endpoint()), [](const auto&...) {}, RemoteErrorCode::interrupted},
      {"of a foreign class", makeClient(daemon.endpoint()),
       [](const Call& call, Array reply) {
         reply.back() = forged("Foreign", {});
         call.reply(reply);
       },
       RemoteErrorCode::replyInvalid}};
  for (const Failure& failure : failures) {
    for (const ClientCall& its : calls()) {
      SCOPED_TRACE(its.selector + " " + failure.what);
      auto starting = std::async(std::launch::async, its.start, std::ref(*failure.client));
      if (failure.answer) failure.answer(daemon.next(), its.reply);
      starting.get();
      released->take();
      const Array answer = its.answersFailures() ? *replies->take() : Array{nextError()};
      EXPECT_EQ(codeOf(answer.back()), failure.code);
      EXPECT_TRUE(answer.size() == 1 || answer.front().isNull());
      EXPECT_TRUE(logs.has(LogLevel::error, "XPC error: " + answer.back().description()));
      EXPECT_EQ(errors->size() + replies->size(), 0U) << "said twice";
    }
  }
  for (const LogLine& line : logs.lines())
    EXPECT_EQ(line.category == "QMRWispClient" && line.level == LogLevel::error,
              line.message.starts_with("XPC error: "));
}

TEST_F(WispClientTest, AClientThatIsShutDownAnswersSynchronousCallsAndReleasesOthers) {
  const auto client = makeClient();
  client->shutdown();
  for (const ClientCall& its : calls()) {
    SCOPED_TRACE(its.selector);
    its.start(*client);
    released->take();
    ASSERT_EQ(replies->size(), its.answersFailures() ? 1U : 0U);
    if (!its.answersFailures()) continue;
    EXPECT_EQ(codeOf(replies->take()->back()), RemoteErrorCode::invalid);
  }
  client->getSettingValueSync(1, nullptr);
  client->notifyChannelUpdateSync(1, url("file:///u"), nullptr);
  EXPECT_EQ(errors->size(), 0U);
}

TEST_F(WispClientTest, CategoriesHoldDictionariesTextsAndNumbersOnly) {
  const auto client = makeClient(daemon.endpoint());
  for (const Value& foreign :
       {Value(Data()), Value(Array{true}), Value(), urlValue("http://h/"), Value(Date()), Value(UUID())}) {
    SCOPED_TRACE(foreign.description());
    const Dictionary fields{{"categories", Dictionary{{"a", Dictionary{{"value", foreign}}}}}};
    client->qvsScan(url("data://11"), 5, keep<ObjectPtr, ErrorPtr>());
    daemon.next().reply({forged("QMRWispQvsResponseObjC", fields), Value()});
    EXPECT_EQ(codeOf(nextError()), RemoteErrorCode::replyInvalid);
    client->cloudScan(url("file:///x"), {}, 5, keep<ObjectPtr, ErrorPtr>());
    daemon.next().reply({forged("QMRWispCloudScanResponseObjC", fields), Value()});
    EXPECT_EQ(codeOf(nextError()), RemoteErrorCode::replyInvalid);
  }
  EXPECT_EQ(replies->size(), 0U);
}

TEST_F(WispClientTest, SettingValuesAreDictionariesNumbersTextsAndURLsOnly) {
  const auto client = makeClient(daemon.endpoint());
  const auto get = [&](const Value& value, bool isSynchronous) {
    auto starting = std::async(std::launch::async, [&] {
      isSynchronous ? client->getSettingValueSync(1, keep<Value, ErrorPtr>())
                    : client->getSettingValue(1, keep<Value, ErrorPtr>());
    });
    daemon.next().reply({value, Value()});
  };
  const Value link = urlValue("http://h/");
  const Value allowed[] = {Value(), "text", 5, 0.5, true, link, Dictionary{{"d", Dictionary{{"l", link}}}}};
  for (const Value& value : allowed) {
    SCOPED_TRACE(value.description());
    for (const bool isSynchronous : {true, false}) {
      get(value, isSynchronous);
      EXPECT_EQ(replies->take(), (Array{value, Value()}));
    }
    client->setSettingValue(value, 1, nullptr);
    const Call set = daemon.next();
    EXPECT_EQ(set.arguments, (Array{value, 1}));
    set.reply({Value()});
  }
  const Value foreign[] = {Data(), Array{1}, Date(), Dictionary{{"d", Data()}},
                           forged("QMRWispConfigurationObjC", {})};
  for (const Value& value : foreign) {
    SCOPED_TRACE(value.description());
    get(value, true);
    EXPECT_EQ(codeOf(replies->take()->back()), RemoteErrorCode::replyInvalid);
    get(value, false);
    EXPECT_EQ(codeOf(nextError()), RemoteErrorCode::replyInvalid);
    client->setSettingValue(value, 1, nullptr);
    EXPECT_EQ(codeOf(nextError()), RemoteErrorCode::interrupted);
  }
  EXPECT_EQ(daemon.pendingCalls() + replies->size(), 0U);
}

}  // namespace
