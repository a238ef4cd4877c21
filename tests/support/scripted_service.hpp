// A service that does what a test tells it, in this process. For one with a name the test program has to lie
// in the bin folder of an installation, so that the service's socket is below that installation's root.
#pragma once

#include "platform/xpc.hpp"
#include "support/testing.hpp"

namespace qm::test {

class ScriptedService {
 public:
  // Called for each message, on one thread at a time for each peer.
  using Script = std::function<void(const XPCDictionary& request)>;

  ScriptedService(const XPCConnection& listener, Script script, bool admitsPeers = true)
      : listener_(listener), admitsPeers_(admitsPeers) {
    listener_.setEventHandler([=, state = state_](const XPCObject& event) {
      if (event.type() != XPCType::connection) return state->gone.set_value();
      const XPCConnection peer = event.asConnection();
      state->peers.put(peer);
      if (!admitsPeers) return peer.cancel();
      peer.setEventHandler([script, state](const XPCObject& message) {
        if (message.type() == XPCType::dictionary) return script(message.asDictionary());
        state->ended.put(true);
      });
      peer.activate();
    });
    listener_.activate();
  }
  ScriptedService(const std::string& name, Script script, bool admitsPeers = true)
      : ScriptedService(XPCConnection::createListener(name), std::move(script), admitsPeers) {}
  ~ScriptedService() { end(); }
  ScriptedService(const ScriptedService&) = delete;
  ScriptedService& operator=(const ScriptedService&) = delete;

  // Dies: no reply goes out any more, no script runs, and the name is free when it returns. Not from the
  // script.
  void end() {
    if (std::exchange(ended_, true)) return;
    listener_.cancel();
    state_->gone.get_future().wait();
    for (const XPCConnection& peer : state_->peers.waitFor(0)) peer.cancel();
    if (admitsPeers_) state_->ended.waitFor(peers());
  }
  // The connections that were made.
  std::size_t peers() const { return state_->peers.size(); }

 private:
  struct State {
    Inbox<XPCConnection> peers;
    Inbox<bool> ended;  // of each peer its last event, behind all its messages
    std::promise<void> gone;
  };
  const std::shared_ptr<State> state_ = std::make_shared<State>();
  const XPCConnection listener_;
  const bool admitsPeers_;
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
