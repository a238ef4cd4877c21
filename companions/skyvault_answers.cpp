#include "companions/skyvault_answers.hpp"

#include <algorithm>
#include <cerrno>
#include <utility>

#include "companions/content_kind.hpp"
#include "companions/url_key.hpp"
#include "foundation/log.hpp"
#include "platform/digest.hpp"
#include "platform/file_io.hpp"
#include "platform/linux/skyvault_wire.hpp"
#include "platform/read_buffer.hpp"

namespace qm {

namespace {

using namespace skyvault;

Log& log() {
  static Log& log = Log::create(kQMRLogSubsystem, "skyvaultd");
  return log;
}

// What comes from an analysis is marked as such also when it comes from the store: its "undetected" is no
// all-clear.
SVKSkyvaultResponse responseFor(const StoredVerdict& known) {
  SVKSkyvaultResponse response;
  response.safetyVerdict = {known.verdict, known.infectionName};
  response.options = kOptionFromServer | (known.source == kVerdictSourceAnalysis ? kOptionSageSuccess : 0);
  response.ttl = known.ttl;
  response.prevalence = known.prevalence;
  return response;
}

bool isWanted(const SVKSkyvaultCategory& category, const std::optional<std::vector<std::string>>& wanted) {
  return !wanted || std::find(wanted->begin(), wanted->end(), category.name) != wanted->end();
}

std::string_view textIn(const Dictionary& metadata, std::string_view key) {
  const auto* text = find<std::string>(metadata, key);
  return text == nullptr ? std::string_view() : *text;
}

enum class ReadOutcome : std::uint8_t { whole, failed, changed };

// Reads what was there when the size was taken. A file that became shorter meanwhile is read as it is now:
// verdict and hash are of the same bytes whatever happens to the file. One that grew has no end to trust.
ReadOutcome readWhole(int descriptor, const ReadBuffer& buffer, std::size_t size, std::size_t& length) {
  length = 0;
  while (length < buffer.size()) {
    const std::int64_t count = readAt(descriptor, buffer.bytes() + length, buffer.size() - length,
                                      static_cast<std::int64_t>(length));
    if (count < 0) return ReadOutcome::failed;
    if (count == 0) return ReadOutcome::whole;
    length += static_cast<std::size_t>(count);
  }
  return length > size ? ReadOutcome::changed : ReadOutcome::whole;
}

}  // namespace

SkyvaultAnswers::SkyvaultAnswers(std::string storePath, SkyvaultAnswersOptions options)
    : options_(std::move(options)), analysis_(options_), store_(std::move(storePath)) {}

void SkyvaultAnswers::setRules(std::shared_ptr<const SampleRules> rules, std::int64_t changed) {
  analysis_.setRules(std::move(rules), changed);
}

SVKSkyvaultResponse SkyvaultAnswers::unknown(std::uint64_t options, std::uint32_t ttl) const {
  SVKSkyvaultResponse response;
  response.safetyVerdict.value = SVKSkyvaultSafetyVerdictValueUnknown;
  response.options = kOptionFromServer | options;
  response.ttl = ttl;
  return response;
}

// What passes by itself is not to be kept by anyone: its ttl is 0.
SVKSkyvaultResponse SkyvaultAnswers::throttled() const {
  return unknown(kOptionSageThrottled, 0);
}

SVKSkyvaultResponse SkyvaultAnswers::lookUp(const SHA256Value& sha256) {
  std::optional<StoredVerdict> known;
  if (!store_.find(sha256, known)) return unknown(kOptionFailed, 0);
  return known && analysis_.isInForce(*known) ? responseFor(*known) : unknown(0, options_.unknownTTL);
}

SVKSkyvaultResponse SkyvaultAnswers::lookUpURL(
    std::string_view url, const std::optional<std::vector<std::string>>& categoriesWanted) {
  std::optional<StoredURLVerdict> known;
  if (!store_.findURL(urlLookupKeys(url), known)) return unknown(kOptionFailed, 0);
  if (!known) return unknown(0, options_.unknownTTL);
  SVKSkyvaultResponse response = responseFor(*known);
  for (SVKSkyvaultCategory& category : known->categories)
    if (isWanted(category, categoriesWanted)) response.categories.push_back(std::move(category));
  return response;
}

bool SkyvaultAnswers::wantsSample(const Dictionary& metadata,
                                  const std::optional<StoredVerdict>& outdated) const {
  if (!analysis_.canExamine()) return false;
  const Value* size = qm::find(metadata, "file_size");
  const std::int64_t bytes = size == nullptr ? 0 : size->integerValue();
  if (bytes <= 0 || static_cast<std::uint64_t>(bytes) > options_.maximumSampleSize) return false;
  // What was bad is examined again whatever it is: the Wisp core daemon examines files of every kind.
  const bool wasBad = outdated && outdated->verdict != SVKSkyvaultSafetyVerdictValueUndetected;
  return wasBad || contentKindFromMetadata(metadata) != ContentKind::other;
}

SVKSkyvaultResponse SkyvaultAnswers::analyzeMetadata(const Dictionary& metadata, bool mayAskForSample) {
  std::optional<StoredVerdict> known;
  const bool isUsable =
      store_.find(sha256FromHex(textIn(metadata, "sha256")), sha1FromHex(textIn(metadata, "sha1")), known);
  if (known && analysis_.isInForce(*known)) return responseFor(*known);
  SVKSkyvaultResponse response = isUsable ? unknown(0, options_.unknownTTL) : unknown(kOptionFailed, 0);
  if (!wantsSample(metadata, known)) return response;
  response.options |= mayAskForSample ? kOptionSageUploadRequested : kOptionSageThrottled;
  if (!mayAskForSample) response.ttl = 0;
  return response;
}

std::optional<SVKSkyvaultResponse> SkyvaultAnswers::analyzeSample(int descriptor, ErrorPtr* error) {
  FileStatus status;
  if (!statDescriptor(descriptor, status) || !status.isRegularFile) {
    setError(error, makeError(kErrorDomain, static_cast<std::int64_t>(ErrorCode::unreadableSample),
                              {{kLocalizedDescriptionKey, "The sample is not a regular file."}}));
    return std::nullopt;
  }
  const SVKSkyvaultResponse failure = unknown(kOptionSageFailed | kOptionSageUploaded, 0);
  const auto size = static_cast<std::uint64_t>(status.size);
  if (size > options_.maximumSampleSize) {
    QM_LOG(log(), "A sample of %llu bytes is larger than is examined", size);
    return failure;
  }
  // One byte more than there is to be: reading it shows that the file grew.
  const ReadBuffer buffer(static_cast<std::size_t>(size) + 1);
  std::size_t length = 0;
  const ReadOutcome outcome =
      buffer ? readWhole(descriptor, buffer, static_cast<std::size_t>(size), length) : ReadOutcome::failed;
  if (outcome == ReadOutcome::changed) {
    QM_LOG(log(), "A sample grew while it was read");
    return failure;
  }
  if (outcome == ReadOutcome::failed) {
    QM_LOG_ERROR(log(), "A sample cannot be read: %{public}s", systemErrorText(errno));
    return failure;
  }
  return examine(buffer.bytes(), length);
}

SVKSkyvaultResponse SkyvaultAnswers::examine(const std::uint8_t* bytes, std::size_t length) {
  const SHA256Value hash = sha256(bytes, length);
  const SHA1Value otherHash = sha1(bytes, length);
  std::optional<StoredVerdict> known;
  const bool isUsable = store_.find(hash, otherHash, known);
  if (known && known->source != kVerdictSourceAnalysis) {
    SVKSkyvaultResponse response = responseFor(*known);
    response.options |= kOptionSageUploaded;
    return response;
  }
  ErrorPtr error;
  const std::optional<StoredVerdict> found = analysis_.analyze(bytes, length, options_.scanLimit, &error);
  if (!found) {
    QM_LOG_ERROR(log(), "A sample was not examined to its end: %{public}@", error);
    return unknown(kOptionSageFailed | kOptionSageUploaded, 0);
  }
  SVKSkyvaultResponse response = responseFor(store_.remember(hash, otherHash, *found));
  response.options |= kOptionSageUploaded;
  if (!isUsable) response.ttl = 0;  // the store may say otherwise
  return response;
}

}  // namespace qm
