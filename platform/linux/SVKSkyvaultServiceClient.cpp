#include "platform/linux/SVKSkyvaultServiceClient.hpp"

#include <fcntl.h>

#include <cerrno>
#include <mutex>
#include <optional>
#include <utility>

#include "foundation/log.hpp"
#include "foundation/object_description.hpp"
#include "platform/file_descriptor.hpp"
#include "platform/file_io.hpp"
#include "platform/linux/skyvault_wire.hpp"
#include "platform/system_root.hpp"

using qm::XPCArray;
using qm::XPCConnection;
using qm::XPCDictionary;
using qm::XPCObject;
using qm::XPCType;
using qm::skyvault::ErrorCode;

namespace {

qm::Log& log() {
  static qm::Log& log = qm::Log::create(qm::kQMRLogSubsystem, "SVKSkyvaultServiceClient");
  return log;
}

qm::ErrorPtr makeError(ErrorCode code, std::string text) {
  return qm::makeError(qm::skyvault::kErrorDomain, static_cast<std::int64_t>(code),
                       {{qm::kLocalizedDescriptionKey, std::move(text)}});
}

qm::ErrorPtr malformed(const std::string& key) {
  return makeError(ErrorCode::malformedResponse, "The Skyvault agent's answer has no valid “" + key + "”.");
}

// The value under the key when it is there with this type.
XPCObject typed(const XPCDictionary& dictionary, const char* key, XPCType type) {
  const XPCObject value = dictionary.value(key);
  return value && value.type() == type ? value : XPCObject();
}

// False when there is something else than categories.
bool readCategories(const XPCDictionary& reply, std::vector<SVKSkyvaultCategory>& categories) {
  const XPCObject value = reply.value(qm::skyvault::kCategoriesKey);
  if (!value) return true;
  if (value.type() != XPCType::array) return false;
  const XPCArray array = value.asArray();
  for (std::size_t i = 0; i < array.count(); ++i) {
    const XPCObject member = array.value(i);
    if (!member || member.type() != XPCType::dictionary) return false;
    const XPCObject name = typed(member.asDictionary(), qm::skyvault::kCategoryNameKey, XPCType::string);
    const XPCObject flag = typed(member.asDictionary(), qm::skyvault::kCategoryValueKey, XPCType::boolean);
    if (!name || !flag) return false;
    categories.push_back({*name.stringValue(), flag.boolValue()});
  }
  return true;
}

// A response, or an error.
std::shared_ptr<const SVKSkyvaultResponse> readResponse(const XPCDictionary& reply, qm::ErrorPtr& error) {
  using namespace qm::skyvault;
  const XPCObject verdict = typed(reply, kVerdictKey, XPCType::string);
  const XPCObject options = typed(reply, kOptionsKey, XPCType::uint64);
  const XPCObject ttl = typed(reply, kTTLKey, XPCType::uint64);
  const XPCObject prevalence = typed(reply, kPrevalenceKey, XPCType::int64);
  const XPCObject infectionName = reply.value(kInfectionNameKey);
  auto response = std::make_shared<SVKSkyvaultResponse>();
  const char* wrong = !verdict                                                   ? kVerdictKey
                      : !options                                                 ? kOptionsKey
                      : !ttl                                                     ? kTTLKey
                      : !prevalence                                              ? kPrevalenceKey
                      : infectionName && infectionName.type() != XPCType::string ? kInfectionNameKey
                      : !readCategories(reply, response->categories)             ? kCategoriesKey
                                                                                 : nullptr;
  if (wrong != nullptr) {
    error = malformed(wrong);
    return nullptr;
  }
  response->safetyVerdict.value = *verdict.stringValue();
  if (infectionName) response->safetyVerdict.infectionName = *infectionName.stringValue();
  response->options = options.uint64Value();
  response->ttl = ttl.uint64Value();
  response->prevalence = prevalence.int64Value();
  return response;
}

qm::ErrorPtr errorFromAgent(const XPCDictionary& reply, const XPCObject& code) {
  if (code.type() != XPCType::int64) return malformed(qm::skyvault::kErrorCodeKey);
  return makeError(
      static_cast<ErrorCode>(code.int64Value()),
      reply.getString(qm::skyvault::kErrorTextKey).value_or("The Skyvault agent reports an error."));
}

qm::ErrorPtr timedOut(std::chrono::milliseconds timeout) {
  return makeError(ErrorCode::timedOut,
                   "The Skyvault agent did not answer within " + std::to_string(timeout.count()) + " ms.");
}

// The error that goes with the transport's.
qm::ErrorPtr errorFromTransport(const XPCObject& error, std::chrono::milliseconds timeout) {
  if (error == qm::xpcErrorReplyTimedOut()) return timedOut(timeout);
  if (error == qm::xpcErrorMessageRefused())
    return makeError(ErrorCode::requestTooLarge,
                     "The request holds more than a message to the Skyvault agent may; it was not sent.");
  return makeError(ErrorCode::connectionLost, "The connection to the Skyvault agent was lost.");
}

// What the transport gave the reply handler, as a response or an error.
std::shared_ptr<const SVKSkyvaultResponse> responseFromReply(const XPCObject& reply,
                                                             std::chrono::milliseconds timeout,
                                                             qm::ErrorPtr& error) {
  if (reply && reply.type() == XPCType::dictionary) {
    const XPCDictionary dictionary = reply.asDictionary();
    const XPCObject code = dictionary.value(qm::skyvault::kErrorCodeKey);
    if (!code) return readResponse(dictionary, error);
    error = errorFromAgent(dictionary, code);
    return nullptr;
  }
  error = errorFromTransport(reply, timeout);
  return nullptr;
}

XPCDictionary makeRequest(const char* kind) {
  XPCDictionary request = XPCDictionary::create();
  request.setString(qm::skyvault::kRequestKey, kind);
  return request;
}

}  // namespace

