#include "companions/skyvault_service.hpp"

#include <atomic>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "foundation/log.hpp"
#include "platform/linux/skyvault_wire.hpp"

namespace qm {

namespace {

using namespace skyvault;

Log& log() {
  static Log& log = Log::create(kQMRLogSubsystem, "skyvaultd");
  return log;
}

void send(const XPCDictionary& reply) {
  reply.remoteConnection().sendMessage(reply);
}

void sendError(XPCDictionary reply, ErrorCode code, std::string_view text) {
  QM_LOG_ERROR(log(), "A request is refused: %{public}@", text);
  reply.setInt64(kErrorCodeKey, static_cast<std::int64_t>(code));
  reply.setString(kErrorTextKey, text);
  send(reply);
}

XPCArray arrayOf(const std::vector<SVKSkyvaultCategory>& categories) {
  XPCArray array = XPCArray::create();
  for (const SVKSkyvaultCategory& category : categories) {
    XPCDictionary member = XPCDictionary::create();
    member.setString(kCategoryNameKey, category.name);
    member.setBool(kCategoryValueKey, category.value);
    array.append(member);
  }
  return array;
}

// The categories that the request asks for; none is all of them. False when there is something else.
bool readCategoriesWanted(const XPCDictionary& request, std::optional<std::vector<std::string>>& wanted) {
  const XPCObject value = request.value(kCategoriesWantedKey);
  if (!value) return true;
  if (value.type() != XPCType::array) return false;
  const XPCArray array = value.asArray();
  wanted.emplace();
  for (std::size_t i = 0; i < array.count(); ++i) {
    const XPCObject name = array.value(i);
    if (!name || name.type() != XPCType::string) return false;
    wanted->push_back(*name.stringValue());
  }
  return true;
}

void sendResponse(XPCDictionary reply, const SVKSkyvaultResponse& response) {
  reply.setString(kVerdictKey, response.safetyVerdict.value);
  if (response.safetyVerdict.infectionName)
    reply.setString(kInfectionNameKey, *response.safetyVerdict.infectionName);
  reply.setUInt64(kOptionsKey, response.options);
  reply.setUInt64(kTTLKey, response.ttl);
  reply.setInt64(kPrevalenceKey, response.prevalence);
  if (!response.categories.empty()) reply.setValue(kCategoriesKey, arrayOf(response.categories));
  send(reply);
}

}  // namespace

struct SkyvaultService::Peer {
  explicit Peer(std::shared_ptr<WorkShare> ofProcess) : share(std::move(ofProcess)) {}

