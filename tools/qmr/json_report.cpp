#include "tools/qmr/json_report.hpp"

#include <cstdint>
#include <nlohmann/json.hpp>

#include "foundation/strings.hpp"

namespace qm::qmr {
namespace {

double seconds(std::int64_t nanoseconds) {
  return static_cast<double>(nanoseconds) / 1e9;
}

}  // namespace

void JsonReport::add(const ReputationAnswer& answer) {
  nlohmann::ordered_json object;
  object["path"] = lossyUTF8(answer.path);
  if (!isValidUTF8(answer.path))
    object["pathBase64"] =
        base64(reinterpret_cast<const std::uint8_t*>(answer.path.data()), answer.path.size());
  object["verdict"] = name(answer.verdict);
  object["level"] = static_cast<int>(answer.verdict);
  if (answer.answered()) {
    object["prevalence"] = answer.prevalence;
    object["ttl"] = answer.ttl;
    if (answer.infectionName) object["infectionName"] = lossyUTF8(*answer.infectionName);
  } else {
    object["failure"] = name(answer.failure);
    object["error"] = lossyUTF8(answer.errorText);
  }
  object["downloaded"] = answer.downloaded;
  object["delayed"] = answer.delayed;
  if (answer.replyTime) object["replyTime"] = seconds(answer.replyTime->nanosecondsSince1970);
  object["seconds"] = seconds(answer.elapsed.count());
  output_ << object.dump() << '\n' << std::flush;
}

}  // namespace qm::qmr
