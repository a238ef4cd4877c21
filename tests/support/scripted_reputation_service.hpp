// A reputation service that does what a test tells it, in this process and under a name of its own. The test
// program has to lie in the bin folder of an installation, so that the service's socket is below that
// installation's root.
#pragma once

#include <functional>
#include <future>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "platform/xpc.hpp"

namespace qm::test {

class ScriptedReputationService {
 public:
  // Called for each message, on one thread at a time for each peer.
  using Script = std::function<void(const XPCDictionary& request)>;

  ScriptedReputationService(const std::string& serviceName, Script script, bool admitsPeers = true)
      : state_(std::make_shared<State>()), listener_(XPCConnection::createListener(serviceName)) {
    state_->script = std::move(script);
    state_->admitsPeers = admitsPeers;
    listener_.setEventHandler([state = state_](const XPCObject& event) { State::handle(state, event); });
    listener_.activate();
  }
  ~ScriptedReputationService() { end(); }
  ScriptedReputationService(const ScriptedReputationService&) = delete;
  ScriptedReputationService& operator=(const ScriptedReputationService&) = delete;

  // Dies: no reply goes out any more, and the name is free when it returns. Not from the script.
  void end() {
    if (std::exchange(ended_, true)) return;
    listener_.cancel();
    state_->gone.get_future().wait();
    const std::lock_guard lock(state_->mutex);
    for (const XPCConnection& peer : state_->peers) peer.cancel();
  }
  // The connections that were made.
  std::size_t peers() const {
    const std::lock_guard lock(state_->mutex);
    return state_->peers.size();
  }

 private:
  struct State {
    static void handle(const std::shared_ptr<State>& state, const XPCObject& event) {
      if (event.type() != XPCType::connection) return state->gone.set_value();
      const XPCConnection peer = event.asConnection();
      {
        const std::lock_guard lock(state->mutex);
        state->peers.push_back(peer);
      }
      if (!state->admitsPeers) return peer.cancel();
      peer.setEventHandler([state](const XPCObject& message) {
        if (message.type() == XPCType::dictionary) state->script(message.asDictionary());
      });
      peer.activate();
    }

    mutable std::mutex mutex;
    std::vector<XPCConnection> peers;
    Script script;
    bool admitsPeers = true;
    std::promise<void> gone;
  };

  const std::shared_ptr<State> state_;
  const XPCConnection listener_;
  bool ended_ = false;
};

struct ScriptedVerdict {
  std::int64_t level = 2;
  std::int64_t prevalence = 0;
  std::int64_t ttl = 0;
  std::optional<std::string> infectionName{};
};

inline void sendVerdict(const XPCDictionary& request, XPCDictionary message, const ScriptedVerdict& verdict) {
  message.setValue("replyTime", XPCObject::dateFromCurrent());
  message.setInt64("ttl", verdict.ttl);
  message.setUInt64("uid", 0);
  message.setString("filename", request.getString("filename").value_or(""));
  message.setInt64("prevalence", verdict.prevalence);
  message.setInt64("reputationVerdict", verdict.level);
  if (verdict.infectionName) message.setString("infectionName", *verdict.infectionName);
  request.remoteConnection().sendMessage(message);
}

inline void answer(const XPCDictionary& request, const ScriptedVerdict& verdict) {
  XPCDictionary reply = request.createReply();
  for (const char* key : {"txTime", "requestId"}) reply.setValue(key, request.value(key));
  sendVerdict(request, std::move(reply), verdict);
}

inline void answerLater(const XPCDictionary& request, const ScriptedVerdict& verdict) {
  sendVerdict(request, XPCDictionary::create(), verdict);
}

}  // namespace qm::test
