#include "tools/qmr/url_report.hpp"

#include <algorithm>
#include <cstdint>
#include <nlohmann/json.hpp>
#include <utility>
#include <vector>

#include "foundation/strings.hpp"
#include "tools/qmr/display_text.hpp"
#include "tools/qmr/exit_status.hpp"
#include "tools/qmr/summary.hpp"
#include "tools/qmr/table_cells.hpp"

namespace qm::qmr {
namespace {

constexpr std::size_t kSafeWidth = 5;
constexpr std::size_t kTtlWidth = 10;
constexpr std::size_t kBackendWidth = 7;
constexpr std::size_t kDetailWidth = 32;
constexpr std::int64_t kCertainlyUnsafe = -50;

const char* colourOf(const URLAnswer& answer) {
  if (!answer.answered()) return kMagenta;
  if (answer.safe < kCertainlyUnsafe) return kRed;
  if (answer.safe < 0) return kYellow;
  return answer.safe > 0 ? kGreen : "";
}

// Of an agent's error the backend passes on the description, with the sentence for people in quotes.
std::string sentence(const std::string& errorText) {
  if (!errorText.starts_with("Error Domain=")) return errorText;
  const std::size_t begin = errorText.find('"');
  const std::size_t end = std::min(errorText.rfind("\" UserInfo="), errorText.rfind('"'));
  return begin == std::string::npos || end <= begin ? errorText
                                                    : errorText.substr(begin + 1, end - begin - 1);
}

std::string detail(const URLAnswer& answer) {
  if (!answer.answered()) return displayText(sentence(answer.errorText));
  std::vector<std::string> scores;
  for (const auto& [category, score] : answer.categories)
    scores.push_back(displayText(category) + "=" + std::to_string(score));
  return scores.empty() ? kNothing : componentsJoinedByString(scores, ", ");
}

class Table final : public URLReport {
 public:
  Table(std::ostream& output, std::string backend, bool colour)
      : output_(output), backend_(std::move(backend)), colour_(colour) {}

  void add(const URLAnswer& answer) override {
    if (!headerWritten_) writeRow("SAFE", "", "TTL", "BACKEND", "DETAIL", "URL");
    headerWritten_ = true;
    const bool answered = answer.answered();
    writeRow(answered ? std::to_string(answer.safe) : "error", colour_ ? colourOf(answer) : "",
             answered ? std::to_string(answer.ttl) : kNothing, backend_, detail(answer), subject(answer.url));
    output_ << std::flush;
  }

 private:
  void writeRow(const std::string& safe, const char* colour, const std::string& ttl,
                const std::string& backend, const std::string& detail, const std::string& url) {
    output_ << coloured(right(safe, kSafeWidth), colour) << kGap << right(ttl, kTtlWidth) << kGap
            << left(backend, kBackendWidth) << kGap << left(detail, kDetailWidth) << kGap << url << '\n';
  }

  std::ostream& output_;
  const std::string backend_;
  const bool colour_;
  bool headerWritten_ = false;
};

class JsonLines final : public URLReport {
 public:
  JsonLines(std::ostream& output, std::string backend) : output_(output), backend_(std::move(backend)) {}

  void add(const URLAnswer& answer) override {
    nlohmann::ordered_json object;
    object["url"] = lossyUTF8(answer.url);
    object["backend"] = backend_;
    if (answer.answered()) {
      object["safe"] = answer.safe;
      auto categories = nlohmann::ordered_json::object();
      for (const auto& [category, score] : answer.categories) categories[lossyUTF8(category)] = score;
      object["categories"] = std::move(categories);
      object["ttl"] = answer.ttl;
    } else {
      object["failure"] = name(answer.failure);
      object["error"] = lossyUTF8(answer.errorText);
      if (answer.failure == URLFailure::reportedByBackend) object["errorCode"] = answer.errorCode;
    }
    object["seconds"] = std::chrono::duration<double>(answer.elapsed).count();
    output_ << object.dump() << '\n' << std::flush;
  }

 private:
  std::ostream& output_;
  const std::string backend_;
};

}  // namespace

std::unique_ptr<URLReport> makeURLTable(std::ostream& output, std::string backend, bool colour) {
  return std::make_unique<Table>(output, std::move(backend), colour);
}

std::unique_ptr<URLReport> makeURLJson(std::ostream& output, std::string backend) {
  return std::make_unique<JsonLines>(output, std::move(backend));
}

void URLSummary::add(const URLAnswer& answer) {
  if (!answer.answered())
    ++unanswered_;
  else
    ++(answer.safe < 0 ? unsafe_ : answer.safe > 0 ? safe_ : unknown_);
}

std::string URLSummary::text() const {
  std::vector<std::string> parts;
  for (const auto& [number, what] : {std::pair(unsafe_, "unsafe"), {unknown_, "unknown"}, {safe_, "safe"}})
    if (number > 0) parts.push_back(std::to_string(number) + " " + what);
  std::string text = componentsJoinedByString(parts, ", ");
  if (unanswered_ > 0) text += (text.empty() ? "" : "; ") + std::to_string(unanswered_) + " not answered";
  return counted(answeredURLs() + unanswered_, "URL", "URLs") + (text.empty() ? "" : ": ") + text;
}

int URLSummary::exitStatus() const {
  if (unsafe_ > 0) return kBadFound;
  return unanswered_ > 0 ? kNotAnswered : kNothingBad;
}

}  // namespace qm::qmr
