// The client of the Wisp core daemon. Calls go over one connection, made when it is first needed and made
// anew after it broke; no time-out, retry or queue is added to them.
//
// Callbacks run on the connection's queue. When the daemon cannot be reached, or its answer is not what the
// protocol allows, the error goes to the error callback and the call's own callback is not called, but
// released: who waits for it needs a time-out of its own. Of a client that is shut down it is only released.
// The ...Sync calls differ, see below. Any thread.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include "foundation/log.hpp"
#include "foundation/property.hpp"
#include "reputation/backends/QMRWispProtocol.hpp"
#include "settings/QMRServiceClient.hpp"

// Held by std::shared_ptr only.
class QMRWispClient final : public QMRServiceClient, public QMRWispProtocol {
 public:
  using ErrorCallback = QMRServiceClient::ErrorCallback;

  // Domain and code of the error of a file scan.
  static constexpr const char* kErrorDomain = "com.quillmarsh.qmr-wisp-client.error";
  static constexpr std::int64_t kFileScanNotOffered = 3328;

  // The client of the daemon in the namespace, or of one behind an endpoint. The callback, which may be null,
  // gets the errors of the asynchronous calls.
  explicit QMRWispClient(ErrorCallback errorCallback);
  QMRWispClient(qm::XPCEndpoint endpoint, ErrorCallback errorCallback);

  ErrorCallback errorCallback() const { return errorCallback_.get(); }
  // For calls from now on.
  void setErrorCallback(ErrorCallback callback) { errorCallback_.set(std::move(callback)); }

  static qm::Log& log();

  // The daemon's object; errors of its calls are logged and go to the error callback.
  qm::RemoteProxy proxy() override;
  qm::RemoteProxy synchronousProxy();
  qm::RemoteProxy scanProxy() { return proxy(); }

  void qvsScan(const std::optional<qm::URL>& url, std::uint32_t timeout, QvsScanCallback callback) override;
  void cloudScan(const std::optional<qm::URL>& url, const qm::Dictionary& metadata, std::uint32_t timeout,
                 CloudScanCallback callback) override;
  // Not offered through this client: answers at once, on the calling thread, with an empty summary and
  // kFileScanNotOffered.
  void fileScan(const qm::Array& paths, std::uint64_t clientDataPtr,
                const std::shared_ptr<const QMRWispFileScanParametersObjC>& scanParameters,
                std::uint32_t timeout, FileScanCallback callback) override;

  void getConfiguration(ConfigurationCallback callback) override;
  void setConfiguration(const std::shared_ptr<const QMRWispConfigurationObjC>& configuration,
                        ErrorCallback callback) override;
  void clearCache(ErrorCallback callback) override;
  void getSettingValue(std::int64_t key, SettingValueResponse response) override;
  void setSettingValue(const qm::Value& value, std::int64_t key, ErrorCallback callback) override;
  void notifyChannelUpdate(std::uint64_t channel, const std::optional<qm::URL>& path,
                           ErrorCallback callback) override;

  // The callback is called once in any case, on the calling thread and before the call returns: when the
  // daemon cannot be reached with that error.
  void getSettingValueSync(std::int64_t key, SettingValueResponse response) override;
  void notifyChannelUpdateSync(std::uint64_t channel, const std::optional<qm::URL>& path,
                               ErrorCallback callback) override;

  std::string description() const override;

 private:
  // Logs, then calls the block.
  static ErrorCallback loggingCallback(ErrorCallback callback);
  qm::RemoteProxy answeringProxy(ErrorCallback failed);

  qm::Property<ErrorCallback> errorCallback_;
};
