#include "companions/wisp_answers.hpp"

#include <algorithm>
#include <array>

#include "companions/url_key.hpp"
#include "companions/wisp_error.hpp"
#include "foundation/log.hpp"
#include "platform/file_io.hpp"
#include "platform/read_buffer.hpp"
#include "reputation/backends/wisp_categories.hpp"

namespace qm {

namespace {

using Qvs = QMRWispQvsResponseObjC;
using CloudScan = QMRWispCloudScanResponseObjC;

// Bytes; between two of them a scan may be given up.
constexpr std::size_t kPortion = 4 << 20;
// A file that was changed so shortly before it was read may change again with the same times: file systems
// count them in steps of up to two seconds.
constexpr std::int64_t kSettlingNanoseconds = 2'000'000'000;
constexpr std::int64_t kSecond = 1'000'000'000;  // in nanoseconds

Log& log() {
  static Log& log = Log::create(kQMRLogSubsystem, "qmwpcored");
  return log;
}

// What a verdict of the store is called in the two kinds of answers. A cloud scan cannot say that it does not
// know: its "clean" is no all-clear.
struct Meaning {
  std::string_view verdict;
  Qvs::SafetyVerdict safetyVerdict;
  CloudScan::Result result;
};

const Meaning& meaningOf(std::string_view verdict) {
  static constexpr std::array<Meaning, 6> meanings{
      {{SVKSkyvaultSafetyVerdictValueKnownClean, Qvs::knownClean, CloudScan::whitelisted},
       {SVKSkyvaultSafetyVerdictValueUndetected, Qvs::undetected, CloudScan::clean},
       {SVKSkyvaultSafetyVerdictValuePU, Qvs::potentiallyUnwanted, CloudScan::pua},
       {SVKSkyvaultSafetyVerdictValueUnwanted, Qvs::unwanted, CloudScan::pua},
       {SVKSkyvaultSafetyVerdictValueMalicious, Qvs::malicious, CloudScan::infected},
       {SVKSkyvaultSafetyVerdictValueUnknown, Qvs::unknown, CloudScan::clean}}};
  const auto found = std::find_if(meanings.begin(), meanings.end(),
                                  [&](const Meaning& meaning) { return meaning.verdict == verdict; });
  return found == meanings.end() ? meanings.back() : *found;
}

Dictionary dictionaryOf(const std::vector<SVKSkyvaultCategory>& categories) {
  Dictionary all;
  for (const SVKSkyvaultCategory& category : categories)
    all.insert_or_assign(category.name, Dictionary{{wisp::kCategoryValueKey, category.value}});
  return all;
}

std::shared_ptr<Qvs> qvsResponse(const StoredVerdict& known) {
  auto response = std::make_shared<Qvs>();
  response->safetyVerdict = meaningOf(known.verdict).safetyVerdict;
  // What an analysis says may be refined; what nobody has said anything about, too.
  response->safetyFinal = response->safetyVerdict != Qvs::unknown && known.source != kVerdictSourceAnalysis;
  response->ttl = known.ttl;
  response->prevalence = known.prevalence;
  response->detectionName = known.infectionName;
  return response;
}

std::shared_ptr<CloudScan> cloudScanResponse(const StoredVerdict& known) {
  auto response = std::make_shared<CloudScan>();
  response->result = meaningOf(known.verdict).result;
  response->ttl = known.ttl;
  response->prevalence = known.prevalence;
  response->infectionName = known.infectionName;
  return response;
}

void fail(ErrorPtr* error, WispError code, std::string text) {
  setError(error, makeWispError(code, std::move(text)));
}

void failToRead(ErrorPtr* error, int errorNumber) {
  fail(error, WispError::unreadable, "The file cannot be read: " + systemErrorText(errorNumber));
}

// A sample's bytes as far as it was kept, and its hashes.
struct Content {
  Content(std::size_t fileSize, std::size_t kept) : buffer(kept), size(fileSize) {}
  const ReadBuffer buffer;
  const std::size_t size;  // what the file had when it was opened
  ScannedFile hashes;
};

// Reads the whole file and hashes it; keeps it when the buffer is for all of it, and one byte more, else only
// a portion at a time. A file of another length than it had is not what anybody asked about.
bool readContent(int descriptor, const WispAnswers::Scan& scan, bool isKept, Content& content,
                 ErrorPtr* error) {
  FileDigests digests;
  std::size_t length = 0;
  while (scan.isWanted()) {
    std::uint8_t* const place = content.buffer.bytes() + (isKept ? length : 0);
    const std::size_t room = std::min(kPortion, content.buffer.size() - (isKept ? length : 0));
    const std::int64_t count = readAt(descriptor, place, room, static_cast<std::int64_t>(length));
    if (count < 0) {
      failToRead(error, errno);
      return false;
    }
    digests.update(place, static_cast<std::size_t>(count));
    length += static_cast<std::size_t>(count);
    const bool isAtEnd = count == 0;
    if (!isAtEnd && length <= content.size) continue;
    if (length != content.size) break;
    digests.finish(content.hashes.sha1, content.hashes.sha256);
    return true;
  }
  if (scan.isWanted())
    fail(error, WispError::unreadable, "The file changes while it is read");
  else
    fail(error, WispError::timedOut, "The file was not read to its end in time");
  return false;
}

// The whole seconds that are left, at least one: that is the scanner's unit.
std::chrono::seconds limitOf(const WispAnswers::Scan& scan) {
  const auto left = scan.deadline() - std::chrono::steady_clock::now();
  return std::max(std::chrono::ceil<std::chrono::seconds>(left), std::chrono::seconds(1));
}

ErrorPtr errorOfAnalysis(const ErrorPtr& error) {
  const bool isLate = error->code() == static_cast<std::int64_t>(SampleRulesError::timedOut);
  return makeWispError(isLate ? WispError::timedOut : WispError::notExamined, error->localizedDescription());
}

}  // namespace

WispAnswers::WispAnswers(std::string storePath, WispAnswersOptions options)
    : options_(std::move(options)),
      analysis_(options_),
      store_(std::move(storePath)),
      cache_(options_.rememberedFiles),
      hashes_(options_.rememberedHashes) {}

void WispAnswers::setRules(std::shared_ptr<const SampleRules> rules, std::int64_t changed) {
  analysis_.setRules(std::move(rules), changed);
  cache_.clear();
}

// --- Look-ups ---

WispAnswers::QvsResponse WispAnswers::lookUp(const SHA1Value& sha1) {
  std::optional<StoredVerdict> known;
  const bool isUsable = store_.find(notedSHA256(sha1), sha1, known);
  return qvsResponse(known && analysis_.isInForce(*known) ? *known : unknown(isUsable));
}

WispAnswers::QvsResponse WispAnswers::lookUp(const WebURL& url) {
  return answerAbout(url, qvsResponse);
}

WispAnswers::CloudScanResponse WispAnswers::scan(const WebURL& url) {
  return answerAbout(url, cloudScanResponse);
}

template <class Response>
std::shared_ptr<Response> WispAnswers::answerAbout(
    const WebURL& url, std::shared_ptr<Response> (*responseFor)(const StoredVerdict& known)) {
  std::optional<StoredURLVerdict> known;
  const bool isUsable = store_.findURL(urlLookupKeys(url.text), known);
  const auto response = responseFor(known ? *known : unknown(isUsable));
  if (known) response->categories = dictionaryOf(known->categories);
  return response;
}

StoredVerdict WispAnswers::unknown(bool isStoreUsable) const {
  StoredVerdict verdict;
  verdict.verdict = SVKSkyvaultSafetyVerdictValueUnknown;
  verdict.ttl = isStoreUsable ? options_.unknownTTL : 0;
  return verdict;
}

// --- Scans of files ---

// A peer names any file of the machine: that is what the scan is for, and peers are programs of the product.
// They learn from it whether the file can be read, and its verdict, and nothing else of its content. What is
// no regular file is never opened, and nothing is ever written.
WispAnswers::CloudScanResponse WispAnswers::scan(const FilePath& file, const Scan& its,
                                                 std::optional<ScannedFile>& analyzed, ErrorPtr* error) {
  const OpenedFile opened = openRegularFile(file.path, SymbolicLinks::follow);
  if (opened.descriptor) return scan(opened, its, analyzed, error);
  if (opened.errorNumber != 0)
    failToRead(error, opened.errorNumber);
  else
    fail(error, WispError::unreadable, std::string("Not a regular file but a ") + name(opened.kind));
  return nullptr;
}

WispAnswers::CloudScanResponse WispAnswers::scan(const OpenedFile& file, const Scan& its,
                                                 std::optional<ScannedFile>& analyzed, ErrorPtr* error) {
  const ScanCache::Generation generation = cache_.generation();
  const std::int64_t begun = options_.now() * kSecond;
  FileStatus status;
  if (!statDescriptor(file.descriptor.get(), status)) {
    failToRead(error, errno);
    return nullptr;
  }
  const auto size = static_cast<std::uint64_t>(status.size);
  if (size > options_.maximumFileSize) {
    fail(error, WispError::tooLarge, "The file is larger than is read");
    return nullptr;
  }
  if (const auto remembered = rememberedVerdict(status)) return cloudScanResponse(*remembered);

  const bool isExamined = analysis_.canExamine() && size <= options_.maximumSampleSize;
  // One byte more than there is to be: reading it shows that the file grew.
  Content content(size, isExamined ? size + 1 : kPortion);
  if (!content.buffer) {
    fail(error, WispError::busy, "There is no memory for the file");
    return nullptr;
  }
  if (!readContent(file.descriptor.get(), its, isExamined, content, error)) return nullptr;

  ScannedFile& scanned = content.hashes;
  noteHashes(scanned);
  const std::uint8_t* const bytes = isExamined ? content.buffer.bytes() : nullptr;
  if (!judge(scanned, bytes, size, its, analyzed, error)) return nullptr;
  const bool isSettled = status.changedNanoseconds < begun - kSettlingNanoseconds;
  FileStatus after;
  if (isSettled && statDescriptor(file.descriptor.get(), after) &&
      after.changedNanoseconds == status.changedNanoseconds)
    cache_.put(status, scanned, generation);
  return cloudScanResponse(scanned.verdict);
}

bool WispAnswers::judge(ScannedFile& scanned, const void* bytes, std::size_t length, const Scan& its,
                        std::optional<ScannedFile>& analyzed, ErrorPtr* error) {
  std::optional<StoredVerdict> known;
  const bool isUsable = store_.find(scanned.sha256, scanned.sha1, known);
  const bool isKnown = known && analysis_.isInForce(*known);
  scanned.verdict = isKnown ? *known : unknown(isUsable);
  if (bytes == nullptr || isKnown) return true;
  ErrorPtr failure;
  const std::optional<StoredVerdict> found = analysis_.analyze(bytes, length, limitOf(its), &failure);
  if (!found) {
    setError(error, errorOfAnalysis(failure));
    return false;
  }
  scanned.verdict = *found;
  analyzed = scanned;
  if (!isUsable) scanned.verdict.ttl = 0;  // the store may say otherwise
  return true;
}

void WispAnswers::noteHashes(const ScannedFile& scanned) {
  const std::lock_guard lock(hashesMutex_);
  hashes_.put(scanned.sha1, scanned.sha256);
}

std::optional<SHA256Value> WispAnswers::notedSHA256(const SHA1Value& sha1) {
  const std::lock_guard lock(hashesMutex_);
  const SHA256Value* const sha256 = hashes_.find(sha1);
  return sha256 == nullptr ? std::nullopt : std::optional(*sha256);
}

// What the store says by now comes before what was found out then. What then came from the store and is no
// longer there does not count. Without a store that can be used nobody may keep the answer.
std::optional<StoredVerdict> WispAnswers::rememberedVerdict(const FileStatus& status) {
  const std::optional<ScannedFile> scanned = cache_.find(status);
  if (!scanned) return std::nullopt;
  std::optional<StoredVerdict> known;
  const bool isUsable = store_.find(scanned->sha256, scanned->sha1, known);
  if (!known) {
    known = scanned->verdict;
    if (known->source != kVerdictSourceAnalysis && !known->source.empty()) return std::nullopt;
  }
  if (!analysis_.isInForce(*known)) return std::nullopt;
  if (!isUsable) known->ttl = 0;
  return known;
}

void WispAnswers::remember(const ScannedFile& analyzed) {
  store_.remember(analyzed.sha256, analyzed.sha1, analyzed.verdict);
}

void WispAnswers::clearCache() {
  cache_.clear();
  store_.close();
  QM_LOG(log(), "The cache is cleared");
}

}  // namespace qm
