#include "tools/qmr/table_report.hpp"

#include <algorithm>
#include <string>
#include <string_view>

#include "tools/qmr/display_text.hpp"

namespace qm::qmr {
namespace {

constexpr std::size_t kVerdictWidth = 10;
constexpr std::size_t kAnswerWidth = 7;
constexpr std::size_t kPrevalenceWidth = 10;
constexpr std::size_t kTtlWidth = 10;
constexpr std::size_t kDetailWidth = 26;
constexpr const char* kGap = "  ";
constexpr const char* kNothing = "-";

constexpr const char* kRed = "\x1b[1;31m";
constexpr const char* kYellow = "\x1b[33m";
constexpr const char* kGreen = "\x1b[32m";
constexpr const char* kMagenta = "\x1b[35m";
constexpr const char* kPlain = "\x1b[0m";

// Code points, which is what most terminals give a column each.
std::size_t columns(std::string_view text) {
  return static_cast<std::size_t>(
      std::count_if(text.begin(), text.end(), [](char byte) { return (byte & 0xc0) != 0x80; }));
}

std::string spaces(std::string_view text, std::size_t width) {
  const std::size_t used = columns(text);
  return std::string(used < width ? width - used : 0, ' ');
}

std::string left(std::string_view text, std::size_t width) {
  return std::string(text) + spaces(text, width);
}
std::string right(std::string_view text, std::size_t width) {
  return spaces(text, width) + std::string(text);
}

const char* colourOf(ReputationVerdict verdict) {
  switch (verdict) {
    case ReputationVerdict::untrusted:
      return kRed;
    case ReputationVerdict::unwanted:
    case ReputationVerdict::suspicious:
    case ReputationVerdict::spam:
      return kYellow;
    case ReputationVerdict::trusted:
      return kGreen;
    case ReputationVerdict::error:
      return kMagenta;
    default:
      return "";
  }
}

std::string detail(const ReputationAnswer& answer) {
  if (!answer.answered()) return displayText(answer.errorText);
  if (answer.infectionName && !answer.infectionName->empty()) return displayText(*answer.infectionName);
  return kNothing;
}

}  // namespace

void TableReport::writeHeader() {
  output_ << left("VERDICT", kVerdictWidth) << kGap;
  if (style_.answerColumn) output_ << left("ANSWER", kAnswerWidth) << kGap;
  output_ << right("PREVALENCE", kPrevalenceWidth) << kGap << right("TTL", kTtlWidth) << kGap
          << left("DETAIL", kDetailWidth) << kGap << "PATH\n";
}

void TableReport::add(const ReputationAnswer& answer) {
  if (!headerWritten_) writeHeader();
  headerWritten_ = true;
  const std::string verdict = left(name(answer.verdict), kVerdictWidth);
  if (const std::string_view colour = colourOf(answer.verdict); style_.colour && !colour.empty())
    output_ << colour << verdict << kPlain << kGap;
  else
    output_ << verdict << kGap;
  if (style_.answerColumn) output_ << left(answer.delayed ? "delayed" : "reply", kAnswerWidth) << kGap;
  const bool answered = answer.answered();
  output_ << right(answered ? std::to_string(answer.prevalence) : kNothing, kPrevalenceWidth) << kGap
          << right(answered ? std::to_string(answer.ttl) : kNothing, kTtlWidth) << kGap
          << left(detail(answer), kDetailWidth) << kGap << displayText(answer.path) << '\n'
          << std::flush;
}

}  // namespace qm::qmr
