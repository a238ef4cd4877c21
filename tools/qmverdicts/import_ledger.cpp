#include "tools/qmverdicts/import_ledger.hpp"

#include <cmath>

#include "tools/qmr/display_text.hpp"

namespace qm::qmverdicts {

namespace {

// Of one reason; more are only counted.
constexpr std::size_t kMaximumListed = 100;

std::string counted(std::uint64_t count, std::string_view noun) {
  return std::to_string(count) + " " + std::string(noun) + (count == 1 ? "" : "s");
}

void addTo(VerdictStore::ImportOutcome& sum, const VerdictStore::ImportOutcome& outcome) {
  sum.added += outcome.added;
  sum.replaced += outcome.replaced;
  sum.unchanged += outcome.unchanged;
  sum.kept += outcome.kept;
  sum.repeated += outcome.repeated;
  sum.badToClean += outcome.badToClean;
  sum.cleanToBad += outcome.cleanToBad;
}

std::string textFromSeconds(double seconds) {
  const auto whole = static_cast<std::uint64_t>(std::ceil(seconds));
  if (whole < 60) return std::to_string(whole) + " s";
  return std::to_string(whole / 60) + " min " + std::to_string(whole % 60) + " s";
}

}  // namespace

void ImportLedger::skip(std::string_view reason, std::uint64_t line) {
  Skipped& skipped = read_.skipped[{{}, reason}];
  ++skipped.units;
  std::vector<LineRange>& ranges = skipped.ranges;
  if (!ranges.empty() && skipped.unlisted == 0 && ranges.back().second + 1 == line)
    ranges.back().second = line;
  else if (ranges.size() < kMaximumListed)
    ranges.emplace_back(line, line);
  else
    ++skipped.unlisted;
}

void ImportLedger::skip(std::string_view reason, const std::string& name, std::string_view kind) {
  Skipped& skipped = read_.skipped[{kind, reason}];
  ++skipped.units;
  if (skipped.names.size() < kMaximumListed)
    skipped.names.push_back(name);
  else
    ++skipped.unlisted;
}

tools::Failure ImportLedger::advance(std::uint64_t units, std::optional<double> share) {
  read_.units = units;
  if (batch_.size() >= kBatchSize || now_() - lastCommit_ >= kBatchTime) {
    if (auto failure = commit()) return failure;
  }
  const std::lock_guard lock(mutex_);
  progress_.show([&] { return progressText(share); });
  return std::nullopt;
}

tools::Failure ImportLedger::commit() {
  const std::lock_guard lock(mutex_);
  if (!batch_.empty()) {
    ErrorPtr error;
    const auto outcome = store_.importAll(std::exchange(batch_, {}), &error);
    if (!outcome) return error->localizedDescription();
    addTo(read_.outcome, *outcome);
  }
  committed_ = read_;
  lastCommit_ = now_();
  return std::nullopt;
}

std::string ImportLedger::progressText(std::optional<double> share) const {
  const double seconds = std::chrono::duration<double>(now_() - started_).count();
  const VerdictStore::ImportOutcome& done = committed_.outcome;
  std::string text = counted(read_.units, unit_);
  if (seconds > 0)
    text += ", " + std::to_string(std::llround(static_cast<double>(read_.units) / seconds)) + " a second";
  if (share && *share > 0)
    text += ", " + std::to_string(static_cast<int>(100 * *share)) + " %, " +
            textFromSeconds(seconds * (1 - *share) / *share) + " left";
  return text + ", " + counted(done.added + done.replaced, "verdict") + " stored";
}

std::string ImportLedger::outcomeText() const {
  const VerdictStore::ImportOutcome& outcome = committed_.outcome;
  std::string text =
      counted(outcome.added, "verdict") + " added, " + std::to_string(outcome.replaced) + " replaced";
  if (outcome.badToClean + outcome.cleanToBad != 0)
    text += " (" + std::to_string(outcome.badToClean) + " bad before and known_clean now, " +
            std::to_string(outcome.cleanToBad) + " known_clean before and bad now)";
  text += ", " + std::to_string(outcome.unchanged) + " there already, " + std::to_string(outcome.kept) +
          " left as a person gave them";
  if (outcome.repeated != 0) text += ", " + std::to_string(outcome.repeated) + " named again later";
  return text;
}

std::string ImportLedger::skippedText() const {
  std::map<std::string_view, std::uint64_t> kinds = {{{}, 0}};
  for (const auto& [reason, skipped] : committed_.skipped) kinds[reason.first] += skipped.units;
  std::string text;
  for (const auto& [kind, count] : kinds)
    text += (text.empty() ? "" : ", ") + counted(count, kind.empty() ? unit_ : kind);
  return text + " skipped";
}

void ImportLedger::list(std::ostream& output, const Skipped& skipped) {
  const char* separator = skipped.units == 1 ? " line " : " lines ";
  for (const auto& [first, end] : skipped.ranges) {
    output << std::exchange(separator, ", ") << first;
    if (end != first) output << "-" << end;
  }
  for (const std::string& name : skipped.names) output << "\n  " << qmr::displayText(name);
  if (skipped.unlisted != 0)
    output << (skipped.names.empty() ? ", and " : "\n  and ") << skipped.unlisted << " more";
}

void ImportLedger::conclude(std::ostream& output, const std::function<void()>& last) {
  const std::lock_guard lock(mutex_);
  progress_.clear();
  output << counted(committed_.units, unit_) << ": " << outcomeText() << "; " << skippedText() << "\n";
  for (const auto& [reason, skipped] : committed_.skipped) {
    const auto& [kind, text] = reason;
    output << (kind.empty() ? "" : std::string(kind) + "s ") << "skipped, " << text << ":";
    list(output, skipped);
    output << "\n";
  }
  output.flush();
  if (last) last();
}

}  // namespace qm::qmverdicts