// The connection in use, replaced when it came to its end. After an interruption the same one reaches the
// next agent.
class SVKSkyvaultServiceClient::Connection : public std::enable_shared_from_this<Connection> {
 public:
  explicit Connection(ConnectionMaker make) : make_(std::move(make)) {}

  XPCConnection current() {
    const std::lock_guard lock(mutex_);
    if (current_) return current_;
    current_ = make_();
    // The agent sends nothing by itself: all events are the connection's.
    current_.setEventHandler([weak = weak_from_this(), mine = current_](const XPCObject& event) {
      QM_LOG_DEBUG(log(), "Event on the agent's connection: %{public}@", event);
      const std::shared_ptr<Connection> self = weak.lock();
      if (self != nullptr && event == qm::xpcErrorConnectionInvalid()) self->forget(mine);
    });
    current_.activate();
    return current_;
  }

  // Makes the next call make a new connection, unless it has one already.
  void forget(const XPCConnection& ended) {
    const std::lock_guard lock(mutex_);
    if (current_ == ended) current_ = {};
  }

  void cancel() {
    const std::lock_guard lock(mutex_);
    if (current_) current_.cancel();
  }

 private:
  const ConnectionMaker make_;
  std::mutex mutex_;
  XPCConnection current_;
};

std::shared_ptr<SVKSkyvaultServiceClientProtocol> qm::createSkyvaultServiceClient(
    const std::string& machServiceName, const std::string& agentProgram) {
  const std::string program = hostPath(agentProgram);
  if (!fileExists(program.c_str())) {
    QM_LOG_ERROR(log(), "The Skyvault agent is not installed: there is no %{public}s", program);
    return nullptr;
  }
  return std::make_shared<SVKSkyvaultServiceClient>(
      [machServiceName] { return XPCConnection::createClient(machServiceName); });
}

SVKSkyvaultServiceClient::SVKSkyvaultServiceClient(ConnectionMaker makeConnection)
    : queue_(qm::Queue::concurrent("com.quillmarsh.SVKSkyvaultServiceClient")),
      connection_(std::make_shared<Connection>(std::move(makeConnection))) {}

SVKSkyvaultServiceClient::~SVKSkyvaultServiceClient() {
  connection_->cancel();
}

