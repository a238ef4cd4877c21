// What a file scan of the Wisp core daemon is to do.
#pragma once

#include <cstdint>
#include <string_view>
#include <tuple>

#include "platform/coded_record.hpp"

class QMRWispFileScanParametersObjC final : public qm::CodedRecord<QMRWispFileScanParametersObjC> {
 public:
  static constexpr std::string_view kClassName = "QMRWispFileScanParametersObjC";
  static constexpr auto codedMembers() {
    using Self = QMRWispFileScanParametersObjC;
    return std::tuple(
        qm::CodedMember("maxNested", &Self::maxNested), qm::CodedMember("stopOnFirst", &Self::stopOnFirst),
        qm::CodedMember("onAccess", &Self::onAccess), qm::CodedMember("skyvault", &Self::skyvault),
        qm::CodedMember("detectPUA", &Self::detectPUA), qm::CodedMember("quarantine", &Self::quarantine),
        qm::CodedMember("priority", &Self::priority));
  }

  std::uint8_t maxNested = 0;  // deepest archive nesting to open
  bool stopOnFirst = false;    // stop at the first detection
  bool onAccess = false;       // the scan is an on-access scan
  bool skyvault = false;       // the cloud may be consulted
  bool detectPUA = false;      // report potentially unwanted applications
  bool quarantine = false;     // quarantine what is found
  bool priority = false;       // high priority
};
