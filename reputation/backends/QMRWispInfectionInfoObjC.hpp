// One infection that a file scan of the Wisp core daemon found.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <tuple>

#include "platform/coded_record.hpp"
#include "platform/url.hpp"

class QMRWispInfectionInfoObjC final : public qm::CodedRecord<QMRWispInfectionInfoObjC> {
 public:
  static constexpr std::string_view kClassName = "QMRWispInfectionInfoObjC";
  static constexpr auto codedMembers() {
    using Self = QMRWispInfectionInfoObjC;
    return std::tuple(qm::CodedMember("uri", &Self::uri), qm::CodedMember("engine", &Self::engine),
                      qm::CodedMember("type", &Self::type),
                      qm::CodedMember("infectionName", &Self::infectionName));
  }

  std::optional<qm::URL> uri;
  std::optional<std::string> engine;
  std::uint64_t type = 0;
  std::optional<std::string> infectionName;
};