  const std::shared_ptr<WorkShare> share;
  std::atomic<bool> isGone = false;
};

std::shared_ptr<SkyvaultService> SkyvaultService::create(std::shared_ptr<SkyvaultAnswers> answers,
                                                         Admission admission, Limits limits) {
  return std::shared_ptr<SkyvaultService>(
      new SkyvaultService(std::move(answers), std::move(admission), limits));
}

SkyvaultService::SkyvaultService(std::shared_ptr<SkyvaultAnswers> answers, Admission admission, Limits limits)
    : answers_(std::move(answers)),
      admission_(std::move(admission)),
      shares_(limits.analysesOfOneProcess),
      analyses_(Queue::concurrent("com.quillmarsh.skyvaultd.analyses", QualityOfService::utility),
                limits.runningAnalyses, limits.waitingAnalyses, limits.lostAnalyses) {}

void SkyvaultService::serve(const XPCConnection& listener, Block<void(const XPCObject& error)> failed) {
  listener.setEventHandler([self = shared_from_this(), failed = std::move(failed)](const XPCObject& event) {
    if (!event) return;
    // On a queue of its own: a program that is looked at for long does not keep others from being admitted.
    if (event.type() == XPCType::connection)
      return Queue::serial("com.quillmarsh.skyvaultd.admission")
          .async([self, connection = event.asConnection()] { self->admit(connection); });
    QM_LOG_ERROR(log(), "The listener came to its end: %{public}@", event);
    if (failed) failed(event);
  });
  listener.activate();
}

void SkyvaultService::admit(const XPCConnection& connection) {
  if (!admission_(connection)) {
    QM_LOG_ERROR(log(), "Process %{public}d is not admitted", connection.processID());
    connection.cancel();
    return;
  }
  auto peer = std::make_shared<Peer>(shares_.of(connection.auditToken()));
  connection.setEventHandler([self = shared_from_this(), peer = std::move(peer)](const XPCObject& event) {
    if (!event) return;
    if (event.type() == XPCType::dictionary) return self->handle(event.asDictionary(), peer);
    peer->isGone = true;
    QM_LOG_DEBUG(log(), "A peer is gone: %{public}@", event);
  });
  connection.activate();
}

void SkyvaultService::handle(const XPCDictionary& request, const std::shared_ptr<Peer>& peer) {
  const XPCDictionary reply = request.createReply();
  if (!reply) {
    QM_LOG_ERROR(log(), "A message that waits for no answer is ignored");
    return;
  }
  const std::string kind = request.getString(kRequestKey).value_or("");
  QM_LOG_DEBUG(log(), "Request %{public}@", kind);
  if (kind == kRequestHash) return replyToHash(request, reply);
  if (kind == kRequestMetadata) return replyToMetadata(request, reply, *peer);
  if (kind == kRequestSample) return replyToSample(request, reply, peer);
  if (kind == kRequestURL) return replyToURL(request, reply);
  sendError(reply, ErrorCode::notSupported, "This agent does not know such a request.");
}

void SkyvaultService::replyToHash(const XPCDictionary& request, const XPCDictionary& reply) {
  const std::optional<SHA256Value> sha256 = sha256FromHex(request.getString(kSHA256Key).value_or(""));
  if (!sha256) return sendError(reply, ErrorCode::invalidRequest, "The request has no valid SHA-256.");
  sendResponse(reply, answers_->lookUp(*sha256));
}

void SkyvaultService::replyToURL(const XPCDictionary& request, const XPCDictionary& reply) {
  const std::string url = request.getString(kURLKey).value_or("");
  if (url.empty()) return sendError(reply, ErrorCode::invalidRequest, "The request has no URL.");
  const XPCObject metadata = request.value(kMetadataKey);
  if (metadata && metadata.type() != XPCType::dictionary)
    return sendError(reply, ErrorCode::invalidRequest, "The request's metadata is no dictionary.");
  std::optional<std::vector<std::string>> categoriesWanted;
  if (!readCategoriesWanted(request, categoriesWanted))
    return sendError(reply, ErrorCode::invalidRequest, "The request's categories are no list of names.");
  sendResponse(reply, answers_->lookUpURL(url, categoriesWanted));
}

void SkyvaultService::replyToMetadata(const XPCDictionary& request, const XPCDictionary& reply,
                                      const Peer& peer) {
  const XPCObject object = request.value(kMetadataKey);
  const Value metadata = object ? valueFromXPCObject(object) : Value();
  const auto* dictionary = metadata.as<Dictionary>();
  if (dictionary == nullptr)
    return sendError(reply, ErrorCode::invalidRequest, "The request has no metadata.");
  const bool hasRoom = !analyses_.isFull() && !peer.share->isTaken();
  sendResponse(reply, answers_->analyzeMetadata(*dictionary, hasRoom));
}

void SkyvaultService::replyToSample(const XPCDictionary& request, const XPCDictionary& reply,
                                    const std::shared_ptr<Peer>& peer) {
  const XPCObject userID = request.value(kUserIDKey);
  if (userID && userID.type() == XPCType::uint64)
    request.value(kFileKey).setDescriptorUser(static_cast<std::uint32_t>(userID.uint64Value()));
  FileDescriptor file = request.duplicateDescriptor(kFileKey);
  if (!file) return sendError(reply, ErrorCode::invalidRequest, "The request has no sample.");
  const WorkShare::Ticket ticket = peer->share->take();
  auto examine = [answers = answers_, reply, peer, ticket, file = std::move(file)]() mutable {
    if (peer->isGone) return;
    ErrorPtr error;
    const std::optional<SVKSkyvaultResponse> response = answers->analyzeSample(file.get(), &error);
    file.reset();  // whoever gets the answer may count on it
    if (response) return sendResponse(reply, *response);
    sendError(reply, ErrorCode::unreadableSample, error->localizedDescription());
  };
  if (ticket == nullptr || !analyses_.submit(std::move(examine))) {
    QM_LOG(log(), "A sample is turned away: too many are waiting");
    sendResponse(reply, answers_->throttled());
  }
}

}  // namespace qm
