#include "client/reputation_message.hpp"

#include <limits>
#include <utility>

namespace qm {
namespace {

void fail(ReputationAnswer& answer, ReputationFailure failure, std::string text) {
  answer.failure = failure;
  answer.errorText = std::move(text);
  answer.verdict = ReputationVerdict::error;
}

std::optional<std::int64_t> int64Between(const XPCDictionary& response, std::string_view key,
                                         std::int64_t low, std::int64_t high) {
  const XPCObject value = response.value(key);
  if (!value || value.type() != XPCType::int64) return std::nullopt;
  const std::int64_t number = value.int64Value();
  if (number < low || number > high) return std::nullopt;
  return number;
}

void readServiceError(const XPCDictionary& response, ReputationAnswer& answer) {
  std::string text =
      response.getString("error-string").value_or("the service reported an error without a text");
  if (const auto description = response.getString("error-description")) text += ": " + *description;
  fail(answer, ReputationFailure::reportedByService, std::move(text));
}

ReputationVerdict verdictFromWire(std::int64_t verdict) {
  return verdict < kReputationVerdictCount ? static_cast<ReputationVerdict>(verdict)
                                           : ReputationVerdict::spam;
}

}  // namespace

XPCDictionary makeReputationRequest(ReputationRequestFacts facts) {
  const XPCObject descriptor = XPCObject::fileDescriptor(std::move(facts.descriptor));
  if (!descriptor) return {};
  XPCDictionary message = XPCDictionary::create();
  message.setBool("FileReputationRequest", true);
  message.setString("filename", facts.filename);
  message.setInt64("filesize", facts.fileSize);
  message.setUInt64("uid", facts.userID);
  message.setValue("filedescriptor", descriptor);
  message.setBool("is-downloaded-file", facts.downloaded);
  message.setUInt64("requestId", facts.requestID);
  message.setValue("txTime", XPCObject::dateFromCurrent());
  return message;
}

void readReputationResponse(const XPCDictionary& response, ReputationAnswer& answer) {
  const XPCObject replyTime = response.value("replyTime");
  if (replyTime && replyTime.type() == XPCType::date) answer.replyTime = replyTime.dateValue();

  const XPCObject error = response.value("error");
  if (error && error.type() != XPCType::boolean)
    return fail(answer, ReputationFailure::malformedAnswer, "the answer has an \"error\" that is no boolean");
  if (error.boolValue()) return readServiceError(response, answer);

  const auto verdict =
      int64Between(response, "reputationVerdict", 0, std::numeric_limits<std::int64_t>::max());
  const auto prevalence = int64Between(response, "prevalence", 0, std::numeric_limits<std::uint8_t>::max());
  const auto ttl = int64Between(response, "ttl", std::numeric_limits<std::int64_t>::min(),
                                std::numeric_limits<std::int64_t>::max());
  const XPCObject infectionName = response.value("infectionName");
  const char* wrong = !verdict                                                   ? "reputationVerdict"
                      : !prevalence                                              ? "prevalence"
                      : !ttl                                                     ? "ttl"
                      : infectionName && infectionName.type() != XPCType::string ? "infectionName"
                                                                                 : nullptr;
  if (wrong != nullptr)
    return fail(answer, ReputationFailure::malformedAnswer,
                std::string("the answer's \"") + wrong + "\" is missing, of a wrong type or out of range");
  if (verdictFromWire(*verdict) == ReputationVerdict::error)
    return fail(answer, ReputationFailure::reportedByService, "the service could not find out a verdict");

  answer.failure = ReputationFailure::none;
  answer.errorText.clear();
  answer.verdict = verdictFromWire(*verdict);
  answer.prevalence = static_cast<std::uint8_t>(*prevalence);
  answer.ttl = *ttl;
  answer.infectionName = response.getString("infectionName");
}

bool isReplyTo(const XPCDictionary& reply, std::uint64_t requestID) {
  const XPCObject identifier = reply.value("requestId");
  return !identifier || identifier == XPCObject::uint64(requestID);
}

}  // namespace qm
