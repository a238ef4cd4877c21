// The configuration of the Wisp core daemon: the back-end services it finds through the service discovery
// (porter), where its parts lie, and the product it runs in. Carried here, not interpreted.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <tuple>

#include "platform/coded_record.hpp"
#include "platform/url.hpp"

class QMRWispConfigurationObjC final : public qm::CodedRecord<QMRWispConfigurationObjC> {
 public:
  static constexpr std::string_view kClassName = "QMRWispConfigurationObjC";
  static constexpr auto codedMembers() {
    using Self = QMRWispConfigurationObjC;
    return std::tuple(
        qm::CodedMember("porterNamespace", &Self::porterNamespace),
        qm::CodedMember("porterEnvironment", &Self::porterEnvironment),
        qm::CodedMember("porterUuid", &Self::porterUuid), qm::CodedMember("porterSha", &Self::porterSha),
        qm::CodedMember("porterUrl", &Self::porterUrl), qm::CodedMember("porterRegion", &Self::porterRegion),
        qm::CodedMember("wpcoreMacosPath", &Self::wpcoreMacosPath),
        qm::CodedMember("sensorMacosPath", &Self::sensorMacosPath),
        qm::CodedMember("sensorMacosDbPath", &Self::sensorMacosDbPath),
        qm::CodedMember("tallowClientMacosPath", &Self::tallowClientMacosPath),
        qm::CodedMember("lintelMacosPath", &Self::lintelMacosPath),
        qm::CodedMember("gantry2Path", &Self::gantry2Path), qm::CodedMember("binPath", &Self::binPath),
        qm::CodedMember("productName", &Self::productName),
        qm::CodedMember("productVersion", &Self::productVersion));
  }

  std::int64_t porterNamespace = 0;
  std::optional<std::string> porterEnvironment;
  std::optional<std::string> porterUuid;
  std::optional<std::string> porterSha;
  std::optional<qm::URL> porterUrl;
  std::optional<std::string> porterRegion;
  std::optional<qm::URL> wpcoreMacosPath;
  std::optional<qm::URL> sensorMacosPath;
  std::optional<qm::URL> sensorMacosDbPath;
  std::optional<qm::URL> tallowClientMacosPath;
  std::optional<qm::URL> lintelMacosPath;
  std::optional<qm::URL> gantry2Path;
  std::optional<qm::URL> binPath;
  std::optional<std::string> productName;
  std::optional<std::string> productVersion;
};
