// What a client connection needs of its reputation provider. Implemented by QMRReputationLookup; tests of the
// request protocol put their substitute here.
#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "foundation/block.hpp"
#include "foundation/value.hpp"
#include "reputation/QMRFileReputationResult.hpp"
#include "reputation/QMRURLReputationResult.hpp"

class QMRFileReputationRequest;
class QMRHashProviderProtocol;

// Every method may be called from any thread; the callbacks are called from any thread.
class QMRReputationProtocol {
 public:
  using PrevalenceThresholdCallback = qm::Block<std::int32_t()>;
  using LookupEnabledCallback = qm::Block<bool()>;

  virtual ~QMRReputationProtocol() = default;

  // Calls the reply once, now or later, or releases it uncalled when the backend's connection broke: whoever
  // waits must learn of that. The request's metadata is replaced on the way. A null reply is allowed.
  virtual void reputationForFile(const std::shared_ptr<QMRFileReputationRequest>& request,
                                 const qm::FileReputationCompletion& reply) = 0;
  // Calls the callback once, now or later, with a rating or an error. The time-out is in seconds. A null
  // callback is allowed.
  virtual void reputationForURL(const std::string& url, std::uint32_t timeout,
                                const qm::URLReputationCompletion& callback) = 0;
  // Adds to what is sent with every query about a file; a later value of the same key replaces the earlier
  // one. Two concurrent calls may lose one of the values.
  virtual void addBaseMetadataValue(qm::Value value, const std::string& key) = 0;

  // The backend can be used.
  virtual bool isReady() const = 0;

  virtual bool useCloudScanForURLLookup() const = 0;
  virtual void setUseCloudScanForURLLookup(bool use) = 0;

  // Asked for the prevalence from which on an unknown file is trusted; null: none is.
  virtual PrevalenceThresholdCallback prevalenceThresholdCallback() const = 0;
  virtual void setPrevalenceThresholdCallback(PrevalenceThresholdCallback callback) = 0;

  // Asked whether lookups are switched on; null: they are.
  virtual LookupEnabledCallback lookupEnabledCallback() const = 0;
  virtual void setLookupEnabledCallback(LookupEnabledCallback callback) = 0;

  // Hashes the file of a request that has no hashes; null: nobody does.
  virtual std::shared_ptr<QMRHashProviderProtocol> hashProvider() const = 0;
  virtual void setHashProvider(std::shared_ptr<QMRHashProviderProtocol> provider) = 0;

  // Takes the answers that come later than the reply. It usually holds the client's connection, whose handler
  // holds the provider: whoever ends the connection clears that handler.
  virtual qm::FileReputationCompletion delayedResponseCallback() const = 0;
  virtual void setDelayedResponseCallback(qm::FileReputationCompletion callback) = 0;

  virtual std::string description() const = 0;
};
