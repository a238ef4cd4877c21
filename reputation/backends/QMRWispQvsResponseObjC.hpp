// The Wisp core daemon's answer to a Qvs scan: what is known about a file's hash or a URL.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <tuple>

#include "foundation/value.hpp"
#include "platform/coded_record.hpp"
#include "reputation/backends/wisp_categories.hpp"

class QMRWispQvsResponseObjC final : public qm::CodedRecord<QMRWispQvsResponseObjC> {
 public:
  static constexpr std::string_view kClassName = "QMRWispQvsResponseObjC";
  static constexpr auto codedMembers() {
    using Self = QMRWispQvsResponseObjC;
    return std::tuple(qm::CodedMember("safetyVerdict", &Self::safetyVerdict),
                      qm::CodedMember("ttl", &Self::ttl), qm::CodedMember("safetyFinal", &Self::safetyFinal),
                      qm::CodedMember("prevalence", &Self::prevalence),
                      qm::CodedMember("detectionName", &Self::detectionName),
                      qm::CodedMember("categories", &Self::categories, qm::wisp::kCategoryClasses));
  }

  enum SafetyVerdict : std::uint64_t {
    knownClean,
    undetected,
    potentiallyUnwanted,
    unwanted,
    malicious,
    unknown
  };

  std::uint64_t safetyVerdict = 0;  // a SafetyVerdict, or a value that a later daemon has
  std::uint64_t ttl = 0;            // seconds
  bool safetyFinal = false;
  std::uint8_t prevalence = 0;
  std::optional<std::string> detectionName;
  std::optional<qm::Dictionary> categories;  // see wisp_categories.hpp
};
