// What the daemon's tests share: a provider that answers as the test says, and a client in this process.
#pragma once

#include "platform/xpc.hpp"
#include "reputation/QMRFileReputationRequest.hpp"
#include "reputation/QMRReputationLookup.hpp"
#include "support/reputation_peer.hpp"

namespace qm::test {

class SubstituteProvider final : public QMRReputationLookup {
 public:
  using Answer = Block<void(const std::shared_ptr<QMRFileReputationRequest>& request,
                            const FileReputationCompletion& reply)>;
  explicit SubstituteProvider(Answer answer = nullptr) : answer_(std::move(answer)) {}

  void qvsScanForFile(const std::shared_ptr<QMRFileReputationRequest>& request, bool,
                      const FileReputationCompletion& reply) override {
    answer_(request, reply);
  }
  void cloudScanForFile(const std::shared_ptr<QMRFileReputationRequest>& request,
                        const FileReputationCompletion& reply) override {
    answer_(request, reply);
  }
  std::string description() const override { return "<substitute>"; }

 private:
  const Answer answer_;
};

}  // namespace qm::test
