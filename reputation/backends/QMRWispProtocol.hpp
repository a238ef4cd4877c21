// What the Wisp core daemon, the product's local scanning service, offers. QMRWispClient forwards each call
// to it; tests of the Wisp backend put their substitute here.
//
// Time-outs are whole seconds and the daemon's to keep. Callbacks may be null. An error is null on success;
// the other arguments are of no use with one.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "foundation/block.hpp"
#include "foundation/error.hpp"
#include "foundation/value.hpp"
#include "platform/remote_protocol.hpp"
#include "platform/url.hpp"
#include "reputation/backends/QMRWispCloudScanResponseObjC.hpp"
#include "reputation/backends/QMRWispConfigurationObjC.hpp"
#include "reputation/backends/QMRWispFileScanParametersObjC.hpp"
#include "reputation/backends/QMRWispQvsResponseObjC.hpp"
#include "reputation/backends/QMRWispScanCompleteSummaryObjC.hpp"
#include "settings/QMRSubscriptionProtocol.hpp"

class QMRWispScanProtocol {
 public:
  using QvsScanCallback = qm::Block<void(const std::shared_ptr<const QMRWispQvsResponseObjC>& response,
                                         const qm::ErrorPtr& error)>;
  using CloudScanCallback = qm::Block<void(
      const std::shared_ptr<const QMRWispCloudScanResponseObjC>& response, const qm::ErrorPtr& error)>;
  using FileScanCallback = qm::Block<void(
      const std::shared_ptr<const QMRWispScanCompleteSummaryObjC>& summary, const qm::ErrorPtr& error)>;

  virtual ~QMRWispScanProtocol() = default;

  // What is known about a URL, or about a file: then "data://" and its SHA-1 in hexadecimal.
  virtual void qvsScan(const std::optional<qm::URL>& url, std::uint32_t timeout,
                       QvsScanCallback callback) = 0;
  // Asks the cloud about a URL, or about the file that a file URL names.
  virtual void cloudScan(const std::optional<qm::URL>& url, const qm::Dictionary& metadata,
                         std::uint32_t timeout, CloudScanCallback callback) = 0;
  // Scans the files at the paths (texts). The datum is the caller's own, to tell its scans apart.
  virtual void fileScan(const qm::Array& paths, std::uint64_t clientDataPtr,
                        const std::shared_ptr<const QMRWispFileScanParametersObjC>& scanParameters,
                        std::uint32_t timeout, FileScanCallback callback) = 0;
};

class QMRWispConfigurationProtocol {
 public:
  using ErrorCallback = qm::Block<void(const qm::ErrorPtr& error)>;
  using ConfigurationCallback =
      qm::Block<void(const std::shared_ptr<const QMRWispConfigurationObjC>& configuration)>;
  // The value is a dictionary, number, text or URL; null when there is none.
  using SettingValueResponse = qm::Block<void(const qm::Value& value, const qm::ErrorPtr& error)>;

  virtual ~QMRWispConfigurationProtocol() = default;

  virtual void getConfiguration(ConfigurationCallback callback) = 0;
  virtual void setConfiguration(const std::shared_ptr<const QMRWispConfigurationObjC>& configuration,
                                ErrorCallback callback) = 0;
  virtual void clearCache(ErrorCallback callback) = 0;
  // Setting keys and channels are the daemon's.
  virtual void getSettingValue(std::int64_t key, SettingValueResponse response) = 0;
  virtual void setSettingValue(const qm::Value& value, std::int64_t key, ErrorCallback callback) = 0;
  // The content of an update channel now lies at the URL.
  virtual void notifyChannelUpdate(std::uint64_t channel, const std::optional<qm::URL>& path,
                                   ErrorCallback callback) = 0;
};

// The calls that a client answers before they return, on the calling thread.
class QMRWispClientProtocol {
 public:
  virtual ~QMRWispClientProtocol() = default;

  virtual void getSettingValueSync(std::int64_t key,
                                   QMRWispConfigurationProtocol::SettingValueResponse response) = 0;
  virtual void notifyChannelUpdateSync(std::uint64_t channel, const std::optional<qm::URL>& path,
                                       QMRWispConfigurationProtocol::ErrorCallback callback) = 0;
};

