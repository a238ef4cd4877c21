#include "companions/live_sample_rules.hpp"

#include <algorithm>
#include <chrono>
#include <utility>

#include "foundation/log.hpp"
#include "foundation/value.hpp"
#include "platform/file_io.hpp"

namespace qm {

namespace {

// How long the folder is left alone before it is read: an editor may be at work.
constexpr std::chrono::milliseconds kSettlingTime{300};
// How long a start waits for the first set of rules. Whoever started the program does not wait much longer
// for it.
constexpr std::chrono::seconds kStartPatience{10};
constexpr std::int64_t kSecond = 1'000'000'000;  // in nanoseconds

Log& log() {
  static Log& log = Log::create(kQMRLogSubsystem, "SampleRules");
  return log;
}

}  // namespace

LiveSampleRules::LiveSampleRules(std::string folder, Observer observer)
    : folder_(std::move(folder)), observer_(std::move(observer)) {
  start_ = std::async(std::launch::async, [this] {
    reload();
    watcher_ = std::make_unique<FileWatcher>(folder_, kSettlingTime, [this](bool settled) {
      if (settled) reload();
      return !settled;
    });
  });
  if (start_.wait_for(kStartPatience) != std::future_status::ready)
    QM_LOG_ERROR(log(), "The sample rules in %{public}@ take long to compile, no sample is examined yet",
                 folder_);
}

LiveSampleRules::~LiveSampleRules() = default;

void LiveSampleRules::reload() {
  std::vector<RejectedRules> unreadable;
  std::vector<SampleRuleSource> sources = SampleRules::readFolder(folder_, unreadable);
  if (!unreadable.empty() && unreadable.front().name == folder_)
    return complainOfFolder(unreadable.front().reason);
  // What cannot be read is a mistaken text, too; said once, since no change of the text comes before the
  // next.
  std::map<std::string, std::string> reasons;
  for (const RejectedRules& file : unreadable) {
    const auto good = inUse_.find(file.name);
    const auto known = unreadable_.find(file.name);
    if (known == unreadable_.end() || known->second != file.reason) complain(file, good != inUse_.end());
    if (good != inUse_.end()) sources.push_back({file.name, good->second});
    reasons.emplace(file.name, file.reason);
  }
  if (unreadable_.contains(folder_))
    QM_LOG(log(), "The sample rules in %{public}@ can be read again", folder_);
  unreadable_ = std::move(reasons);
  std::map<std::string, SHA256Value> digests;
  for (const SampleRuleSource& source : sources)
    digests.emplace(source.name, sha256(source.text.data(), source.text.size()));
  if (!isFirst_ && digests == read_) return;
  if (!compile(std::move(sources))) return;
  read_ = std::move(digests);
  isFirst_ = false;
}

// Nobody has taken a rule back by that: what was found with them stays in force, too.
void LiveSampleRules::complainOfFolder(const std::string& reason) {
  std::string& known = unreadable_[folder_];
  if (std::exchange(known, reason) == reason) return;
  QM_LOG_ERROR(log(), "The sample rules in %{public}@ cannot be read: %{public}@", folder_, reason);
  if (isFirst_)
    QM_LOG_ERROR(log(), "No sample is examined");
  else
    QM_LOG_ERROR(log(), "The sample rules that were there before stay in use");
}

void LiveSampleRules::complain(const RejectedRules& file, bool hadGoodOnes) {
  QM_LOG_ERROR(log(), "Sample rules %{public}@ are left out: %{public}@", file.name, file.reason);
  if (hadGoodOnes) QM_LOG_ERROR(log(), "The sample rules that %{public}@ had before stay in use", file.name);
}

bool LiveSampleRules::compile(std::vector<SampleRuleSource> sources) {
  std::vector<RejectedRules> rejected;
  ErrorPtr error;
  auto rules = SampleRules::compile(sources, &rejected, &error);
  std::map<std::string, std::string> previous = std::exchange(inUse_, {});
  bool isAnySaved = false;
  for (const RejectedRules& file : rejected) {
    const auto source = std::find_if(sources.begin(), sources.end(),
                                     [&](const SampleRuleSource& each) { return each.name == file.name; });
    const auto good = previous.find(file.name);
    complain(file, good != previous.end());
    if (good == previous.end()) {
      sources.erase(source);
      continue;
    }
    source->text = good->second;
    isAnySaved = true;
  }
  if (isAnySaved) rules = SampleRules::compile(sources, nullptr, &error);
  if (rules == nullptr) {
    inUse_ = std::move(previous);
    QM_LOG_ERROR(log(), "The sample rules are not taken over: %{public}@", error);
    return false;
  }
  for (SampleRuleSource& source : sources) inUse_.emplace(std::move(source.name), std::move(source.text));
  if (!isFirst_ && inUse_ == previous) return true;  // what they find is what it was
  if (rules->count() == 0)
    QM_LOG_ERROR(log(), "There are no sample rules in %{public}@, no sample is examined", folder_);
  else
    QM_LOG(log(), "%zu sample rules from %{public}@", rules->count(), folder_);
  observer_(std::move(rules), changeTime());
  return true;
}

// Until rules are taken over samples are examined with those before, however old the new ones' files are. At
// the start the folder says when it was changed: also that a file came or went, and one that brings old times
// of its own with it is as new as it is here.
std::int64_t LiveSampleRules::changeTime() const {
  FileStatus status;
  if (!isFirst_ || !statPath(folder_.c_str(), status)) return Date::now().nanosecondsSince1970 / kSecond;
  std::int64_t newest = status.changedNanoseconds;
  for (const auto& [file, text] : inUse_)
    if (statPath(file.c_str(), status)) newest = std::max(newest, status.changedNanoseconds);
  return newest / kSecond;
}

}  // namespace qm
