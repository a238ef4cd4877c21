// The Wisp core daemon's answer to a cloud scan of a file or a URL.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <tuple>

#include "foundation/value.hpp"
#include "platform/coded_record.hpp"
#include "reputation/backends/wisp_categories.hpp"

class QMRWispCloudScanResponseObjC final : public qm::CodedRecord<QMRWispCloudScanResponseObjC> {
 public:
  static constexpr std::string_view kClassName = "QMRWispCloudScanResponseObjC";
  static constexpr auto codedMembers() {
    using Self = QMRWispCloudScanResponseObjC;
    return std::tuple(qm::CodedMember("result", &Self::result), qm::CodedMember("ttl", &Self::ttl),
                      qm::CodedMember("infectionName", &Self::infectionName),
                      qm::CodedMember("categories", &Self::categories, qm::wisp::kCategoryClasses),
                      qm::CodedMember("prevalence", &Self::prevalence));
  }

  enum Result : std::uint64_t { clean, infected, suspected, pua, spam, whitelisted };

  std::uint64_t result = 0;  // a Result, or a value that a later daemon has
  std::uint64_t ttl = 0;     // seconds
  std::optional<std::string> infectionName;
  std::optional<qm::Dictionary> categories;  // see wisp_categories.hpp
  std::uint8_t prevalence = 0;
};