class QMRWispProtocol : public QMRWispScanProtocol,
                        public QMRWispConfigurationProtocol,
                        public QMRWispClientProtocol {
 public:
  virtual std::string description() const = 0;  // not a remote call
};

template <>
struct qm::RemoteProtocol<QMRWispScanProtocol> {
  static constexpr std::string_view name = "QMRWispScanProtocol";
  using Methods = qm::RemoteMethods<
      qm::RemoteMethod<"qvsScan:withTimeout:withCallback:", &QMRWispScanProtocol::qvsScan>,
      qm::RemoteMethod<"cloudScan:withMetadata:withTimeout:withCallback:", &QMRWispScanProtocol::cloudScan>,
      qm::RemoteMethod<"fileScan:withClientDataPtr:withScanParameters:withTimeout:withCallback:",
                       &QMRWispScanProtocol::fileScan>>;
};

template <>
struct qm::RemoteProtocol<QMRWispConfigurationProtocol> {
  static constexpr std::string_view name = "QMRWispConfigurationProtocol";
  using Methods = qm::RemoteMethods<
      qm::RemoteMethod<"getConfiguration:", &QMRWispConfigurationProtocol::getConfiguration>,
      qm::RemoteMethod<"setConfiguration:withCallback:", &QMRWispConfigurationProtocol::setConfiguration>,
      qm::RemoteMethod<"clearCache:", &QMRWispConfigurationProtocol::clearCache>,
      qm::RemoteMethod<"getSettingValue:withResponse:", &QMRWispConfigurationProtocol::getSettingValue>,
      qm::RemoteMethod<"setSettingValue:forKey:withCallback:",
                       &QMRWispConfigurationProtocol::setSettingValue>,
      qm::RemoteMethod<"notifyChannelUpdate:withPath:withCallback:",
                       &QMRWispConfigurationProtocol::notifyChannelUpdate>>;
};

template <>
struct qm::RemoteProtocol<QMRWispClientProtocol> {
  static constexpr std::string_view name = "QMRWispClientProtocol";
  using Methods = qm::RemoteMethods<
      qm::RemoteMethod<"getSettingValueSync:withResponse:", &QMRWispClientProtocol::getSettingValueSync>,
      qm::RemoteMethod<"notifyChannelUpdateSync:withPath:withCallback:",
                       &QMRWispClientProtocol::notifyChannelUpdateSync>>;
};

template <>
struct qm::RemoteProtocol<QMRWispProtocol> {
  static constexpr std::string_view name = "QMRWispProtocol";
  using Methods = qm::JoinedRemoteMethods<qm::RemoteProtocol<QMRWispScanProtocol>::Methods,
                                          qm::RemoteProtocol<QMRWispConfigurationProtocol>::Methods,
                                          qm::RemoteProtocol<QMRWispClientProtocol>::Methods>;
};

// The daemon's side: its calls and, as of every service of the product, subscriptions.
class QMRWispServiceProtocol : public QMRWispProtocol, public QMRSubscriptionProtocol {};

template <>
struct qm::RemoteProtocol<QMRWispServiceProtocol> {
  static constexpr std::string_view name = qm::RemoteProtocol<QMRWispProtocol>::name;
  using Methods = qm::JoinedRemoteMethods<qm::RemoteProtocol<QMRWispProtocol>::Methods,
                                          qm::RemoteProtocol<QMRSubscriptionProtocol>::Methods>;
};

// Says in an interface of the protocol, the client's or the daemon's, what a setting's value may be.
inline void allowWispSettingValues(qm::RemoteInterface& interface) {
  const qm::CodedClasses classes{{"NSDictionary"}, {"NSNumber"}, {"NSString"}, {"NSURL"}};
  interface.setClasses(classes, "getSettingValue:withResponse:", 0, true);
  interface.setClasses(classes, "getSettingValueSync:withResponse:", 0, true);
  interface.setClasses(classes, "setSettingValue:forKey:withCallback:", 0, false);
}
