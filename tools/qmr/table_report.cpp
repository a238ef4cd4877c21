#include "tools/qmr/table_report.hpp"

#include <cstddef>
#include <string>

#include "tools/qmr/display_text.hpp"
#include "tools/qmr/table_cells.hpp"

namespace qm::qmr {
namespace {

constexpr std::size_t kVerdictWidth = 10;
constexpr std::size_t kAnswerWidth = 7;
constexpr std::size_t kPrevalenceWidth = 10;
constexpr std::size_t kTtlWidth = 10;
constexpr std::size_t kDetailWidth = 26;

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
  output_ << coloured(left(name(answer.verdict), kVerdictWidth),
                      style_.colour ? colourOf(answer.verdict) : "")
          << kGap;
  if (style_.answerColumn) output_ << left(answer.delayed ? "delayed" : "reply", kAnswerWidth) << kGap;
  const bool answered = answer.answered();
  output_ << right(answered ? std::to_string(answer.prevalence) : kNothing, kPrevalenceWidth) << kGap
          << right(answered ? std::to_string(answer.ttl) : kNothing, kTtlWidth) << kGap
          << left(detail(answer), kDetailWidth) << kGap << subject(answer.path) << '\n'
          << std::flush;
}

}  // namespace qm::qmr
