// What the daemon's tests share: a provider that answers as the test says, and a client in this process.
#pragma once

#include <gtest/gtest.h>

#include <chrono>
#include <future>
#include <memory>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "foundation/property.hpp"
#include "platform/xpc.hpp"
#include "reputation/QMRFileReputationRequest.hpp"
#include "reputation/QMRReputationProtocol.hpp"

namespace qm::test {

// A test that waits this long has failed.
inline constexpr auto kPatience = std::chrono::seconds(20);

class SubstituteProvider final : public QMRReputationProtocol {
 public:
  using Answer = Block<void(const std::shared_ptr<QMRFileReputationRequest>& request,
                            const FileReputationCompletion& reply)>;
  explicit SubstituteProvider(Answer answer = nullptr) : answer_(std::move(answer)) {}

  void reputationForFile(const std::shared_ptr<QMRFileReputationRequest>& request,
                         const FileReputationCompletion& reply) override {
    answer_(request, reply);
  }
  void reputationForURL(const std::string&, std::uint32_t, const URLReputationCompletion&) override {}
  void addBaseMetadataValue(Value value, const std::string& key) override { base[key] = std::move(value); }
  bool isReady() const override { return true; }
  bool useCloudScanForURLLookup() const override { return false; }
  void setUseCloudScanForURLLookup(bool) override {}
  PrevalenceThresholdCallback prevalenceThresholdCallback() const override { return nullptr; }
  void setPrevalenceThresholdCallback(PrevalenceThresholdCallback) override {}
  LookupEnabledCallback lookupEnabledCallback() const override { return nullptr; }
  void setLookupEnabledCallback(LookupEnabledCallback) override {}
  std::shared_ptr<QMRHashProviderProtocol> hashProvider() const override { return nullptr; }
  void setHashProvider(std::shared_ptr<QMRHashProviderProtocol>) override {}
  FileReputationCompletion delayedResponseCallback() const override { return delayed_.get(); }
  void setDelayedResponseCallback(FileReputationCompletion callback) override {
    delayed_.set(std::move(callback));
  }
  std::string description() const override { return "<substitute>"; }

  Dictionary base;

 private:
  Answer answer_;
  Property<FileReputationCompletion> delayed_;
};

class Client {
 public:
  explicit Client(const XPCEndpoint& endpoint) : connection_(XPCConnection::createClient(endpoint, queue_)) {
    connection_.setEventHandler([state = state_](const XPCObject& event) {
      const std::lock_guard lock(state->mutex);
      if (event.type() == XPCType::dictionary) state->messages.push_back(event.asDictionary());
    });
    connection_.activate();
  }
  ~Client() { connection_.cancel(); }

  std::future<XPCObject> send(const XPCDictionary& request) {
    auto promise = std::make_shared<std::promise<XPCObject>>();
    connection_.sendMessageWithReply(request, queue_,
                                     [promise](const XPCObject& reply) { promise->set_value(reply); });
    return promise->get_future();
  }
  XPCObject ask(const XPCDictionary& request) {
    std::future<XPCObject> reply = send(request);
    if (reply.wait_for(kPatience) == std::future_status::ready) return reply.get();
    ADD_FAILURE() << "no reply";
    return {};
  }
  // A message that gets no answer but the transport's: once that is here, the daemon has seen the peer, and
  // the peer has what the daemon sent before.
  void waitUntilSeen() { ask(XPCDictionary::create()); }
  // Those that were no reply.
  std::vector<XPCDictionary> messages() const {
    const std::lock_guard lock(state_->mutex);
    return state_->messages;
  }

 private:
  struct State {
    std::mutex mutex;
    std::vector<XPCDictionary> messages;
  };
  const std::shared_ptr<State> state_ = std::make_shared<State>();
  const Queue queue_ = Queue::serial("client");  // of messages and replies, which so keep their order
  XPCConnection connection_;
};

}  // namespace qm::test
