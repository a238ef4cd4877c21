// What a file scan of the Wisp core daemon came to.
#pragma once

#include <cstdint>
#include <string_view>
#include <tuple>

#include "platform/coded_record.hpp"

class QMRWispScanCompleteSummaryObjC final : public qm::CodedRecord<QMRWispScanCompleteSummaryObjC> {
 public:
  static constexpr std::string_view kClassName = "QMRWispScanCompleteSummaryObjC";
  static constexpr auto codedMembers() {
    using Self = QMRWispScanCompleteSummaryObjC;
    return std::tuple(qm::CodedMember("scannedCount", &Self::scannedCount),
                      qm::CodedMember("errorCount", &Self::errorCount),
                      qm::CodedMember("infectedCount", &Self::infectedCount));
  }

  std::uint64_t scannedCount = 0;
  std::uint64_t errorCount = 0;
  std::uint64_t infectedCount = 0;
};