void SVKSkyvaultServiceClient::queryReputationForFileHash(const std::string& sha256Hex,
                                                          std::chrono::milliseconds timeout,
                                                          Completion completion) {
  XPCDictionary request = makeRequest(qm::skyvault::kRequestHash);
  request.setString(qm::skyvault::kSHA256Key, sha256Hex);
  send(request, timeout, std::move(completion));
}

void SVKSkyvaultServiceClient::analyzeMetadata(const qm::Dictionary& metadata,
                                               std::chrono::milliseconds timeout, Completion completion) {
  XPCDictionary request = makeRequest(qm::skyvault::kRequestMetadata);
  request.setValue(qm::skyvault::kMetadataKey, qm::xpcObjectFromValue(metadata));
  send(request, timeout, std::move(completion));
}

void SVKSkyvaultServiceClient::analyzeFileHandle(std::shared_ptr<qm::FileHandle> fileHandle,
                                                 const qm::Dictionary& metadata,
                                                 std::chrono::milliseconds timeout, Completion completion) {
  const auto fail = [&](const std::string& text) {
    queue_.async(
        [completion, error = makeError(ErrorCode::unreadableSample, text)] { completion(nullptr, error); });
  };
  if (fileHandle == nullptr) return fail("The sample is not open.");
  qm::FileDescriptor own(::fcntl(fileHandle->fileDescriptor(), F_DUPFD_CLOEXEC, 0));
  if (!own) return fail("The sample cannot be passed on: " + qm::systemErrorText(errno) + ".");
  XPCDictionary request = makeRequest(qm::skyvault::kRequestSample);
  request.setValue(qm::skyvault::kMetadataKey, qm::xpcObjectFromValue(metadata));
  const std::optional<std::uint32_t> userID = fileHandle->userID();
  request.setValue(qm::skyvault::kFileKey, XPCObject::fileDescriptor(std::move(own), userID));
  if (userID) request.setUInt64(qm::skyvault::kUserIDKey, *userID);
  send(request, timeout, std::move(completion), std::move(fileHandle));
}

void SVKSkyvaultServiceClient::queryReputationForURL(
    const qm::URL& url, const std::optional<std::vector<std::string>>& categories,
    const std::optional<qm::Dictionary>& metadata, std::chrono::milliseconds timeout, Completion completion) {
  XPCDictionary request = makeRequest(qm::skyvault::kRequestURL);
  request.setString(qm::skyvault::kURLKey, url.absoluteString());
  if (categories) {
    XPCArray wanted = XPCArray::create();
    for (const std::string& name : *categories) wanted.append(XPCObject::string(name));
    request.setValue(qm::skyvault::kCategoriesWantedKey, wanted);
  }
  if (metadata) request.setValue(qm::skyvault::kMetadataKey, qm::xpcObjectFromValue(*metadata));
  send(request, timeout, std::move(completion));
}

std::string SVKSkyvaultServiceClient::description() const {
  return qm::objectDescription("SVKSkyvaultServiceClient", this);
}

void SVKSkyvaultServiceClient::send(const XPCDictionary& request, std::chrono::milliseconds timeout,
                                    Completion completion, std::shared_ptr<qm::FileHandle> fileHandle) {
  // The transport takes zero for "no time-out".
  if (timeout <= std::chrono::milliseconds::zero()) {
    queue_.async([completion = std::move(completion), timeout] { completion(nullptr, timedOut(timeout)); });
    return;
  }
  const XPCConnection connection = connection_->current();
  connection.sendMessageWithReply(
      request, queue_,
      [completion = std::move(completion), timeout, fileHandle = std::move(fileHandle), connection,
       weak = std::weak_ptr(connection_)](const XPCObject& reply) {
        // Whoever asks again on account of this error must not meet the dead connection once more.
        const std::shared_ptr<Connection> holder = weak.lock();
        if (holder != nullptr && reply == qm::xpcErrorConnectionInvalid()) holder->forget(connection);
        qm::ErrorPtr error;
        const auto response = responseFromReply(reply, timeout, error);
        completion(response, error);
      },
      timeout);
}
